// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <utility>
#include <vector>

#include "bench/between/memory_dir.h"
#include "bench/between/road.h"
#include "producer/acknowledgements.h"
#include "producer/producer.h"
#include "producer/shared_tables.h"
#include "tests/support/process.h"

namespace Bench {
namespace {

using namespace Vantrel;
using TestSupport::Process;

class VantrelRoad : public Road {
 public:
  VantrelRoad(U64 entries, bool tracing)
      : agent_(started(tracing)),
        tables_(dir_.path()),
        producer_(tables_.config(), tables_.status(), Mapping::fast(), tables_.changes()),
        acknowledgements_(tables_.status()),
        aside_(entries + 1) {
    acknowledgements_.onAcknowledgedIs([this](EntryKey) { ++acknowledged_; });
    for (U64 key = 1; key <= entries; ++key) {
      put(key);
      if (key % 256 == 0) settle();
    }
    settle();
    acknowledged_ = 0;
  }
  ~VantrelRoad() override {
    agent_->signal(SIGTERM);
    agent_->wait();
  }

  void write(U64 key, Change change) override {
    if (change == Change::update) return put(key);
    aside_[key] = !aside_[key];
    acknowledgements_.await(EntryKey(key), producer_.move(EntryKey(key), position(key)));
  }
  U64 await() override {
    while (acknowledged_ == 0)  // a quick agent has done it before it was asked about
      if (!tables_.wait(patience / 1000)) throw std::runtime_error("the agent is silent: " + agent_->err());
    return std::exchange(acknowledged_, 0);
  }

 protected:
  std::vector<pid_t> farEnd() const override { return {agent_->pid()}; }

 private:
  std::unique_ptr<Process> started(bool tracing) const {
    if (tracing)
      unsetenv("LUMELOG_DISABLE");
    else
      setenv("LUMELOG_DISABLE", "1", 1);
    std::vector<std::string> const argv{VANTREL_BIN_DIR "/vantreld", "--dir", dir_.path(), "--size",
                                        std::to_string(2 * most)};
    auto agent = std::make_unique<Process>(argv, dir_ / "out", dir_ / "err");
    if (!TestSupport::eventually([&] { return agent->out().find("ready in") != std::string::npos; }))
      throw std::runtime_error("the agent does not start: " + agent->err());
    return agent;
  }
  // One priority a key, rising, and a free position beside each.
  U32 position(U64 key) const { return static_cast<U32>(2 * (key - 1) + (aside_[key] ? 1 : 0)); }
  void put(U64 key) {
    std::array<U64, dataWords> data{key, key, key, ++content_};
    OpId const opId = producer_.put(
        {.key = EntryKey(key), .pg = 0, .prio = static_cast<U32>(key), .ti = position(key), .data = data});
    acknowledgements_.await(EntryKey(key), opId);
  }
  void settle() {
    while (!acknowledgements_.done())
      if (!tables_.wait(patience / 1000)) throw std::runtime_error("the agent is silent: " + agent_->err());
  }

  MemoryDir const dir_;
  std::unique_ptr<Process> agent_;
  SharedTables tables_;
  Producer producer_;
  Acknowledgements acknowledgements_;
  std::vector<bool> aside_;
  U64 content_ = 0;
  U64 acknowledged_ = 0;
};

}  // namespace

std::unique_ptr<Road> vantrelRoad(U64 entries, bool tracing) {
  return std::make_unique<VantrelRoad>(entries, tracing);
}

}  // namespace Bench
