// SPDX-License-Identifier: Apache-2.0
// The order of a front end's destruction: its reactors are silenced, the failed keys are released, then the
// inputs in the reverse order of construction.
#include <functional>

#include "keel/virtual_wheel.h"
#include "ostra/exception.h"
#include "tests/shoal/fixture.h"
#include "tests/support/engine_world.h"
#include "tests/support/freed.h"

using namespace TestSupport;

namespace {

// What went, in order, and what is to be tried when something goes.
struct Witness {
  void saw(std::string what) {
    gone.push_back(std::move(what));
    if (gone.size() == 1 && atFirst) atFirst();
  }
  std::vector<std::string> gone;
  std::function<void()> atFirst;
};

// A kind of input that says when it goes.
template <class T>
class Leaving : public T {
 public:
  template <class... Args>
  explicit Leaving(Witness& witness, std::string what, Args&&... args)
      : T(std::forward<Args>(args)...), witness_(witness), what_(std::move(what)) {}
  ~Leaving() override { witness_.saw(what_); }

 private:
  Witness& witness_;
  std::string const what_;
};

class Engine : public VantrelImpl {
 public:
  explicit Engine(std::vector<std::string>& heard)
      : VantrelImpl("engine", nullptr, nullptr, nullptr, nullptr, 1U), heard_(heard) {}
  void handleEntry(EntryKey const& key) override {
    heard_.push_back("key " + std::to_string(key.value()));
    throw Ostra::InternalException("Failed to program dependant tables");
  }
  void handleDebug() override { heard_.push_back("debug"); }

 private:
  std::vector<std::string>& heard_;
};

class Destruction : public testing::Test {
 protected:
  Destruction() { setenv("LUMELOG_DISABLE", "1", 1); }
  // Everything is held by the front end alone.
  void create() {
    auto const tableMade = make<Leaving<Table>>(witness, "tableConfig");
    auto const debugMade = make<Leaving<DebugConfig>>(witness, "debugConfig", "debugConfig");
    auto const wheelMade = make<Leaving<Keel::VirtualWheel>>(witness, "retryFailedTimer");
    table = tableMade.get();
    debug = debugMade.get();
    wheel = wheelMade.get();
    sm =
        vantrelSmFactory(tableMade, make<Leaving<Shoal::LocalTable<EntryStatus>>>(witness, "tableStatus"),
                         debugMade, make<Leaving<DebugStatus>>(witness, "debugStatus", "debugStatus"),
                         make<Leaving<Engine>>(witness, "vantrelImpl", heard),
                         make<Leaving<VantrelFlushStatus>>(witness, "flushStatus", "flushStatus"), wheelMade);
  }

  using Table = Shoal::LocalTable<EntryConfig>;
  Witness witness;
  std::vector<std::string> heard;
  Table* table = nullptr;
  DebugConfig* debug = nullptr;
  Keel::VirtualWheel* wheel = nullptr;
  Ptr<VantrelSm> sm;
};

}  // namespace

TEST_F(Destruction, ReleasesInputsInReverseOrder) {
  create();
  EXPECT_THAT(witness.gone, IsEmpty());
  sm = nullptr;
  EXPECT_THAT(witness.gone, ElementsAre("retryFailedTimer", "flushStatus", "vantrelImpl", "debugStatus",
                                        "debugConfig", "tableStatus", "tableConfig"));
}

TEST_F(Destruction, SilencesEveryReactorBeforeAnyInputGoes) {
  create();
  table->notifyEntry(EntryKey(1));
  debug->versionInc(1);
  EXPECT_THAT(heard, ElementsAre("key 1", "debug")) << "they are not silent before";
  heard.clear();
  witness.atFirst = [this] {
    table->notifyEntry(EntryKey(2));
    table->notifyEntryColl();
    debug->versionInc(1);
  };
  sm = nullptr;
  EXPECT_EQ(witness.gone.size(), 7U);
  EXPECT_THAT(heard, IsEmpty());
}

TEST_F(Destruction, TheTimerIsSilentWhenItOutlivesTheFrontEnd) {
  create();
  table->notifyEntry(EntryKey(1));
  heard.clear();
  Ptr<Keel::VirtualWheel> const kept(wheel);
  witness.atFirst = [&] { kept->advance(100); };  // the wake-up that was armed comes between two steps
  sm = nullptr;
  EXPECT_EQ(witness.gone.front(), "flushStatus");
  EXPECT_EQ(witness.gone.size(), 6U);
  EXPECT_THAT(heard, IsEmpty());
}

// In the middle of the keys that a table has to tell, of which the front end holds the last reference.
TEST_F(Destruction, OfAReactorInADispatchEndsTheDispatch) {
  class Acting : public VantrelImpl {
   public:
    Acting() : VantrelImpl("engine", nullptr, nullptr, nullptr, nullptr, 1U) {}
    void handleEntry(EntryKey const& key) override {
      keys.push_back(key.value());
      if (act) act();
    }
    std::vector<U64> keys;
    std::function<void()> act;
  };
  ShoalTest::Directory const directory;
  ShoalTest::Writer writer(directory / "config");
  auto const other = make<Table>("other");
  U64 version = 0;
  auto const leftBy = [&](auto const& act) {
    auto reader = make<Leaving<ShoalTest::Reader>>(witness, "reader", directory / "config");
    ShoalTest::Reader& dispatched = *reader;
    auto const engine = make<Acting>();
    sm = vantrelSmFactory(reader, nullptr, nullptr, nullptr, engine, nullptr, nullptr);
    reader = nullptr;
    dispatched.dispatch();
    engine->keys.clear();
    engine->act = act;
    ++version;
    for (U64 key : {1, 2, 3}) writer.entryIs(ShoalTest::record(key, version));
    dispatched.dispatch();
    EXPECT_EQ(engine->keys.size(), 1U) << "the others are not told to nobody";
    return std::exchange(witness.gone, {});
  };
  EXPECT_THAT(leftBy([&] { sm = nullptr; }), ElementsAre("reader"));
  EXPECT_THAT(leftBy([&] { sm->tableConfigDel(); }), ElementsAre("reader"));
  EXPECT_THAT(leftBy([&] { sm->tableConfigIs(other); }), ElementsAre("reader"));
}

TEST_F(Destruction, FailedKeysGoBeforeTheFirstInput) {
  create();
  table->notifyEntry(EntryKey(1));
  ASSERT_EQ(sm->failedKey().size(), 1U);
  bool freed = false, before = false;
  onFree(&*sm->failedKey().begin(), [&] { freed = true; });
  witness.atFirst = [&] { before = freed; };
  sm = nullptr;
  EXPECT_TRUE(before);
}
