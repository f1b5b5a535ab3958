// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/awaiting.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <unordered_map>
#include <utility>

#include "apps/vantrel/explain.h"

namespace VantrelCommand {
namespace {

constexpr double tick = 0.25;             // how often progress is looked at
constexpr double snapshotSeconds = 10.0;  // how long the agent may take to explain itself, at most as
                                          // long again as the deadline was
constexpr double hardwareSeconds = 1.0;   // how long for an answer about its hardware
constexpr int lookShare = 10;             // the pause between two of these, in times of the last one
constexpr std::size_t mostExplained = 50;

// The keys from `begin` on, as "keys 4-9, 12", or "key 4".
std::string ranges(std::vector<Vantrel::EntryKey> const& keys, std::size_t begin) {
  std::string text = keys.size() - begin == 1 ? "key " : "keys ";
  for (std::size_t i = begin; i < keys.size();) {
    std::size_t last = i;
    while (last + 1 < keys.size() && keys[last + 1].value() == keys[last].value() + 1) ++last;
    if (i != begin) text += ", ";
    text += std::to_string(keys[i].value());
    if (last != i) text += "-" + std::to_string(keys[last].value());
    i = last + 1;
  }
  return text;
}

}  // namespace

namespace {

// A line for each reason, the first one met first, and after some lines the rest without one.
std::string byReason(Explainer const& explainer, std::vector<Vantrel::EntryKey> const& keys) {
  std::vector<std::pair<std::string, std::vector<Vantrel::EntryKey>>> groups;
  std::unordered_map<std::string, std::size_t> groupOf;
  std::vector<Vantrel::EntryKey> rest;
  for (Vantrel::EntryKey const key : keys) {
    std::string reason = explainer.reasonOf(key);
    auto const known = groupOf.find(reason);
    if (known != groupOf.end()) {
      groups[known->second].second.push_back(key);
    } else if (groups.size() < mostExplained) {
      groupOf[reason] = groups.size();
      groups.emplace_back(std::move(reason), std::vector{key});
    } else {
      rest.push_back(key);
    }
  }
  std::string text;
  for (auto const& [reason, members] : groups)
    text += "\n  " + (members.size() == 1 ? explainer.explain(members[0])
                                          : fmt::format("{}: {}", ranges(members, 0), reason));
  if (!rest.empty()) text += "\n  and " + ranges(rest, 0);
  return text;
}

}  // namespace

Awaiting::Awaiting(std::string dir, Vantrel::SharedTables& tables, std::optional<double> timeout, bool quiet)
    : dir_(std::move(dir)),
      tables_(tables),
      acknowledgements_(tables.status()),
      timeout_(timeout),
      progress_(quiet),
      agent_(agentViewOf(dir_)) {}

double Awaiting::secondsLeft() const {
  if (!timeout_) return tick;
  return *timeout_ - std::chrono::duration<double>(Clock::now() - started_).count();
}

void Awaiting::untilDone(std::string const& what) {
  U64 all = acknowledgements_.outstanding();
  U64 const refusedBefore = refused_.size();
  while (!acknowledgements_.done()) {
    double const left = secondsLeft();
    if (left <= 0) late();
    if (acknowledgements_.done()) break;
    sayWhenUnreachable();
    tables_.wait(std::min(left, tick));
    lookAtHardware();
    all = std::max(all, acknowledgements_.outstanding());
    U64 const open = acknowledgements_.outstanding() + refused_.size() - refusedBefore;
    progress_.show(what, all - std::min(open, all), all, delay_);
  }
  progress_.clear();
}

// A version that is listed as refused was refused after it was written: the number is the producer's own, and
// rises.
void Awaiting::lookAtHardware() {
  auto const now = Clock::now();
  if (now < hardwareDue_) return;
  auto const state = agent_->hardware(std::min(hardwareSeconds, std::max(secondsLeft(), tick)));
  auto const pause = std::max<Clock::duration>(
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(tick)),
      lookShare * (Clock::now() - now));
  hardwareDue_ = Clock::now() + pause;
  delay_ = state ? state->delay() : "";
  if (!state) return;
  for (auto const& [key, refusal] : state->refused)
    if (acknowledgements_.awaited(Vantrel::EntryKey(key)) == refusal.opId)
      refuse(Vantrel::EntryKey(key), refusal);
}

void Awaiting::refuse(Vantrel::EntryKey key, HardwareState::Refusal const& refusal) {
  acknowledgements_.forget(key);
  refused_.insert(key);
  if (refused_.size() <= mostExplained) {
    progress_.clear();
    fmt::print(stderr, "vantrel: key {} (OpId {}) is refused by the hardware: {}\n", key.value(),
               refusal.opId.value(), refusal.reason);
  }
  if (handler_) handler_(key);
}

std::vector<Vantrel::EntryKey> Awaiting::refusedKeys() {
  std::vector<Vantrel::EntryKey> keys;
  if (auto const state = agent_->hardware(hardwareSeconds))
    for (auto const& [key, refusal] : state->refused) keys.emplace_back(key);
  return keys;
}

void Awaiting::requireNoneRefused() const {
  if (!refused_.empty()) throw Refused(refusedText());
}

std::string Awaiting::refusedText() const {
  std::vector<Vantrel::EntryKey> const keys(refused_.begin(), refused_.end());
  return fmt::format(
      "{} refused by the hardware ({}); mend what it says, then load or put again: a newer version is tried",
      keys.size() == 1 ? "1 key is" : fmt::format("{} keys are", keys.size()), ranges(keys, 0));
}

bool Awaiting::untilFlushed() {
  while (!agent_->flushed(std::clamp(secondsLeft(), 0.0, tick))) {
    if (!agent_->listens()) return false;
    if (secondsLeft() <= 0)
      throw Late(fmt::format("the table is not flushed within {} s; {}", *timeout_, agent_->problem()));
    sayWhenUnreachable();
  }
  return true;
}

// With a deadline the end says it.
void Awaiting::sayWhenUnreachable() {
  auto const now = Clock::now();
  if (timeout_ || now - lookedFor_ < std::chrono::duration<double>(tick)) return;
  lookedFor_ = now;
  bool const unreachable = !agent_->reached();
  if (unreachable && !unreachableSaid_) {
    progress_.clear();
    fmt::print(stderr, "vantrel: {}; waiting for it\n", agent_->problem());
  }
  unreachableSaid_ = unreachable;
}

void Awaiting::late() {
  progress_.clear();
  hardwareDue_ = {};
  lookAtHardware();
  if (acknowledgements_.done()) return;
  std::vector<Vantrel::EntryKey> const keys = acknowledgements_.keys();
  std::string text = fmt::format("{} {} not acknowledged within {} s", keys.size(),
                                 keys.size() == 1 ? "key is" : "keys are", *timeout_);
  if (!delay_.empty()) text += "; " + delay_;
  std::string noSnapshot = tables_.statusProblem();
  if (noSnapshot.empty())
    noSnapshot = fmt::format("no agent has made {}", Vantrel::SharedTables::statusPath(dir_));
  std::optional<Snapshot> snapshot;
  if (tables_.hasStatus()) {
    snapshot = agent_->snapshot(std::clamp(*timeout_, 1.0, snapshotSeconds));
    noSnapshot = agent_->problem();
  }
  if (!snapshot) text += fmt::format("; {}", noSnapshot);
  Explainer const explainer(*tables_.config(), std::move(snapshot), noSnapshot, keys);
  text += byReason(explainer, keys);
  if (!refused_.empty()) text += "\n  and " + refusedText();
  throw Late(text);
}

}  // namespace VantrelCommand
