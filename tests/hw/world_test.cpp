// SPDX-License-Identifier: Apache-2.0
// Engine and executor in front of hardware that is late, busy, refuses, throws and forgets to answer, and of
// a status table that is full for a while. What must hold is checked after every call, completion and retry
// (failing_world.h); when the faults end, hardware and acknowledgements are those of the same engine in front
// of hardware that never fails.
//
// Every small world: each sequence of a few steps, and for each one all that may come of every call, as long
// as no more than so many of them go wrong. VANTREL_WORLD_STEPS is the number of configuration steps and
// driver calls of the random runs, VANTREL_SEED their first seed; VANTREL_EXHAUSTIVE_EXTRA lets so many more
// calls go wrong in the small worlds.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <random>

#include "tests/hw/failing_world.h"
#include "tests/model/scale.h"

namespace TestHw {
namespace {

using Kind = Step::Kind;
using Testing::environment;
using Testing::slow;

// A walk over all leaves of a tree: each run starts at the root and asks which way to go.
class Path {
 public:
  unsigned choose(unsigned ways) {
    if (at_ == turns_.size()) turns_.push_back({0, ways});
    return turns_[at_++].way;
  }
  // Goes on to the next leaf. False after the last.
  bool next() {
    at_ = 0;
    for (; !turns_.empty(); turns_.pop_back())
      if (++turns_.back().way < turns_.back().ways) return true;
    return false;
  }
  std::string text() const {
    std::string all;
    for (Turn const& turn : turns_) all += fmt::format("{} ", turn.way);
    return all;
  }

 private:
  struct Turn {
    unsigned way, ways;
  };
  std::vector<Turn> turns_;
  std::size_t at_ = 0;
};

// No more than so many go wrong.
class ChosenFaults : public Faults {
 public:
  ChosenFaults(Path& path, unsigned most) : path_(path), left_(most) {}
  Fate ofCall() override { return static_cast<Fate>(choose(fates)); }
  Fate ofCompletion() override { return lateFates[choose(std::size(lateFates))]; }
  bool statusFills() override { return choose(2) == 1; }
  void beginningIs(bool beginning) { beginning_ = beginning; }

 private:
  unsigned choose(unsigned ways) {
    if (left_ == 0 || beginning_) return 0;
    unsigned const way = path_.choose(ways);
    if (way != 0) --left_;
    return way;
  }
  Path& path_;
  unsigned left_;
  bool beginning_ = true;
};

struct SmallWorld {
  std::string name;
  Shape shape;
  std::vector<Step> beginning;
  std::vector<Step> alphabet;
  unsigned length;
  unsigned mostFaults;
};

using Steps = std::vector<Step>;

std::string toText(Steps const& steps) {
  std::string all;
  for (Step const& step : steps) all += TestHw::toText(step) + "; ";
  return all;
}

class Explorer {
 public:
  explicit Explorer(SmallWorld const& world) : world_(world) {}

  // Empty, or what went wrong first, and where.
  std::string run() {
    Steps steps(world_.length);
    std::vector<std::size_t> digits(world_.length);
    for (;;) {
      for (std::size_t i = 0; i < steps.size(); ++i) steps[i] = world_.alphabet[digits[i]];
      if (std::string const wrong = runAll(steps); !wrong.empty()) return wrong;
      std::size_t at = 0;
      while (at < digits.size() && ++digits[at] == world_.alphabet.size()) digits[at++] = 0;
      if (at == digits.size()) return "";
    }
  }
  Met met;
  U64 runs = 0;

 private:
  std::string runAll(Steps const& steps) {
    perfect_.clear();
    Path path;
    do {
      std::string const wrong = runOnce(steps, path);
      if (!wrong.empty())
        return fmt::format("{}: {}\n{}\nturns {}", world_.name, wrong, toText(steps), path.text());
      ++runs;
    } while (path.next());
    return "";
  }

  std::string runOnce(Steps const& steps, Path& path) {
    ChosenFaults faults(path, world_.mostFaults);
    FailingWorld world(world_.shape, faults);
    for (Step const& step : world_.beginning) world.run(step);
    faults.beginningIs(false);
    for (Step const& step : steps) {
      world.run(step);
      passTime(world, path);
      if (!world.broken().empty()) return world.broken();
    }
    auto const failed = world.settle();
    for (EntryKey const& key : failed) world.again(key);
    met += world.met();
    return world.broken().empty() ? world.difference(perfect(steps, failed)) : world.broken();
  }

  // What happens before the next step: nothing, a late call is completed, retries are due, there is space.
  static void passTime(FailingWorld& world, Path& path) {
    bool hasWaited = false;
    for (;;) {
      unsigned const late = static_cast<unsigned>(world.late());
      bool const waits = world.waitsForTime() && !hasWaited;
      unsigned const ways = 1 + late + (waits ? 1 : 0) + (world.isFull() ? 1 : 0);
      unsigned const way = ways == 1 ? 0 : path.choose(ways);
      if (way == 0) return;
      if (way <= late) {
        world.completeOne(way - 1);
      } else if (way == late + 1 && waits) {
        hasWaited = true;
        world.advance(0.02);
      } else {
        world.spaceIsFree();
      }
    }
  }

  // The same steps, and the same keys written again, before hardware that never fails.
  PerfectWorld const& perfect(Steps const& steps, std::vector<EntryKey> const& failed) {
    auto& world = perfect_[failed];
    if (!world) {
      world = std::make_unique<PerfectWorld>(world_.shape);
      for (Step const& step : world_.beginning) world->run(step);
      for (Step const& step : steps) world->run(step);
      for (EntryKey const& key : failed) world->again(key);
    }
    return *world;
  }

  SmallWorld const& world_;
  std::map<std::vector<EntryKey>, std::unique_ptr<PerfectWorld>> perfect_;
};

std::vector<Step> puts(U64 keys, U32 positions) {
  std::vector<Step> all;
  for (U64 key = 1; key <= keys; ++key)
    for (U32 ti = 0; ti < positions; ++ti) all.push_back({Kind::Put, key, ti});
  return all;
}

std::vector<Step> operator+(std::vector<Step> a, std::vector<Step> const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<SmallWorld> smallWorlds() {
  std::vector<Step> const gone{{Kind::Remove, 1}, {Kind::Remove, 2}};
  std::vector<Step> const two{{Kind::Put, 1, 0}, {Kind::Put, 2, 1}};
  std::vector<Step> const three{{Kind::Put, 1, 0}, {Kind::Put, 2, 1}, {Kind::Put, 3, 2}};
  std::vector<Step> const other{{Kind::PutSame, 1, 1}, {Kind::PutSame, 1, 2}, {Kind::Mark, 2}};
  std::vector<Rank> const equal{{0, 5}, {0, 5}, {0, 5}};
  std::vector<Rank> const rising{{0, 1}, {0, 2}, {0, 3}};
  std::vector<Rank> const apart{{0, 1}, {1, 1}, {0, 2}};
  return {
      {"Empty", {3, {rising[0], rising[1]}, 1, false}, {}, puts(2, 3) + gone, 3, 1},
      {"Order", {3, {rising[0], rising[1]}, 2, false}, two, puts(2, 3) + gone + other, 2, 2},
      {"ReadBack", {3, {rising[0], rising[1]}, 2, true}, two, puts(2, 3) + gone + other, 2, 2},
      {"Groups", {3, {apart[0], apart[1]}, 2, true}, two, puts(2, 3) + gone + other, 2, 2},
      {"Rings", {3, equal, 1, false}, three, puts(3, 3), 3, 1},
      {"RingsAtOnce", {3, equal, 3, true}, three, puts(3, 3), 2, 3},
      {"ThreeKeys", {4, rising, 3, false}, three, puts(3, 4) + gone, 2, 2},
      {"OneChange", {3, {rising[0], rising[1]}, 2, true}, two, puts(2, 3) + gone + other, 1, 4},
      {"ThreeGroups", {4, apart, 2, false}, three, puts(3, 4) + gone, 2, 2},
  };
}

void expectEveryKind(Met const& met) {
  for (unsigned fate = 0; fate < fates; ++fate) EXPECT_GT(met.calls[fate], 0U) << "fate " << fate;
  EXPECT_GT(met.completions, 0U);
  EXPECT_GT(met.most, 1U);
  EXPECT_GT(met.victims, 0U);
  EXPECT_GT(met.refusedAbsent, 0U);
  EXPECT_GT(met.statusesRefused, 0U);
  EXPECT_GT(met.retries, 0U);
}

class World : public testing::Test {
 protected:
  int const quiet = setenv("LUMELOG_DISABLE", "1", 1);
};

TEST_F(World, KeepsItsPromiseInEverySmallWorld) {
  unsigned const extra = static_cast<unsigned>(environment("VANTREL_EXHAUSTIVE_EXTRA", 0)) - (slow ? 1 : 0);
  Met met;
  U64 runs = 0;
  for (SmallWorld world : smallWorlds()) {
    world.mostFaults += extra;
    Explorer explorer(world);
    ASSERT_EQ(explorer.run(), "");
    std::printf("%s: %llu runs\n", world.name.c_str(), static_cast<unsigned long long>(explorer.runs));
    runs += explorer.runs;
    met += explorer.met;
  }
  std::printf("all: %llu runs, %s\n", static_cast<unsigned long long>(runs), met.text().c_str());
  EXPECT_GT(runs, slow ? 5'000U : 200'000U);
  expectEveryKind(met);
}

class RandomFaults : public Faults {
 public:
  explicit RandomFaults(U64 seed) : random_(seed) {
    for (unsigned& weight : weights_) weight = chance(60) ? below(20) : 0;
    weights_[0] = 10 + below(80);
    weights_[static_cast<unsigned>(Fate::Refused)] /= 8;
    fills_ = below(3);
  }
  Fate ofCall() override { return draw(); }
  Fate ofCompletion() override {
    Fate const fate = draw();
    return fate == Fate::Later || fate == Fate::Throws ? Fate::Done : fate;
  }
  bool statusFills() override { return below(100) < fills_; }

  unsigned below(unsigned bound) { return static_cast<unsigned>(random_() % bound); }
  bool chance(unsigned percent) { return below(100) < percent; }

 private:
  Fate draw() {
    unsigned all = 0;
    for (unsigned const weight : weights_) all += weight;
    unsigned at = below(all);
    unsigned fate = 0;
    while (at >= weights_[fate]) at -= weights_[fate++];
    return static_cast<Fate>(fate);
  }
  std::mt19937_64 random_;
  unsigned weights_[fates] = {};
  unsigned fills_ = 0;
};

class RandomRun {
 public:
  explicit RandomRun(U64 seed) : faults_(seed), world_(shape(), faults_), perfect_(world_.shape()) {}

  std::string run(unsigned steps) {
    for (unsigned i = 0; i < steps && world_.broken().empty(); ++i) {
      both(step());
      passTime();
    }
    for (EntryKey const& key : world_.settle()) {
      world_.again(key);
      perfect_.again(key);
    }
    std::string const wrong = world_.broken().empty() ? world_.difference(perfect_) : world_.broken();
    return wrong.empty() ? world_.withdraw(faults_) : wrong;
  }
  Met const& met() const { return world_.met(); }

 private:
  Shape shape() {
    Shape all{.positions = 4 + faults_.below(13), .ranks = {}};
    unsigned const keys = 2 + faults_.below(all.positions);
    unsigned const groups = 1 + faults_.below(3);
    unsigned const priorities = 1 + faults_.below(6);
    for (unsigned key = 0; key < keys; ++key)
      all.ranks.push_back({static_cast<U16>(faults_.below(groups)), 1 + faults_.below(priorities)});
    all.mostAtOnce = 1 + faults_.below(4);
    all.readsBack = faults_.chance(50);
    return all;
  }
  Step step() {
    U64 const key = 1 + faults_.below(static_cast<unsigned>(world_.keys()));
    U32 const ti = faults_.below(world_.shape().positions);
    unsigned const kind = faults_.below(100);
    if (kind < 15) return {Kind::Remove, key};
    if (kind < 20) return {Kind::Mark, key, ti};
    return {kind < 60 ? Kind::PutSame : Kind::Put, key, ti};
  }
  void both(Step const& step) {
    world_.run(step);
    perfect_.run(step);
  }
  void passTime() {
    while (world_.late() != 0 && faults_.chance(60))
      world_.completeOne(faults_.below(static_cast<unsigned>(world_.late())));
    if (faults_.chance(30)) world_.advance(faults_.chance(20) ? 2 : 0.005);
    if (faults_.chance(10)) world_.spaceIsFree();
    if (faults_.chance(5)) world_.flush();
  }

  RandomFaults faults_;
  FailingWorld world_;
  PerfectWorld perfect_;
};

TEST_F(World, KeepsItsPromiseAtRandom) {
  U64 const total = environment("VANTREL_WORLD_STEPS", slow ? 50'000 : 5'000'000);
  U64 const first = environment("VANTREL_SEED", 1);
  Met met;
  U64 seed = first;
  for (; met.steps + met.allCalls() < total; ++seed) {
    RandomRun run(seed);
    ASSERT_EQ(run.run(200), "") << "seed " << seed;
    met += run.met();
  }
  std::printf("%llu runs: %s\n", static_cast<unsigned long long>(seed - first), met.text().c_str());
  expectEveryKind(met);
}

}  // namespace
}  // namespace TestHw
