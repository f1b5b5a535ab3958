// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/agent_view.h"

#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "ostra/mount.h"
#include "ostra/piecewise_map.h"
#include "vantrel/sm/flush_status.h"

namespace VantrelCommand {
namespace {

using Vantrel::DebugConfig;
using Vantrel::DebugStatus;
using Vantrel::VantrelFlushStatus;
using Vantrel::WaitStatus;

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
    return Snapshot{status_, waits_};
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

std::unique_ptr<AgentView> agentViewOf(std::string const& dir) {
  return std::make_unique<SocketView>(dir + "/mgmt.sock");
}

}  // namespace VantrelCommand
