// SPDX-License-Identifier: Apache-2.0
// Objects mounted over the socket behave as the agent's do.
#include "ostra/mount.h"

#include <gmock/gmock.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "ostra/publish.h"
#include "ostra/type_info.h"
#include "raw_peer.h"
#include "sample.h"
#include "tests/support/temp_dir.h"

namespace OstraTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class MountTest : public testing::Test {
 protected:
  MountTest() { restart(); }
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

  TestSupport::TempDir const dir_;
  std::string const path_ = dir_ / "mgmt.sock";
  Ostra::Ptr<Sample> sample_ = Ostra::make<Sample>("sample");
  std::unique_ptr<Ostra::Publisher> publisher_;
};

TEST_F(MountTest, AMountedObjectHasTheValuesAndTypeOfTheAgents) {
  sample_->levelIs(9);
  sample_->titleIs("a \"quoted\" name\n");
  sample_->ratioIs(0.25);
  sample_->orderedIs(4, "four");
  sample_->hashedIs(~0ull, ~0ull - 1);
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_EQ(9, mounted->level());
  EXPECT_EQ("a \"quoted\" name\n", mounted->title());
  EXPECT_EQ(0.25, mounted->ratio());
  EXPECT_EQ("four", mounted->ordered().at(4));
  EXPECT_EQ(~0ull - 1, mounted->hashed().at(~0ull));
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
        complete = mounted->hashedInOrder() == sample_->hashedInOrder();
    };
    ASSERT_TRUE(until(mounter, [&] { return mounted->version() == version; }));
    EXPECT_TRUE(complete);
    EXPECT_EQ(version == 1 ? 5001u : 5000u, diary.take().size()) << "the key 0 keeps its value";
  }
}

TEST_F(MountTest, WhatIsSetHereIsNotSent) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  mounted->levelIs(3);
  settle(mounter, *mounted);
  EXPECT_EQ(0, sample_->level());
  sample_->levelIs(4);
  settle(mounter, *mounted);
  EXPECT_EQ(4, mounted->level());
}

TEST_F(MountTest, AHandlerMayMount) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>("sample");
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  Ostra::Ptr<Sample> other;
  diary.then = [&] {
    if (!other) other = mounter.mount<Sample>();
  };
  sample_->levelIs(50);
  ASSERT_TRUE(until(mounter, [&] { return other && mounter.live(*other); }));
  EXPECT_EQ(50, other->level());
}

TEST_F(MountTest, ReportsADeadAgentAndComparesItsSuccessor) {
  sample_->hashedIs(1, 10);
  sample_->hashedIs(2, 20);
  sample_->levelIs(4);
  Ostra::Mounter mounter(path_, 0.01);
  auto const mounted = mounter.mount<Sample>();
  ASSERT_TRUE(live(mounter, *mounted));
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  publisher_.reset();
  ASSERT_TRUE(until(mounter, [&] { return !mounter.connected(); }));
  EXPECT_EQ("the agent closed the connection", mounter.problem());
  EXPECT_FALSE(mounter.live(*mounted));
  EXPECT_EQ(4, mounted->level()) << "values stay while the agent is away";

  sample_ = Ostra::make<Sample>("sample");
  sample_->hashedIs(2, 20);
  sample_->hashedIs(3, 30);
  sample_->levelIs(4);
  restart();
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_THAT(diary.take(), UnorderedElementsAre("hashed 1", "hashed 3"));
  EXPECT_EQ(sample_->hashedInOrder(), mounted->hashedInOrder());
  EXPECT_EQ("", mounter.problem());
}

// It was dropped in the middle of a long answer, comes back by itself, and holds what is there then.
TEST_F(MountTest, AMountDroppedForNotReadingStartsAfresh) {
  restart({.stallSeconds = 0.1});
  for (U64 k = 0; k < 50000; ++k) sample_->hashedIs(k, k);
  sample_->levelIs(1);
  Ostra::Mounter mounter(path_, 0.01);
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
  EXPECT_EQ("the agent closed the connection", mounter.problem());
  EXPECT_FALSE(mounter.live(*mounted));
  bool complete = false;
  diary.then = [&] {
    if (diary.lines().back() == "version 9") complete = mounted->hashedInOrder() == sample_->hashedInOrder();
  };
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_EQ("", mounter.problem());
  EXPECT_EQ(1u, publisher_->peers());
  EXPECT_EQ(sample_->hashedInOrder(), mounted->hashedInOrder());
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
}

// Lets both ends work, without changing anything, until both rest. Counts what left dispatch().
class MountThrowTest : public MountTest {
 protected:
  void rest(Ostra::Mounter& mounter) {
    for (int i = 0; i < 20000; ++i) {
      pollfd fds[] = {{mounter.fd(), POLLIN, 0}, {publisher_->fd(), POLLIN, 0}};
      if (::poll(fds, 2, 0) == 0) return;
      publisher_->dispatch();
      try {
        mounter.dispatch();
      } catch (std::exception const& e) {
        thrown_.push_back(e.what());
      }
    }
    FAIL() << "there is no end of it";
  }
  // Throws at the third and the eighth change that the diary hears.
  template <class Exception>
  void throwsAtTimes(Diary& diary) {
    diary.then = [&diary] {
      if (diary.lines().size() % 5 == 3) throw Exception("enough");
    };
  }
  // What changes in one line and in several, and while something else is asked for.
  void changeAndSee(Ostra::Mounter& mounter, Sample const& mounted, Diary& diary) {
    for (U32 k = 1; k <= 10; ++k) sample_->orderedIs(k, "one");
    rest(mounter);
    EXPECT_EQ(sample_->ordered(), mounted.ordered());
    EXPECT_EQ(10u, diary.take().size());
    for (U32 k = 1; k <= 10; ++k) sample_->orderedDel(k);
    rest(mounter);
    EXPECT_THAT(mounted.ordered(), IsEmpty());
    EXPECT_EQ(10u, diary.take().size());
    sample_->levelIs(3);
    sample_->titleIs("three");
    sample_->orderedIs(7, "seven");
    sample_->hashedIs(7, 7);
    sample_->hashedDel(1);
    sample_->versionIs(9);
    rest(mounter);
    EXPECT_EQ("seven", mounted.ordered().at(7));
    EXPECT_EQ(7u, mounted.hashed().at(7));
    EXPECT_EQ("three", mounted.title());
    EXPECT_EQ(9u, mounted.version());
    EXPECT_EQ(5u, diary.take().size());
    EXPECT_TRUE(mounter.live(mounted));
  }
  template <class Exception>
  void losesNothing(Ostra::Mounter& mounter, Ostra::Ptr<Sample> const& mounted, Diary& diary) {
    ASSERT_TRUE(live(mounter, *mounted));
    diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
    throwsAtTimes<Exception>(diary);
    changeAndSee(mounter, *mounted, diary);
    EXPECT_EQ(std::vector<std::string>(5, "enough"), thrown_);
  }
  std::vector<std::string> thrown_;
};

TEST_F(MountThrowTest, AWatcherThatThrowsLosesNothing) {
  Ostra::Mounter mounter(path_);
  Diary diary;
  losesNothing<std::runtime_error>(mounter, mounter.mount<Sample>(), diary);
}

// What the mounter takes for the agent's mistakes when it comes from the agent.
TEST_F(MountThrowTest, AWatcherMayThrowAnything) {
  Ostra::Mounter mounter(path_);
  auto const mounted = mounter.mount<Sample>();
  Diary diary;
  losesNothing<Ostra::AttributeException>(mounter, mounted, diary);
  diary.then = [] { throw Json::out_of_range::create(401, "enough of it", nullptr); };
  sample_->levelIs(200);
  sample_->titleIs("last");
  rest(mounter);
  EXPECT_EQ("last", mounted->title());
  EXPECT_THAT(thrown_.back(), HasSubstr("enough of it"));
  EXPECT_TRUE(mounter.connected());
  EXPECT_EQ("", mounter.problem());
}

TEST_F(MountThrowTest, ASnapshotIsCompletedToo) {
  for (U32 k = 1; k <= 10; ++k) sample_->orderedIs(k, "one");
  Ostra::Mounter mounter(path_, 0.01);
  auto const mounted = mounter.mount<Sample>();
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(mounted));
  throwsAtTimes<std::runtime_error>(diary);
  rest(mounter);
  EXPECT_EQ(sample_->ordered(), mounted->ordered());
  publisher_.reset();
  ASSERT_TRUE(until(mounter, [&] { return !mounter.connected(); }));
  for (U32 k = 1; k <= 10; ++k) sample_->orderedDel(k);
  restart();
  diary.take();
  for (int i = 0; i < 2000 && !mounter.live(*mounted); ++i) {
    ::usleep(1000);
    rest(mounter);
  }
  EXPECT_TRUE(mounter.live(*mounted));
  EXPECT_THAT(mounted->ordered(), IsEmpty());
  EXPECT_EQ(10u, diary.take().size());
  EXPECT_EQ(std::vector<std::string>(4, "enough"), thrown_);
}

TEST_F(MountTest, AnOperationIsInvokedAtTheAgent) {
  sample_->levelIs(4);
  Ostra::Mounter mounter(path_, 0.01);
  auto const mounted = mounter.mount<Sample>();
  EXPECT_TRUE(mounter.invoke(*mounted, "add", {U64{1}})->lost) << "it is not live yet";
  EXPECT_THROW(mounter.invoke(*sample_, "add", {U64{1}}), std::invalid_argument);
  ASSERT_TRUE(live(mounter, *mounted));
  auto const added = mounter.invoke(*mounted, "add", {U64{3}});
  auto const above = mounter.invoke(*mounted, "above", {U64{10}});
  auto const failed = mounter.invoke(*mounted, "fail");
  EXPECT_FALSE(above->result);
  ASSERT_TRUE(until(mounter, [&] { return !failed->refusal.empty(); }));
  EXPECT_EQ(Ostra::Value(), added->result);
  EXPECT_EQ(Ostra::Value(U64{17}), above->result);
  EXPECT_EQ("the sample failed", failed->refusal);
  EXPECT_FALSE(failed->result);
  EXPECT_EQ(7, sample_->level());
  EXPECT_FALSE(above->lost);
  auto const unanswered = mounter.invoke(*mounted, "add", {U64{3}});
  restart();
  ASSERT_TRUE(until(mounter, [&] { return above->lost; }));
  EXPECT_TRUE(unanswered->lost);
  ASSERT_TRUE(live(mounter, *mounted));
  settle(mounter, *mounted);
  EXPECT_FALSE(unanswered->result);
}

TEST_F(MountTest, AnEntityThatIsExportedAgainIsMountedAgain) {
  sample_->levelIs(3);
  Ostra::Mounter mounter(path_, 0.01);
  auto const mounted = mounter.mount<Sample>("sample");
  ASSERT_TRUE(live(mounter, *mounted));
  publisher_->withdraw("sample");
  ASSERT_TRUE(until(mounter, [&] { return !mounter.live(*mounted); }));
  EXPECT_TRUE(mounter.connected());
  EXPECT_EQ(3, mounted->level()) << "values stay while the entity is away";
  auto const next = Ostra::make<Sample>("sample");
  next->levelIs(4);
  publisher_->exportObject("sample", next);
  ASSERT_TRUE(live(mounter, *mounted));
  EXPECT_EQ(4, mounted->level());
}

// Another mount of it makes the agent begin afresh: until that is through, the first one is not complete.
TEST_F(MountTest, AnObjectIsNotLiveWhileAFreshSnapshotArrives) {
  for (U64 k = 0; k < 20000; ++k) sample_->hashedIs(k, k);
  Ostra::Mounter mounter(path_);
  auto const one = mounter.mount<Sample>("sample");
  ASSERT_TRUE(live(mounter, *one));
  auto const other = mounter.mount<Sample>("sample");
  ASSERT_TRUE(until(mounter, [&] { return other->hashed().size() > 100; }));
  ASSERT_LT(other->hashed().size(), 20000u);
  EXPECT_FALSE(mounter.live(*one));
  EXPECT_FALSE(mounter.live(*other));
  ASSERT_TRUE(live(mounter, *one));
  EXPECT_EQ(20000u, other->hashed().size());
}

// An agent that says what the test wants.
class FakeAgent {
 public:
  explicit FakeAgent(std::string const& path) : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un const address = Pallo::unixAddress(path);
    EXPECT_EQ(0, ::bind(listener_.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address));
    EXPECT_EQ(0, ::listen(listener_.get(), 4));
  }
  void accept() { peer_ = Pallo::Descriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK)); }
  std::size_t say(std::string_view bytes) {
    ssize_t const n = ::send(peer_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return n < 0 ? 0 : static_cast<std::size_t>(n);
  }
  void hangUp() {
    ::shutdown(peer_.get(), SHUT_RDWR);
    peer_.reset();
  }

 private:
  Pallo::Descriptor listener_, peer_;
};

TEST_F(MountTest, NonsenseEndsTheConnection) {
  std::vector<std::pair<std::string, std::string>> const lines{
      {"good morning", "is not a JSON object"},
      {"[]", "is not a JSON object"},
      {R"({"event":3,"entity":"nobody"})", "cannot be understood: it needs a text \"event\""},
      {R"({"event":"live"})", "cannot be understood: it needs a text \"entity\""},
      {R"({"event":"set","entity":"sample"})", "cannot be understood: it needs a text \"attribute\""},
      {R"({"event":"set","entity":"sample","attribute":"level"})", "cannot be understood: it needs a value"},
      {R"({"event":"set","entity":"sample","attribute":"level","value":-1})", "it needs a value \"value\""},
      {R"({"event":"set","entity":"sample","attribute":"hashed","members":[1]})",
       "it needs a list \"members\""},
      {R"({"event":"set","entity":"sample","attribute":"hashed","members":[[1,2],[3]]})", "it needs a list"},
      {R"({"event":"del","entity":"sample","attribute":"hashed","keys":[[1,2]]})",
       "it needs a list \"keys\""},
      {R"({"error":3})", "cannot be understood: it needs a text \"error\""}};
  FakeAgent agent(dir_ / "fake.sock");
  for (auto const& [line, problem] : lines) {
    Ostra::Mounter mounter(dir_ / "fake.sock", 60);
    auto const mounted = mounter.mount<Sample>();
    agent.accept();
    agent.say(R"({"answer":"mount","entity":"sample","type":"OstraTest::Sample","tag":1})"
              "\n" +
              line + '\n');
    for (int i = 0; i < 10; ++i) mounter.dispatch();
    EXPECT_FALSE(mounter.connected()) << line;
    EXPECT_THAT(mounter.problem(), HasSubstr(problem)) << line;
  }
}

TEST_F(MountTest, KeepsWhatTheAgentSaidLast) {
  FakeAgent agent(dir_ / "fake.sock");
  Ostra::Mounter mounter(dir_ / "fake.sock", 60);
  agent.accept();
  agent.say("{\"error\":\"too many connections\"}\n");
  agent.hangUp();
  for (int i = 0; i < 10; ++i) mounter.dispatch();
  EXPECT_FALSE(mounter.connected());
  EXPECT_EQ("the agent ended the connection: too many connections", mounter.problem());
}

TEST_F(MountTest, ALineThatIsTooLongEndsTheConnection) {
  FakeAgent agent(dir_ / "fake.sock");
  Ostra::Mounter mounter(dir_ / "fake.sock", 60);
  agent.accept();
  std::string const piece(64 * 1024, 'x');
  std::size_t said = 0;
  while (mounter.connected() && said < 16 * 1024 * 1024) {
    said += agent.say(piece);
    mounter.dispatch();
  }
  EXPECT_FALSE(mounter.connected());
  EXPECT_EQ("the agent sent a line that is too long", mounter.problem());
  EXPECT_GT(said, 4u * 1024 * 1024);
}

// The child's copy keeps the socket open; its end must not be reported for ever.
TEST_F(MountTest, AProcessThatForkedRestsWhenTheAgentIsGone) {
  FakeAgent agent(dir_ / "fake.sock");
  Ostra::Mounter mounter(dir_ / "fake.sock", 60);
  agent.accept();
  pid_t const child = ::fork();
  if (child == 0) {
    ::pause();
    ::_exit(0);
  }
  agent.hangUp();
  for (int i = 0; i < 1000 && mounter.connected(); ++i) mounter.dispatch();
  EXPECT_FALSE(mounter.connected());
  pollfd p{mounter.fd(), POLLIN, 0};
  EXPECT_EQ(0, ::poll(&p, 1, 0)) << "there is nothing to do before it connects again";
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
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
  Ostra::Mounter mounter(dir_ / "nobody.sock", 0.01);
  auto const mounted = mounter.mount<Sample>();
  EXPECT_FALSE(mounter.dispatchUntil([&] { return mounter.live(*mounted); }, 0.05));
  EXPECT_THAT(mounter.problem(), HasSubstr("/nobody.sock: No such file or directory"));
}

}  // namespace
}  // namespace OstraTest
