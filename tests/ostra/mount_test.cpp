// SPDX-License-Identifier: Apache-2.0
// Objects mounted over the socket behave as the agent's do.
#include "ostra/mount.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>

#include "ostra/publish.h"
#include "sample.h"

namespace OstraTest {
namespace {

using Access = Ostra::Mounter::Access;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class MountTest : public testing::Test {
 protected:
  MountTest() {
    char name[] = "/tmp/ostra-mount-XXXXXX";
    dir_ = ::mkdtemp(name);
    path_ = dir_ + "/mgmt.sock";
    restart();
  }
  ~MountTest() override {
    publisher_.reset();
    std::string const remove = "rm -rf " + dir_;
    EXPECT_EQ(0, ::system(remove.c_str()));
  }
  void restart(Ostra::Publisher::Options options = {}) {
    publisher_.reset();
    publisher_ = std::make_unique<Ostra::Publisher>(path_, options);
    publisher_->exportObject("sample", sample_);
  }
  // Lets both ends work until `done`.
  template <class Done>
  [[nodiscard]] bool until(Ostra::Mounter& mounter, Done done) {
    for (int i = 0; i < 20000; ++i) {
      if (done()) return true;
      pollfd fds[] = {{mounter.fd(), POLLIN, 0}, {publisher_ ? publisher_->fd() : -1, POLLIN, 0}};
      ::poll(fds, 2, 10);
      if (publisher_) publisher_->dispatch();
      mounter.dispatch();
    }
    return false;
  }
  [[nodiscard]] bool live(Ostra::Mounter& mounter, Ostra::Entity const& entity) {
    return until(mounter, [&] { return mounter.live(entity); });
  }
  // What was changed so far has arrived: a change made now has.
  void settle(Ostra::Mounter& mounter, Sample const& mounted) {
    sample_->versionIs(sample_->version() + 1);
    ASSERT_TRUE(until(mounter, [&] { return mounted.version() == sample_->version(); }));
  }

  std::string dir_, path_;
  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  std::unique_ptr<Ostra::Publisher> publisher_;
};

TEST_F(MountTest, AMountedObjectHasTheValuesAndTypeOfTheAgents) {
  sample_->levelIs(9);
  sample_->titleIs("a \"quoted\" name\n");
  sample_->ratioIs(0.25);
  sample_->orderedIs(4, "four");
  sample_->hashedIs(~0ull, ~0ull - 1);
  sample_->flatIs(3, 4);
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_EQ(9, mounted->level());
  EXPECT_EQ("a \"quoted\" name\n", mounted->title());
  EXPECT_EQ(0.25, mounted->ratio());
  EXPECT_EQ("four", mounted->ordered().at(4));
  EXPECT_EQ(~0ull - 1, mounted->hashed().at(~0ull));
  EXPECT_EQ(4u, mounted->flat().at(3));
}

TEST_F(MountTest, WatchersFireAsTheAgentsChange) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>("sample");
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  sample_->hashedIs(5, 50);
  sample_->orderedIs(1, "one");
  sample_->versionIs(1);
  ASSERT_TRUE(until(mounter, [&] { return mounted->version() == 1; }));
  EXPECT_THAT(diary.take(), ElementsAre("hashed 5", "ordered 1", "version 1"));
  sample_->hashedDel(5);
  sample_->levelIs(200);
  ASSERT_TRUE(until(mounter, [&] { return mounted->level() == 200; }));
  EXPECT_THAT(diary.take(), UnorderedElementsAre("hashed 5", "level 200"));
  EXPECT_THAT(mounted->hashed(), IsEmpty());
}

TEST_F(MountTest, WhatIsWrittenLastIsToldLast) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  for (U32 version = 1; version <= 3; ++version) {
    for (U64 k = 0; k < 5000; ++k) sample_->hashedIs(k, k * version);
    sample_->versionIs(version);
    bool complete = true;
    diary.then = [&] {
      if (diary.lines().back() == fmt::format("version {}", version))
        complete = mounted->hashed() == sample_->hashed();
    };
    ASSERT_TRUE(until(mounter, [&] { return mounted->version() == version; }));
    EXPECT_TRUE(complete);
    EXPECT_EQ(version == 1 ? 5001u : 5000u, diary.take().size()) << "the key 0 keeps its value";
  }
}

TEST_F(MountTest, AWritableObjectWritesTheAgents) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>("sample", Access::Writable);
  ASSERT_TRUE(live(mounter, *mounted));
  Diary agents;
  agents.notifierIs(Ostra::Ptr<Sample const>(sample_));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  for (U8 level = 1; level <= 20; ++level) mounted->levelIs(level);
  mounted->levelIs(1);
  ASSERT_TRUE(until(mounter, [&] { return agents.lines().size() == 21; }));
  EXPECT_EQ(1, sample_->level());
  settle(mounter, *mounted);
  EXPECT_EQ(22u, diary.lines().size()) << "what comes back from the agent fires nothing again";
}

TEST_F(MountTest, AReadOnlyObjectWritesNothing) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  mounted->levelIs(3);
  settle(mounter, *mounted);
  EXPECT_EQ(0, sample_->level());
}

TEST_F(MountTest, ARefusedWriteComesBackWithTheReason) {
  sample_->levelIs(5);
  sample_->lockedIs(true);
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>("sample", Access::Writable);
  ASSERT_TRUE(live(mounter, *mounted));
  mounted->levelIs(6);
  ASSERT_TRUE(until(mounter, [&] { return !mounter.problem().empty(); }));
  EXPECT_THAT(mounter.problem(), HasSubstr("it is locked"));
  EXPECT_EQ(5, mounted->level());
  EXPECT_EQ(5, sample_->level());
}

TEST_F(MountTest, AHandlerMayWriteBackAndUnmount) {
  Ostra::Mounter mounter(path_);
  auto mounted = mounter.mount<Sample>("sample", Access::Writable);
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  diary.then = [&] {
    if (mounted->level() < 10) mounted->levelIs(static_cast<U8>(mounted->level() + 1));
  };
  sample_->levelIs(1);
  ASSERT_TRUE(until(mounter, [&] { return sample_->level() == 10; }));
  diary.then = [&] { mounter.unmount(*mounted); };
  sample_->levelIs(50);
  ASSERT_TRUE(until(mounter, [&] { return mounted->level() == 50; }));
  sample_->levelIs(51);
  auto const other = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *other));
  EXPECT_EQ(50, mounted->level());
  EXPECT_EQ(51, other->level());
}

TEST_F(MountTest, ADeadAgentIsReportedAndItsSuccessorComparedWithWhatIsHere) {
  sample_->hashedIs(1, 10);
  sample_->hashedIs(2, 20);
  sample_->levelIs(4);
  Ostra::Mounter mounter(path_, 0.01);
  std::vector<std::string> reports;
  mounter.onConnection([&](bool up, std::string const& why) { reports.push_back(up ? "up" : why); });
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  publisher_.reset();
  ASSERT_TRUE(until(mounter, [&] { return !mounter.connected(); }));
  EXPECT_FALSE(mounter.live(*mounted));
  EXPECT_EQ(4, mounted->level()) << "values stay while the agent is away";

  sample_ = Ostra::make<Sample>("sample");
  sample_->hashedIs(2, 20);
  sample_->hashedIs(3, 30);
  sample_->levelIs(4);
  restart();
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_THAT(diary.take(), UnorderedElementsAre("hashed 1", "hashed 3"));
  EXPECT_EQ(sample_->hashed(), mounted->hashed());
  EXPECT_THAT(reports, ElementsAre("the agent closed the connection", "up"));
}

// It was dropped in the middle of a long answer, comes back by itself, and holds what is there then.
TEST_F(MountTest, WhoWasDroppedForNotReadingComesBackToAFreshSnapshot) {
  restart({.stallSeconds = 0.1});
  for (U64 k = 0; k < 50000; ++k) sample_->hashedIs(k, k);
  sample_->levelIs(1);
  Ostra::Mounter mounter(path_, 0.01);
  std::vector<std::string> reports;
  mounter.onConnection([&](bool up, std::string const& why) { reports.push_back(up ? "up" : why); });
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));

  // More than the socket takes; this end does not read.
  for (U64 k = 0; k < 50000; ++k) sample_->hashedIs(k, k + 1);
  auto const served = [&] {
    pollfd p{publisher_->fd(), POLLIN, 0};
    ::poll(&p, 1, 10);
    publisher_->dispatch();
    return publisher_->peers();
  };
  for (int i = 0; i < 2000 && served() > 0;) ++i;
  ASSERT_EQ(0u, publisher_->peers()) << "it was dropped";
  for (U64 k = 0; k < 1000; ++k) sample_->hashedDel(k);
  for (U64 k = 60000; k < 61000; ++k) sample_->hashedIs(k, k);
  sample_->levelIs(2);
  sample_->versionIs(9);

  ASSERT_TRUE(until(mounter, [&] { return !mounter.connected(); }));
  EXPECT_FALSE(mounter.live(*mounted));
  bool complete = false;
  diary.then = [&] {
    if (diary.lines().back() == "version 9") complete = mounted->hashed() == sample_->hashed();
  };
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_THAT(reports, ElementsAre("the agent closed the connection", "up"));
  EXPECT_EQ(1u, publisher_->peers());
  EXPECT_EQ(sample_->hashed(), mounted->hashed());
  EXPECT_EQ(2, mounted->level());
  EXPECT_TRUE(complete) << "the version is told last again";
  sample_->hashedIs(7, 7);
  ASSERT_TRUE(until(mounter, [&] { return mounted->hashed().contains(7); }));
}

TEST_F(MountTest, AnEntityThatComesLaterIsMountedThen) {
  Ostra::Mounter mounter(path_, 0.01);
  auto const late = mounter.mount<Sample>("late");
  ASSERT_TRUE(until(mounter, [&] { return !mounter.problem().empty(); }));
  EXPECT_THAT(mounter.problem(), HasSubstr("no entity is named \"late\"; there are: sample"));
  auto const object = Ostra::make<Sample>("late");
  object->levelIs(77);
  publisher_->exportObject("late", object);
  ASSERT_TRUE(live(mounter, *late));
  EXPECT_EQ(77, late->level());
  publisher_->withdraw("late");
  ASSERT_TRUE(until(mounter, [&] { return !mounter.live(*late); }));
}

TEST_F(MountTest, TwoMountsOfOneEntityBothHear) {
  Ostra::Mounter mounter(path_);
  auto const one = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *one));
  auto const other = mounter.mount<Sample>("sample");
  ASSERT_TRUE(live(mounter, *other));
  sample_->levelIs(8);
  ASSERT_TRUE(until(mounter, [&] { return one->level() == 8 && other->level() == 8; }));
  mounter.unmount(*one);
  sample_->levelIs(9);
  ASSERT_TRUE(until(mounter, [&] { return other->level() == 9; }));
  EXPECT_EQ(8, one->level());
}

TEST_F(MountTest, AnotherTypeIsRefused) {
  class Other : public Ostra::Entity {
   public:
    using Entity::Entity;
    static Ostra::TypeInfo const& staticType() {
      static Ostra::TypeInfo const type = Ostra::TypeInfo::of<Other>("OstraTest::Other");
      return type;
    }
    Ostra::TypeInfo const& typeInfo() const override { return staticType(); }
  };
  Ostra::Mounter mounter(path_);
  auto const other = mounter.mount<Other>("sample");
  ASSERT_TRUE(until(mounter, [&] { return !mounter.problem().empty(); }));
  EXPECT_EQ("sample has the type OstraTest::Sample, not \"OstraTest::Other\"", mounter.problem());
}

TEST_F(MountTest, DispatchUntilGivesUpInTime) {
  Ostra::Mounter mounter(dir_ + "/nobody.sock", 0.01);
  auto const mounted = mounter.mount<Sample>();
  EXPECT_FALSE(mounter.dispatchUntil([&] { return mounter.live(*mounted); }, 0.05));
  EXPECT_THAT(mounter.problem(), HasSubstr("/nobody.sock: No such file or directory"));
}

}  // namespace
}  // namespace OstraTest
