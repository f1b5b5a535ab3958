// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/agent_view.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "ostra/mount.h"
#include "ostra/mount_ask.h"
#include "ostra/piecewise_map.h"
#include "vantrel/sm/flush_status.h"

namespace VantrelCommand {
namespace {

using Vantrel::DebugConfig;
using Vantrel::DebugStatus;
using Vantrel::OpId;
using Vantrel::VantrelFlushStatus;
using Vantrel::WaitStatus;

using Json = nlohmann::json;

void readExecutor(Ostra::Asker& agent, char const* collection, auto const& take) {
  Json request{{"verb", "read"}, {"entity", "executor"}};
  if (*collection) request["attribute"] = collection;
  agent.ask(request.dump(), [&](std::string_view line) { take(Json::parse(line)); });
}

void forMembers(Ostra::Asker& agent, char const* collection, auto const& take) {
  readExecutor(agent, collection, [&](Json const& answer) {
    for (Json const& member : answer.at("members")) take(member.at(0).get<U64>(), member.at(1));
  });
}

// A key of which only the version or only the reason arrived was refused, or written, just now.
HardwareState hardwareStateOf(Ostra::Asker& agent) {
  HardwareState state;
  readExecutor(agent, "", [&](Json const& answer) {
    Json const& values = answer.at("values");
    state.behind = values.at("behind");
    state.unwritten = values.at("unwritten");
    state.problem = values.at("problem");
  });
  std::unordered_map<U64, OpId> versions;
  forMembers(agent, "failedOpId", [&](U64 key, Json const& opId) { versions[key] = OpId(opId.get<U64>()); });
  if (versions.empty()) return state;
  forMembers(agent, "failed", [&](U64 key, Json const& reason) {
    if (auto const at = versions.find(key); at != versions.end()) state.refused[key] = {at->second, reason};
  });
  return state;
}

class SocketView : public AgentView {
 public:
  explicit SocketView(std::string path) : path_(std::move(path)) {}

  std::optional<Snapshot> snapshot(double seconds) override {
    if (!connect()) return std::nullopt;
    if (!config_) {
      config_ = agent_->mount<DebugConfig>();
      status_ = agent_->mount<DebugStatus>();
      waits_ = agent_->mount<WaitStatus>();
    }
    if (!agent_->dispatchUntil([this] { return live(); }, seconds)) return fail(whyNoAnswer());
    ask();
    if (!agent_->dispatchUntil([this] { return answered() || !asked_->refusal.empty(); }, seconds))
      return fail("the agent took no snapshot in time");
    if (!asked_->refusal.empty()) return fail(asked_->refusal);
    return Snapshot{status_, waits_, hardware(seconds).value_or(HardwareState())};
  }
  std::optional<HardwareState> hardware(double seconds) override try {
    Ostra::Asker agent(path_, seconds);
    return hardwareStateOf(agent);
  } catch (std::exception const&) {
    return std::nullopt;
  }
  bool flushed(double seconds) override {
    if (!connect()) return false;
    if (!flush_) flush_ = agent_->mount<VantrelFlushStatus>();
    // Each front end moves tableCounter when it is made and flushCounter after its first walk.
    auto const done = [this] {
      return agent_->live(*flush_) && flush_->tableCounter() != 0 &&
             flush_->flushCounter() == flush_->tableCounter();
    };
    if (agent_->dispatchUntil(done, seconds)) return true;
    fail(agent_->live(*flush_) ? "the agent has not flushed the table" : whyNoAnswer());
    return false;
  }
  bool reached() override {
    if (!connect()) return false;
    for (pollfd p{agent_->fd(), POLLIN, 0}; ::poll(&p, 1, 0) > 0;) agent_->dispatch();
    if (!agent_->connected()) fail(whyNoAnswer());
    return agent_->connected();
  }
  bool listens() const override { return std::filesystem::exists(path_); }
  std::string problem() const override { return problem_; }

 private:
  // An agent that took another's place has not been asked yet.
  bool answered() {
    if (!live()) return false;
    if (asked_->lost) ask();
    return asked_->result && status_->answers(std::get<U64>(*asked_->result)) &&
           waits_->version() == status_->version();
  }
  bool live() const { return agent_->live(*config_) && agent_->live(*status_) && agent_->live(*waits_); }
  void ask() { asked_ = agent_->invoke(*config_, "versionInc", {U64{1}}); }
  bool connect() {
    if (!agent_ && !listens()) {
      fail("no agent listens on " + path_);
      return false;
    }
    if (!agent_) agent_ = std::make_unique<Ostra::Mounter>(path_);
    return true;
  }
  std::string whyNoAnswer() const {
    return agent_->problem().empty() ? "the agent does not answer on " + path_ : agent_->problem();
  }
  std::nullopt_t fail(std::string why) {
    problem_ = std::move(why);
    return std::nullopt;
  }

  std::string const path_;
  std::string problem_;
  Ostra::Ptr<DebugConfig> config_;
  Ostra::Ptr<DebugStatus> status_;
  Ostra::Ptr<WaitStatus> waits_;
  Ostra::Ptr<VantrelFlushStatus> flush_;
  std::shared_ptr<Ostra::Invocation const> asked_;
  std::unique_ptr<Ostra::Mounter> agent_;
};

}  // namespace

HardwareState::Refusal const* HardwareState::refusalOf(Vantrel::EntryKey key, OpId opId) const {
  auto const at = refused.find(key.value());
  return at != refused.end() && at->second.opId == opId ? &at->second : nullptr;
}

std::string HardwareState::delay() const {
  std::string text;
  if (behind != 0)
    text = fmt::format("the hardware is {} call{} behind", behind, behind == 1 ? "" : "s");
  else if (unwritten != 0)
    text = fmt::format("{} acknowledgement{} cannot be written", unwritten, unwritten == 1 ? "" : "s");
  return text.empty() || problem.empty() ? text : text + ": " + problem;
}

std::vector<Snapshot::Place> Snapshot::inOrder() const {
  std::vector<Place> all;
  all.reserve(places->status().size() + places->pending().size());
  for (auto const& [ti, key] : places->status()) all.push_back({ti, false, key});
  for (auto const& [ti, key] : places->pending()) all.push_back({ti, true, key});
  std::ranges::sort(all, {}, [](Place const& place) { return std::pair(place.ti, place.waits); });
  return all;
}

Vantrel::OpId Snapshot::opIdOf(Place const& place) const {
  auto const& opIds = place.waits ? places->pendingOpId() : places->statusOpId();
  auto const at = opIds.find(place.key);
  return at == opIds.end() ? Vantrel::OpId() : at->second;
}

HardwareState::Refusal const* Snapshot::refusalOf(Place const& place) const {
  return place.waits ? nullptr : hardware.refusalOf(place.key, opIdOf(place));
}

char const* Snapshot::stateOf(Place const& place) const {
  if (place.waits) return "waiting";
  return refusalOf(place) ? "refused" : "programmed";
}

std::unique_ptr<AgentView> agentViewOf(std::string const& dir) {
  return std::make_unique<SocketView>(dir + "/mgmt.sock");
}

}  // namespace VantrelCommand
