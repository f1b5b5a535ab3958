// SPDX-License-Identifier: Apache-2.0
// Delivery survives everything that watchers do from inside it. Run under the address sanitizer too.
#include "ostra/notifier.h"

#include <gmock/gmock.h>

#include <memory>
#include <random>
#include <thread>
#include <utility>

#include "sample.h"

namespace OstraTest {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NotifierTest : public testing::Test {
 protected:
  // A watcher that writes to the common diary under its name.
  std::unique_ptr<Diary> watcher(std::string name, Ostra::Ptr<Sample> const& watched) {
    auto w = std::make_unique<Diary>(std::move(name), &diary_);
    w->notifierIs(Ostra::Ptr<Sample const>(watched));
    return w;
  }
  std::vector<std::string> take() { return std::exchange(diary_, {}); }

  std::vector<std::string> diary_;
  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  Ostra::Ptr<Sample> other_ = Ostra::make<Sample>("other");
};

TEST_F(NotifierTest, WatchersHearInTheOrderInWhichTheyCame) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_), c = watcher("c", sample_);
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "b: level 1", "c: level 1"));
}

TEST_F(NotifierTest, OnlyAChangeIsTold) {
  auto const a = watcher("a", sample_);
  sample_->levelIs(0);
  sample_->titleIs("");
  EXPECT_THAT(take(), IsEmpty());
  sample_->levelIs(1);
  sample_->levelIs(1);
  sample_->orderedIs(4, "x");
  sample_->orderedIs(4, "x");
  sample_->orderedIs(4, "y");
  EXPECT_EQ("y", sample_->orderedDel(4));
  EXPECT_EQ("", sample_->orderedDel(4)) << "an absent key has the zero value";
  EXPECT_THAT(take(), ElementsAre("a: level 1", "a: ordered 4", "a: ordered 4", "a: ordered 4"));
}

TEST_F(NotifierTest, AWatcherHearsOfAChangeAfterItIsStored) {
  auto const a = watcher("a", sample_);
  bool there = true;
  a->then = [&] { there = sample_->hashed().contains(8); };
  sample_->hashedIs(8, 1);
  EXPECT_TRUE(there);
  sample_->hashedDel(8);
  EXPECT_FALSE(there);
}

TEST_F(NotifierTest, DeletingAllTellsEachKey) {
  for (U32 k : {3u, 1u, 2u}) sample_->orderedIs(k, "x");
  auto const a = watcher("a", sample_);
  a->then = [&] {
    if (sample_->ordered().contains(7)) return;
    if (diary_.size() == 2) sample_->orderedIs(7, "came meanwhile");
  };
  sample_->orderedDelAll();
  EXPECT_THAT(take(),
              ElementsAre("a: ordered 1", "a: ordered 2", "a: ordered 7", "a: ordered 3", "a: ordered 7"));
  EXPECT_THAT(sample_->ordered(), IsEmpty());
}

TEST_F(NotifierTest, AWatcherAddedMeanwhileFirstHearsTheNextChange) {
  auto const a = watcher("a", sample_);
  std::unique_ptr<Diary> late;
  a->then = [&] {
    if (!late) late = watcher("late", sample_);
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("a: level 2", "late: level 2"));
}

TEST_F(NotifierTest, AWatcherMayRemoveItselfAndOthers) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_), c = watcher("c", sample_),
             d = watcher("d", sample_);
  b->then = [&] {
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);
    c->notifierIs(nullptr);
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "b: level 1", "d: level 1"));
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("d: level 2"));
}

TEST_F(NotifierTest, AWatcherMayDestroyItselfAndOthers) {
  auto a = watcher("a", sample_), b = watcher("b", sample_), c = watcher("c", sample_),
       d = watcher("d", sample_);
  b->then = [&] {
    a.reset();
    c.reset();
    b.reset();
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "b: level 1", "d: level 1"));
}

TEST_F(NotifierTest, TheLastWatcherMayDestroyItself) {
  auto a = watcher("a", sample_);
  a->then = [&] { a.reset(); };
  sample_->levelIs(1);
  EXPECT_TRUE(sample_->notifieeList().empty());
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
}

TEST_F(NotifierTest, AWatcherMayBePointedElsewhereAndBack) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_);
  a->then = [&] { b->notifierIs(Ostra::Ptr<Sample const>(other_)); };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
  other_->levelIs(9);
  EXPECT_THAT(take(), ElementsAre("b: level 9"));
  a->then = nullptr;
  b->then = [&] { b->notifierIs(Ostra::Ptr<Sample const>(sample_)); };
  other_->levelIs(10);
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("b: level 10", "a: level 2", "b: level 2"));
}

TEST_F(NotifierTest, AWatcherThatLeavesAndComesBackMeanwhileIsNew) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_);
  a->then = [&] {
    b->notifierIs(nullptr);
    b->notifierIs(Ostra::Ptr<Sample const>(sample_));
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
  a->then = nullptr;
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("a: level 2", "b: level 2"));
}

TEST_F(NotifierTest, AWatcherRepointedToTheSameIsToldOnce) {
  auto const a = watcher("a", sample_);
  a->then = [&] { a->notifierIs(Ostra::Ptr<Sample const>(sample_)); };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
}

TEST_F(NotifierTest, SwitchedOffAndMarkedWatchersHearNothing) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_), c = watcher("c", sample_);
  a->hasNotificationActiveIs(false);
  b->markedForDeletionIs(true);
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("c: level 1"));
  a->hasNotificationActiveIs(true);
  b->markedForDeletionIs(false);
  a->then = [&] {
    b->hasNotificationActiveIs(false);
    c->markedForDeletionIs(true);
  };
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("a: level 2"));
}

TEST_F(NotifierTest, ANestedChangeIsToldToAllBeforeTheOuterGoesOn) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_);
  a->then = [&] {
    if (sample_->level() < 3) sample_->levelIs(static_cast<U8>(sample_->level() + 1));
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "a: level 2", "a: level 3", "b: level 3", "b: level 3",
                                  "b: level 3"));
}

TEST_F(NotifierTest, OuterRoundsLeaveOutWhoJoinedInANestedOne) {
  auto const a = watcher("a", sample_);
  std::unique_ptr<Diary> late;
  a->then = [&] {
    if (sample_->level() == 1) sample_->levelIs(2);
    if (!late) late = watcher("late", sample_);
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "a: level 2"));
}

TEST_F(NotifierTest, OuterRoundsLeaveOutWhoDiedInANestedOne) {
  auto a = watcher("a", sample_), b = watcher("b", sample_), c = watcher("c", sample_);
  a->then = [&] {
    if (sample_->level() == 1)
      sample_->levelIs(2);
    else
      b.reset();
  };
  sample_->levelIs(1);
  EXPECT_THAT(take(), ElementsAre("a: level 1", "a: level 2", "c: level 2", "c: level 2"));
}

TEST_F(NotifierTest, AnObjectLivesUntilItsChangeIsTold) {
  bool destroyed = false;
  sample_->destroyed = &destroyed;
  auto const a = watcher("a", sample_), b = watcher("b", sample_);
  a->then = [&] {
    sample_ = nullptr;
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);
    EXPECT_FALSE(destroyed);
  };
  Sample* const raw = sample_.get();
  raw->levelIs(1);
  EXPECT_TRUE(destroyed);
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
}

// Objects that are not counted (members, locals) may be destroyed by their watchers' doing as well.
TEST_F(NotifierTest, AListMayBeDestroyedInsideItsRounds) {
  class Bell : public Ostra::NotifieeBase {
   public:
    explicit Bell(Ostra::Notifier* list) { listIs(list); }
    virtual void ring() {
      ++rung;
      if (then) then();
    }
    void notifierGone() override { ++gone; }
    int rung = 0, gone = 0;
    std::function<void()> then;
  };
  auto list = std::make_unique<Ostra::Notifier>();
  Bell a(list.get()), b(list.get());
  a.then = [&] {
    if (a.rung == 1)
      list->notify(&Bell::ring);
    else
      list.reset();
  };
  list->notify(&Bell::ring);
  EXPECT_EQ(2, a.rung);
  EXPECT_EQ(0, b.rung);
  EXPECT_EQ(1, a.gone);
  EXPECT_EQ(1, b.gone);
}

TEST_F(NotifierTest, AWatcherThatThrowsLeavesTheListUsable) {
  auto const a = watcher("a", sample_), b = watcher("b", sample_);
  a->then = [] { throw std::runtime_error("no"); };
  EXPECT_THROW(sample_->levelIs(1), std::runtime_error);
  a->then = nullptr;
  EXPECT_THAT(take(), ElementsAre("a: level 1"));
  sample_->levelIs(2);
  EXPECT_THAT(take(), ElementsAre("a: level 2", "b: level 2"));
}

// Watchers of the names alone obey the same rules as those of a class.
class Names : public Ostra::AttributeWatcher {
 public:
  void onAttribute(std::string_view name) override { wrote(std::string(name)); }
  void onMember(std::string_view name, Ostra::Value const& key) override {
    wrote(fmt::format("{}[{}]", name, Ostra::toText(key)));
  }
  std::vector<std::string> lines;
  std::function<void()> then;

 private:
  void wrote(std::string line) {
    lines.push_back(std::move(line));
    if (auto const act = then) act();
  }
};

TEST_F(NotifierTest, AWatcherOfNamesHearsOfEveryAttribute) {
  Names names;
  names.notifierIs(Ostra::Ptr<Ostra::Entity const>(sample_));
  sample_->levelIs(1);
  sample_->orderedIs(4, "x");
  sample_->hashedIs(5, 6);
  sample_->hashedDel(5);
  EXPECT_THAT(names.lines, ElementsAre("level", "ordered[4]", "hashed[5]", "hashed[5]"));
}

TEST_F(NotifierTest, AWatcherOfNamesMayGoInsideItsNotification) {
  auto names = std::make_unique<Names>();
  names->notifierIs(Ostra::Ptr<Ostra::Entity const>(sample_));
  Names stays;
  stays.notifierIs(Ostra::Ptr<Ostra::Entity const>(sample_));
  names->then = [&] { names.reset(); };
  sample_->hashedIs(5, 6);
  sample_->hashedIs(5, 7);
  EXPECT_THAT(stays.lines, ElementsAre("hashed[5]", "hashed[5]"));
}

// Every watcher does a random thing at every notification; a plain model says who must hear.
TEST_F(NotifierTest, RandomDoingsNeverLoseOrInventANotification) {
  std::mt19937 random(20261121);
  for (int world = 0; world < 300; ++world) {
    std::vector<std::unique_ptr<Diary>> watchers;
    for (int i = 0; i < 6; ++i) watchers.push_back(watcher(fmt::format("{}", i), sample_));
    int budget = 12;
    for (auto const& w : watchers)
      w->then = [&] {
        auto& victim = watchers[random() % watchers.size()];
        if (budget-- <= 0 || !victim) return;
        switch (random() % 5) {
          case 0:
            victim->notifierIs(nullptr);
            break;
          case 1:
            victim->notifierIs(Ostra::Ptr<Sample const>(random() % 2 ? sample_ : other_));
            break;
          case 2:
            victim.reset();
            break;
          case 3:
            victim->hasNotificationActiveIs(!victim->hasNotificationActive());
            break;
          case 4:
            sample_->levelIs(static_cast<U8>(sample_->level() + 1));
            break;
        }
      };
    for (int i = 0; i < 10; ++i) sample_->levelIs(static_cast<U8>(sample_->level() + 1));
    for (auto const& w : watchers)
      if (w) w->then = nullptr;
    take();
    sample_->levelIs(static_cast<U8>(sample_->level() + 1));
    std::size_t listening = 0;
    for (auto const& w : watchers)
      listening += w && w->notifier() == sample_.get() && w->hasNotificationActive();
    ASSERT_EQ(listening, take().size()) << "world " << world;
  }
}

TEST(PtrTest, TheLastReferenceDeletes) {
  bool destroyed = false;
  auto sample = Ostra::make<Sample>("sample");
  sample->destroyed = &destroyed;
  Ostra::Ptr<Sample const> const second = sample;
  Ostra::Ptr<Ostra::Entity> third = sample;
  EXPECT_EQ(3u, sample->references());
  sample = nullptr;
  third = std::as_const(third);  // to itself
  Ostra::Ptr<Ostra::Entity> const moved = std::move(third);
  EXPECT_EQ(2u, second->references());
  EXPECT_FALSE(destroyed);
}

TEST(PtrTest, CountsAreThreadSafeWhenAskedFor) {
  EXPECT_FALSE(Ostra::threadSafeReferences()) << "off by default";
  Ostra::threadSafeReferencesIs(true);
  bool destroyed = false;
  {
    auto const sample = Ostra::make<Sample>("sample");
    sample->destroyed = &destroyed;
    auto const work = [&] {
      for (int i = 0; i < 200000; ++i) {
        Ostra::Ptr<Sample const> const one = sample;
        Ostra::Ptr<Sample const> const two = one;
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) threads.emplace_back(work);
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(1u, sample->references());
    EXPECT_FALSE(destroyed);
  }
  EXPECT_TRUE(destroyed);
  Ostra::threadSafeReferencesIs(false);
}

}  // namespace
}  // namespace OstraTest
