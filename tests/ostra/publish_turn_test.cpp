// SPDX-License-Identifier: Apache-2.0
// What one dispatch does and what it leaves for the next: turns are counted on a clock that the test owns.
#include <gmock/gmock.h>

#include <vector>

#include "ostra/clock.h"
#include "published.h"

namespace OstraTest {
namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;
using testing::StartsWith;

// Goes on by `step` seconds whenever it is looked at.
class SteppingClock : public Ostra::Clock {
 public:
  explicit SteppingClock(double step) : step_(step), before_(Ostra::clockIs(this)) {}
  ~SteppingClock() override { Ostra::clockIs(before_); }
  double now() const override { return now_ += step_; }

 private:
  double const step_;
  Ostra::Clock const* const before_;
  double mutable now_ = 0;
};

constexpr double longerThanATurn = 1;
constexpr char const* listing = "{\"verb\":\"list\"}\n";
constexpr char const* reading = "{\"verb\":\"read\",\"entity\":\"sample\",\"attribute\":\"level\"}\n";

class PublishTurnTest : public Published {
 protected:
  RawPeer& connect() {
    peers_.push_back(std::make_unique<RawPeer>(path_));
    settle();
    return *peers_.back();
  }
  // How many lines each has received.
  std::vector<std::size_t> received() {
    std::vector<std::size_t> counts;
    for (auto const& peer : peers_) {
      peer->read();
      counts.push_back(peer->lines().size());
    }
    return counts;
  }
  // Members in the lines that the peer receives from one dispatch.
  std::size_t membersOfADispatch(RawPeer& peer) {
    publisher_->dispatch();
    peer.read();
    std::size_t members = 0;
    for (std::string const& line : peer.take())
      if (Json const json = Json::parse(line); json.contains("members")) members += json["members"].size();
    return members;
  }
  std::vector<std::unique_ptr<RawPeer>> peers_;
};

TEST_F(PublishTurnTest, OneDispatchServesUntilItsTimeIsOver) {
  for (int i = 0; i < 20; ++i) connect();
  for (auto const& peer : peers_) peer->write(listing);
  SteppingClock const clock(0.0001);  // a fifth of a turn
  publisher_->dispatch();
  std::size_t served = 0;
  for (std::size_t const n : received()) served += n;
  EXPECT_GT(served, 0u);
  EXPECT_LE(served, 5u);
  EXPECT_TRUE(hasWork()) << "the others wait for the next";
}

// One who is heard of a little later joins a little later.
TEST_F(PublishTurnTest, AllAreServedEquallyOften) {
  for (int i = 0; i < 40; ++i) connect();
  for (auto const& peer : peers_)
    for (int n = 0; n < 10; ++n) peer->write(listing);
  SteppingClock const clock(longerThanATurn);
  for (std::size_t round = 1; round <= 10; ++round) {
    pump(40);
    EXPECT_THAT(received(), Each(AllOf(Ge(round - 1), Le(round + 1))));
  }
  settle();
  EXPECT_THAT(received(), Each(10u));
}

TEST_F(PublishTurnTest, GarbageCountsAsRequests) {
  RawPeer& peer = connect();
  std::string garbage;
  for (int i = 0; i < 1000; ++i) garbage += "x\n\n";
  peer.write(garbage);
  SteppingClock const clock(longerThanATurn);
  for (std::size_t turn = 1; turn <= 10; ++turn) {
    publisher_->dispatch();
    EXPECT_THAT(received(), ElementsAre(turn));
  }
}

// Ten thousand members, of which one dispatch tells a few.
class LongAnswerTest : public PublishTurnTest, public testing::WithParamInterface<char const*> {};

TEST_P(LongAnswerTest, GoesOnInTheNextTurn) {
  for (U64 k = 0; k < 10000; ++k) sample_->hashedIs(k, k);
  RawPeer& peer = connect();
  peer.write(std::string(GetParam()) + '\n');
  SteppingClock const clock(longerThanATurn);
  std::size_t members = 0;
  for (int turn = 0; turn < 1000 && members < 10000; ++turn) {
    std::size_t const now = membersOfADispatch(peer);
    EXPECT_LE(now, 300u);
    members += now;
  }
  EXPECT_EQ(10000u, members);
}

INSTANTIATE_TEST_SUITE_P(ReadAndSnapshot, LongAnswerTest,
                         testing::Values(R"({"verb":"read","entity":"sample","attribute":"hashed"})",
                                         R"({"verb":"mount","entity":"sample"})"));

TEST_F(PublishTurnTest, ManyConnectionsTakeSeveralTurns) {
  SteppingClock const clock(longerThanATurn);
  for (int i = 0; i < 5; ++i) peers_.push_back(std::make_unique<RawPeer>(path_));
  for (std::size_t n = 1; n <= 5; ++n) {
    publisher_->dispatch();
    EXPECT_EQ(n, publisher_->peers());
  }
}

// What acts on the agent, with the answer that tells that it was done.
class PublishReadOnlyTest : public PublishTurnTest {
 protected:
  void pumpReadOnly(int times = 20) {
    for (int i = 0; i < times; ++i) publisher_->dispatchReadOnly();
  }
};

TEST_F(PublishReadOnlyTest, LeavesWhatActsForTheNextDispatch) {
  sample_->hashedIs(1, 1);
  for (char const* request : {R"({"verb":"write","entity":"sample","attribute":"level","value":7})",
                              R"({"verb":"delete","entity":"sample","attribute":"hashed","key":1})",
                              R"({"verb":"invoke","entity":"sample","operation":"add","arguments":[1]})"}) {
    RawPeer& acting = connect();
    RawPeer& asking = connect();
    U8 const level = sample_->level();
    std::size_t const members = sample_->hashed().size();
    acting.write(std::string(reading) + request + '\n' + reading);
    asking.write(std::string(reading) + listing + "{\"verb\":\"mount\",\"entity\":\"sample\"}\n");
    pumpReadOnly();
    acting.read();
    asking.read();
    EXPECT_THAT(acting.take(), SizeIs(1)) << "what it asked before";
    EXPECT_THAT(asking.take().back(), HasSubstr(R"("event":"live")"));
    EXPECT_EQ(level, sample_->level());
    EXPECT_EQ(members, sample_->hashed().size());
    EXPECT_TRUE(hasWork()) << "for the next dispatch()";
    settle();
    acting.read();
    EXPECT_THAT(acting.lines(), ElementsAre(StartsWith(std::string(R"({"answer":")") +
                                                       Json::parse(request)["verb"].get<std::string>()),
                                            StartsWith(R"({"answer":"read")")));
  }
  EXPECT_EQ(8, sample_->level());
  EXPECT_THAT(sample_->hashed(), IsEmpty());
}

TEST_F(PublishReadOnlyTest, TellsChangesToWhomIsWaiting) {
  RawPeer& peer = connect();
  ask(peer, R"({"verb":"mount","entity":"sample"})");
  settle();
  peer.read();
  peer.take();
  peer.write("{\"verb\":\"write\",\"entity\":\"sample\",\"attribute\":\"title\",\"value\":\"new\"}\n");
  pumpReadOnly();
  sample_->levelIs(9);
  pumpReadOnly();
  peer.read();
  EXPECT_THAT(peer.take(), ElementsAre(R"({"event":"set","entity":"sample","attribute":"level","value":9})"));
  EXPECT_EQ("", sample_->title());
}

TEST_F(PublishReadOnlyTest, AcceptsConnections) {
  RawPeer peer(path_);
  peer.write(listing);
  pumpReadOnly();
  peer.read();
  EXPECT_THAT(peer.lines(), SizeIs(1));
}

// A handler that serves the socket in the middle of a request, as an agent does in a long walk.
TEST_F(PublishReadOnlyTest, ServesOthersFromInsideARequest) {
  RawPeer& acting = connect();
  RawPeer& asking = connect();
  RawPeer& writing = connect();
  acting.write("{\"verb\":\"write\",\"entity\":\"sample\",\"attribute\":\"level\",\"value\":1}\n" +
               std::string(reading));
  asking.write(std::string(reading) + listing);
  writing.write("{\"verb\":\"write\",\"entity\":\"sample\",\"attribute\":\"level\",\"value\":2}\n");
  std::vector<std::size_t> meanwhile;
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(sample_));
  diary.then = [&] {
    if (!meanwhile.empty()) return;
    for (int i = 0; i < 20; ++i) i % 2 ? publisher_->dispatch() : publisher_->dispatchReadOnly();
    meanwhile = received();
  };
  settle();
  EXPECT_THAT(meanwhile, ElementsAre(0u, 2u, 0u));
  EXPECT_THAT(diary.lines(), ElementsAre("level 1", "level 2"));
  EXPECT_THAT(received(), ElementsAre(2u, 2u, 1u));
  EXPECT_THAT(acting.lines(),
              ElementsAre(StartsWith(R"({"answer":"write")"), StartsWith(R"({"answer":"read")")));
}

// Inside, everybody who stood in the queue behind it was served.
TEST_F(PublishReadOnlyTest, ARequestMayLeaveNobodyToServe) {
  RawPeer& acting = connect();
  for (int i = 0; i < 10; ++i) connect();
  acting.write("{\"verb\":\"write\",\"entity\":\"sample\",\"attribute\":\"level\",\"value\":1}\n");
  for (auto const& peer : peers_) peer->write(listing);
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(sample_));
  diary.then = [&] { publisher_->dispatch(); };
  settle();
  EXPECT_THAT(received(), ElementsAre(2u, 1u, 1u, 1u, 1u, 1u, 1u, 1u, 1u, 1u, 1u));
}

TEST_F(PublishReadOnlyTest, ARequestMayWithdrawItsEntity) {
  RawPeer& acting = connect();
  ask(acting, R"({"verb":"mount","entity":"sample"})");
  settle();
  acting.read();
  acting.take();
  Diary diary;
  diary.notifierIs(Ostra::Ptr<Sample const>(sample_));
  diary.then = [&] {
    publisher_->withdraw("sample");
    publisher_->dispatch();
  };
  acting.write("{\"verb\":\"write\",\"entity\":\"sample\",\"attribute\":\"level\",\"value\":1}\n");
  settle();
  acting.read();
  EXPECT_THAT(acting.lines(),
              ElementsAre(R"({"event":"gone","entity":"sample"})",
                          R"({"answer":"write","entity":"sample","attribute":"level","value":1})"));
}

}  // namespace
}  // namespace OstraTest
