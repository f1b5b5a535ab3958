// SPDX-License-Identifier: Apache-2.0
// Who gets a place on the socket: by user, by idleness, and by how many files the process may open.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <vector>

#include "ostra/clock.h"
#include "published.h"

namespace OstraTest {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uid_t nobody = 65534, somebody = 65533;
constexpr char const* listing = R"({"verb":"list"})";
constexpr char const* tooMany = R"({"error":"too many connections"})";
constexpr char const* dropped = R"({"error":"dropped for another connection: all places are taken"})";

class PublishLimitsTest : public Published {
 protected:
  using Peers = std::vector<std::unique_ptr<RawPeer>>;

  PublishLimitsTest() { ::getrlimit(RLIMIT_NOFILE, &files_); }
  ~PublishLimitsTest() override { ::setrlimit(RLIMIT_NOFILE, &files_); }

  // Connections of another user of root's group. The kernel remembers who connected.
  Peers connectedBy(uid_t user, std::size_t count) {
    EXPECT_EQ(0, ::chmod(dir_.path().c_str(), 0755));
    EXPECT_EQ(0, ::seteuid(user));
    Peers peers;
    for (std::size_t i = 0; i < count; ++i) peers.push_back(std::make_unique<RawPeer>(path_));
    EXPECT_EQ(0, ::seteuid(0));
    settle();
    return peers;
  }
  static std::size_t refused(Peers const& peers) {
    std::size_t n = 0;
    for (auto const& peer : peers) {
      peer->read();
      peer->read();
      n += peer->closed() && peer->lines() == std::vector<std::string>{tooMany};
    }
    return n;
  }
  void openFilesAre(rlim_t most) {
    rlimit const files{most, files_.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &files));
  }

  rlimit files_{};
};

TEST_F(PublishLimitsTest, AUserHoldsAtMostHalf) {
  if (::geteuid() != 0) GTEST_SKIP() << "becoming another user takes root";
  publish({.mostPeers = 8});
  Peers const many = connectedBy(nobody, 20);
  EXPECT_EQ(16u, refused(many));
  EXPECT_EQ(4u, publisher_->peers());
  Peers const others = connectedBy(somebody, 3);
  EXPECT_EQ(0u, refused(others));
  RawPeer owner(path_);
  EXPECT_THAT(ask(owner, listing), HasSubstr("entities"));
}

TEST_F(PublishLimitsTest, TheOwnerGetsPlaceOfLongestIdlePeer) {
  if (::geteuid() != 0) GTEST_SKIP() << "becoming another user takes root";
  publish({.mostPeers = 4});
  Peers const first = connectedBy(nobody, 2), second = connectedBy(somebody, 1);
  RawPeer owner(path_);
  settle();
  ask(*first[0], listing);  // the other one has been idle longer
  Peers const late = connectedBy(somebody, 1);
  EXPECT_EQ(1u, refused(late)) << "all places are taken";
  RawPeer next(path_);
  EXPECT_THAT(ask(next, listing), HasSubstr("entities"));
  EXPECT_EQ(4u, publisher_->peers());
  first[1]->read();
  first[1]->read();
  EXPECT_TRUE(first[1]->closed()) << "of the user that holds most";
  EXPECT_THAT(first[1]->lines(), ElementsAre(dropped));
  for (RawPeer* peer : {first[0].get(), second[0].get(), &owner})
    EXPECT_THAT(ask(*peer, listing), HasSubstr("entities"));
}

TEST_F(PublishLimitsTest, APeerWithMountsIsDroppedLast) {
  publish({.mostPeers = 2});
  RawPeer watching(path_);
  ask(watching, R"({"verb":"mount","entity":"sample"})");
  RawPeer asking(path_);
  ask(asking, listing);
  RawPeer next(path_);
  EXPECT_THAT(ask(next, listing), HasSubstr("entities"));
  for (RawPeer* peer : {&asking, &watching})
    for (int i = 0; i < 3; ++i) peer->read();
  EXPECT_TRUE(asking.closed());
  EXPECT_FALSE(watching.closed());
}

TEST_F(PublishLimitsTest, ManyIdlePeersLockNobodyOut) {
  publish({.mostPeers = 50});
  Peers crowd;
  for (int i = 0; i < 200; ++i) {
    crowd.push_back(std::make_unique<RawPeer>(path_));
    pump(2);
  }
  EXPECT_EQ(50u, publisher_->peers());
  RawPeer next(path_);
  EXPECT_THAT(ask(next, listing), HasSubstr("entities"));
}

TEST_F(PublishLimitsTest, PeersLeaveFilesToTheProcess) {
  openFilesAre(160);
  publish({});  // 160 - 64 - 40
  Peers peers;
  for (int i = 0; i < 70; ++i) {
    peers.push_back(std::make_unique<RawPeer>(path_));
    ASSERT_TRUE(peers.back()->connected());
    settle();
  }
  EXPECT_EQ(56u, publisher_->peers());
}

TEST_F(PublishLimitsTest, ThereIsAPlaceHoweverFewFiles) {
  openFilesAre(64);
  publish({});
  RawPeer peer(path_);
  EXPECT_THAT(ask(peer, listing), HasSubstr("entities"));
}

TEST_F(PublishLimitsTest, WithoutDescriptorsItGoesOnAndRecovers) {
  RawPeer before(path_);
  ask(before, listing);
  RawPeer late(path_);
  late.write(std::string(listing) + '\n');
  hasWork();  // so that a sanitizer, which opens files to look at an object, knows this one
  int const next = ::dup(0);
  ::close(next);
  openFilesAre(static_cast<rlim_t>(next));
  pump();
  EXPECT_EQ(1u, publisher_->peers()) << "there was no descriptor";
  EXPECT_FALSE(hasWork()) << "it does not try all the while";
  EXPECT_THAT(ask(before, listing), HasSubstr("entities"));
  openFilesAre(files_.rlim_cur);
  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + std::chrono::seconds(3);
  while (late.lines().empty() && Clock::now() < end) {
    if (hasWork(10)) publisher_->dispatch();
    late.read();
  }
  EXPECT_THAT(late.lines(), ElementsAre(HasSubstr("entities")));
}

// Stands still until the test moves it.
class HandClock : public Ostra::Clock {
 public:
  HandClock() : before_(Ostra::clockIs(this)) {}
  ~HandClock() override { Ostra::clockIs(before_); }
  double now() const override { return time; }
  double time = 1;

 private:
  Ostra::Clock const* const before_;
};

TEST_F(PublishLimitsTest, WhoAsksNothingForLongIsDropped) {
  HandClock clock;
  publish({.idleSeconds = 0.2});
  RawPeer idle(path_), watching(path_), asking(path_), unfinished(path_);
  ask(watching, R"({"verb":"mount","entity":"sample"})");
  settle();
  for (int i = 0; i < 2; ++i) {
    clock.time += 0.15;
    unfinished.write("x");
    EXPECT_THAT(ask(asking, listing), HasSubstr("entities"));
  }
  for (int i = 0; i < 100 && publisher_->peers() > 2; ++i)
    if (hasWork(100)) settle();
  EXPECT_EQ(2u, publisher_->peers());
  for (RawPeer* peer : {&idle, &unfinished}) {
    for (int i = 0; i < 3; ++i) peer->read();
    EXPECT_TRUE(peer->closed());
    EXPECT_THAT(peer->lines(), ElementsAre(R"({"error":"nothing was asked for 0.2 seconds"})"));
  }
  watching.read();
  EXPECT_FALSE(watching.closed());
  EXPECT_THAT(ask(asking, listing), HasSubstr("entities"));
}

}  // namespace
}  // namespace OstraTest
