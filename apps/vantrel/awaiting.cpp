// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/awaiting.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "apps/vantrel/explain.h"

namespace VantrelCommand {
namespace {

constexpr double tick = 0.25;             // how often progress is looked at
constexpr double snapshotSeconds = 10.0;  // how long the agent may take to explain itself
constexpr std::size_t mostExplained = 50;

// The keys from `begin` on, as "keys 4-9, 12".
std::string ranges(std::vector<Vantrel::EntryKey> const& keys, std::size_t begin) {
  std::string text = "keys ";
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
  while (!acknowledgements_.done()) {
    double const left = secondsLeft();
    if (left <= 0) late();
    sayWhenUnreachable();
    tables_.wait(std::min(left, tick));
    all = std::max(all, acknowledgements_.outstanding());
    progress_.show(what, all - acknowledgements_.outstanding(), all);
  }
  progress_.clear();
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
  std::vector<Vantrel::EntryKey> const keys = acknowledgements_.keys();
  std::string text = fmt::format("{} {} not acknowledged within {} s", keys.size(),
                                 keys.size() == 1 ? "key is" : "keys are", *timeout_);
  std::string noSnapshot = tables_.statusProblem();
  if (noSnapshot.empty())
    noSnapshot = fmt::format("no agent has made {}", Vantrel::SharedTables::statusPath(dir_));
  std::optional<Snapshot> snapshot;
  if (tables_.hasStatus()) {
    snapshot = agent_->snapshot(snapshotSeconds);
    noSnapshot = agent_->problem();
  }
  if (!snapshot) text += fmt::format("; {}", noSnapshot);
  std::vector<Vantrel::EntryKey> explained = keys;
  if (explained.size() > mostExplained) explained.resize(mostExplained);
  Explainer const explainer(*tables_.config(), std::move(snapshot), noSnapshot, explained);
  for (Vantrel::EntryKey const key : explained) text += "\n  " + explainer.explain(key);
  if (keys.size() > mostExplained) text += "\n  and " + ranges(keys, mostExplained);
  throw Late(text);
}

}  // namespace VantrelCommand
