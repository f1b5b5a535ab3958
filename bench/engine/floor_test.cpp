// SPDX-License-Identifier: Apache-2.0
// The floor is one only if it does the work: after each case its indexes hold what the engine's hold.
#include "bench/engine/floor.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "bench/engine/ours.h"
#include "vantrel/fast/state.h"

namespace {

using namespace Bench;

Places placesIn(Vantrel::JudyMap<Vantrel::CState_s> const& map) {
  Places all;
  for (auto at = map.atOrAbove(0); at; at = map.above(at->index))
    all.push_back({at->index, at->value->key, at->value->opId});
  return all;
}
Places programmed(Ours& side) { return placesIn(side.engine().state()->positions.current); }
Places waiting(Ours& side) { return placesIn(side.engine().state()->pending); }
Places programmed(Floor& side) { return side.programmed(); }
Places waiting(Floor& side) { return side.waiting(); }

constexpr U32 n = 64;

// Entries 0 to n - 1, all programmed, and what each case of the benchmarks does to them.
template <class Side>
class World {
 public:
  explicit World(bool onePriority = false) : layout_{n, onePriority} {
    for (U32 const i : shuffled(n)) {
      want(i, i, 2 * i);
      side.add(keyOf(i));
    }
  }
  void want(U32 i, U32 key, U32 position, U16 action = 0) {
    side.table().entryQuietlyIs(config(layout_, key, i, position, ++version_, action));
  }
  void update(U32 i) {
    want(i, i, 2 * i, 1);
    side.update(keyOf(i));
  }
  void acknowledge(U32 i) {
    want(i, i, 2 * i);
    side.acknowledge(keyOf(i));
  }
  void move(U32 i) {
    want(i, i, 2 * i + 1);
    side.move(keyOf(i));
  }
  void block(U32 i) {
    want(i, n + i, 2 * i);
    side.block(keyOf(n + i));
  }
  void unblock(U32 i) {
    side.table().entryQuietlyDel(keyOf(n + i));
    side.unblock(keyOf(n + i));
  }
  void remove(U32 i) {
    side.table().entryQuietlyDel(keyOf(i));
    side.remove(keyOf(i));
  }
  void removeWaking(U32 i) {
    side.table().entryQuietlyDel(keyOf(i));
    side.removeWaking(keyOf(i));
  }
  void ring(U32 first, U32 size) {
    for (U32 k = 0; k < size; ++k) want(first + k, first + k, 2 * (first + (k + 1) % size));
    for (U32 k = 0; k + 1 < size; ++k) side.blockMove(keyOf(first + k));
    side.closeRing(keyOf(first + size - 1));
  }

  Side side{Layout{n}.shift()};

 private:
  Layout const layout_;
  U64 version_ = 0;
};

class FloorBesideEngine : public testing::Test {
 protected:
  void SetUp() override { setenv("LUMELOG_DISABLE", "1", 1); }

  // Both do the same.
  template <class Work>
  void both(Work const& work) {
    work(ours);
    work(floor);
    EXPECT_EQ(programmed(ours.side), programmed(floor.side));
    EXPECT_EQ(waiting(ours.side), waiting(floor.side));
  }

  World<Ours> ours;
  World<Floor> floor;
};

TEST_F(FloorBesideEngine, HoldsTheSameAfterAddsAndUpdates) {
  both([](auto& world) { EXPECT_EQ(programmed(world.side).size(), n); });
  both([](auto& world) { world.update(3); });
  both([](auto& world) { world.acknowledge(4); });
}

TEST_F(FloorBesideEngine, HoldsTheSameAfterMovesAndRemoves) {
  both([](auto& world) {
    for (U32 i = 0; i < n; i += 2) world.move(i);
    EXPECT_EQ(std::get<0>(programmed(world.side)[0]), 1U);
  });
  both([](auto& world) {
    for (U32 i = 1; i < n; i += 2) world.remove(i);
    EXPECT_EQ(programmed(world.side).size(), n / 2);
  });
}

TEST_F(FloorBesideEngine, HoldsTheSameAfterBlocksAndWakes) {
  both([](auto& world) {
    for (U32 i = 0; i < n; ++i) world.block(i);
    EXPECT_EQ(waiting(world.side).size(), n);
  });
  both([](auto& world) {
    for (U32 i = 0; i < n; i += 2) world.unblock(i);
    EXPECT_EQ(waiting(world.side).size(), n / 2);
  });
  both([](auto& world) {
    for (U32 i = 1; i < n; i += 2) world.removeWaking(i);
    EXPECT_TRUE(waiting(world.side).empty());
    EXPECT_EQ(std::get<1>(programmed(world.side)[1]), keyOf(n + 1));
  });
}

TEST_F(FloorBesideEngine, HoldsTheSameAfterRings) {
  World<Ours> engine(true);
  World<Floor> bare(true);
  for (auto const& [first, size] : {std::pair{0U, 2U}, {2U, 10U}, {12U, n - 12U}}) {
    engine.ring(first, size);
    bare.ring(first, size);
    EXPECT_EQ(programmed(engine.side), programmed(bare.side)) << size;
    EXPECT_TRUE(waiting(engine.side).empty() && waiting(bare.side).empty()) << size;
    EXPECT_EQ(std::get<1>(programmed(engine.side)[first]), keyOf(first + size - 1)) << size;
  }
}

TEST_F(FloorBesideEngine, HoldsTheSameAfterAWalk) {
  auto const table = Ostra::make<Floor::Table>();
  for (U32 const i : shuffled(n)) table->entryQuietlyIs(config(Layout{n}, i, i, 2 * i, 1));
  Ours engine(Layout{n}.shift(), table);
  Floor bare(Layout{n}.shift(), table);
  engine.walk();
  bare.walk();
  EXPECT_EQ(programmed(engine).size(), n);
  EXPECT_EQ(programmed(engine), programmed(bare));
}

}  // namespace
