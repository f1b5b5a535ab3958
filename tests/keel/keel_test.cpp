// SPDX-License-Identifier: Apache-2.0
// Both wheels keep one contract: a test of it runs on each, and the kernel's wheel is also tried with its
// descriptor.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "keel/timerfd_wheel.h"
#include "keel/virtual_wheel.h"

namespace Keel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Notes its name when it is woken, and then does what the test wants.
struct Sleeper : TimerWheel::Notifiee {
  Sleeper(std::vector<int>& log, int name) : log_(log), name_(name) {}
  void onTime() override {
    log_.push_back(name_);
    if (then) then();
  }
  std::function<void()> then;

 private:
  std::vector<int>& log_;
  int const name_;
};

bool readable(int fd, int milliseconds) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, milliseconds) == 1;
}

// How a test lets time pass.
struct Virtual {
  Ostra::Ptr<VirtualWheel> wheel = Ostra::make<VirtualWheel>(1000.0);
  void pass(double seconds) { wheel->advance(seconds); }
};
struct Timerfd {
  Ostra::Ptr<TimerfdWheel> wheel = Ostra::make<TimerfdWheel>();
  void pass(double seconds) {
    double const end = Ostra::now() + seconds;
    while (Ostra::now() < end)
      if (readable(wheel->fd(), static_cast<int>(std::ceil((end - Ostra::now()) * 1000)))) wheel->dispatch();
  }
};

template <class Wheel>
class Contract : public testing::Test {
 protected:
  std::unique_ptr<Sleeper> sleeper(int name) {
    auto made = std::make_unique<Sleeper>(log_, name);
    made->notifierIs(time_.wheel);
    return made;
  }
  double in(double seconds) const { return Ostra::now() + seconds; }

  Wheel time_;
  std::vector<int> log_;
};
using Wheels = testing::Types<Virtual, Timerfd>;
TYPED_TEST_SUITE(Contract, Wheels);

TYPED_TEST(Contract, wakesOnceAndNotEarly) {
  auto const a = this->sleeper(1);
  double const due = this->in(0.02);
  double woken = 0;
  a->then = [&] { woken = Ostra::now(); };
  a->timeMinIs(due);
  EXPECT_EQ(a->timeMin(), due);
  this->time_.pass(0.05);
  EXPECT_THAT(this->log_, ElementsAre(1));
  EXPECT_GE(woken, due);
  EXPECT_FALSE(a->timeMin());
}

TYPED_TEST(Contract, wakesInOrderOfTime) {
  auto const a = this->sleeper(1), b = this->sleeper(2), c = this->sleeper(3);
  double const start = Ostra::now();
  a->timeMinIs(start + 0.03);
  b->timeMinIs(start + 0.01);
  c->timeMinIs(start + 0.02);
  EXPECT_EQ(this->time_.wheel->earliest(), start + 0.01);
  this->time_.pass(0.05);
  EXPECT_THAT(this->log_, ElementsAre(2, 3, 1));
  EXPECT_FALSE(this->time_.wheel->earliest());
}

TYPED_TEST(Contract, askingAgainReplaces) {
  auto const a = this->sleeper(1);
  a->timeMinIs(this->in(0.005));
  a->timeMinIs(this->in(0.04));
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, IsEmpty());
  a->timeMinIs(this->in(0.001));
  this->time_.pass(0.04);
  EXPECT_THAT(this->log_, ElementsAre(1));
}

TYPED_TEST(Contract, aTimeThatIsPastWakesAtOnce) {
  auto const a = this->sleeper(1);
  a->timeMinIs(0.0);
  this->time_.pass(0.001);
  EXPECT_THAT(this->log_, ElementsAre(1));
}

TYPED_TEST(Contract, rearmsInItsOwnNotification) {
  auto const a = this->sleeper(1);
  a->then = [&] {
    if (this->log_.size() < 3) a->timeMinIs(this->in(0.005));
  };
  a->timeMinIs(this->in(0.005));
  this->time_.pass(0.05);
  EXPECT_THAT(this->log_, ElementsAre(1, 1, 1));
}

TYPED_TEST(Contract, dropsItselfInItsOwnNotification) {
  auto a = this->sleeper(1);
  auto const b = this->sleeper(2);
  double const due = this->in(0.005);
  a->then = [&] { a.reset(); };
  a->timeMinIs(due);
  b->timeMinIs(due + 0.001);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, ElementsAre(1, 2));
  EXPECT_FALSE(a);
}

TYPED_TEST(Contract, dropsAnotherThatIsDueToo) {
  auto a = this->sleeper(1), b = this->sleeper(2);
  double const due = this->in(0.005);
  a->then = [&] { b.reset(); };
  b->then = [&] { a.reset(); };
  a->timeMinIs(due);
  b->timeMinIs(due);
  this->time_.pass(0.02);
  EXPECT_EQ(this->log_.size(), 1U) << "whoever came first took the other along";
}

TYPED_TEST(Contract, theLastReferenceGoesInANotification) {
  auto const a = this->sleeper(1);
  auto const b = this->sleeper(2);
  double const due = this->in(0.005);
  a->then = [&] {
    a->notifierIs(nullptr);
    b->notifierIs(nullptr);
  };
  a->timeMinIs(due);
  b->timeMinIs(due);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, ElementsAre(1));
  EXPECT_FALSE(b->timeMin());
}

TYPED_TEST(Contract, keepsAWakeUpWhoseSleeperIsGone) {
  double const due = this->in(0.01);
  for (bool const destroyed : {true, false}) {
    auto a = this->sleeper(1);
    a->timeMinIs(due);
    destroyed ? a.reset() : a->notifierIs(nullptr);
    EXPECT_EQ(this->time_.wheel->earliest(), due) << destroyed;
  }
  auto const b = this->sleeper(2);
  b->timeMinIs(due);
  this->time_.pass(0.03);
  EXPECT_THAT(this->log_, ElementsAre(2)) << "it finds nobody, and keeps nobody from his own";
  EXPECT_FALSE(this->time_.wheel->earliest());
}

TYPED_TEST(Contract, pointedElsewhereItForgets) {
  auto const a = this->sleeper(1);
  a->timeMinIs(this->in(0.005));
  a->notifierIs(nullptr);
  a->timeMinIs(this->in(0.005));
  EXPECT_FALSE(a->timeMin()) << "there is no wheel to ask";
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, IsEmpty());
}

TYPED_TEST(Contract, inactiveAndMarkedOnesSleepOn) {
  auto const a = this->sleeper(1), b = this->sleeper(2);
  a->timeMinIs(this->in(0.005));
  b->timeMinIs(this->in(0.005));
  a->hasNotificationActiveIs(false);
  b->markedForDeletionIs(true);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, IsEmpty());
}

TYPED_TEST(Contract, deliversOnSwitchingOnWhatCameWhileOff) {
  auto const a = this->sleeper(1);
  a->timeMinIs(this->in(0.005));
  a->hasNotificationActiveIs(false);
  this->time_.pass(0.02);
  a->hasNotificationActiveIs(true);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, ElementsAre(1));
  a->hasNotificationActiveIs(false);
  a->hasNotificationActiveIs(true);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, ElementsAre(1)) << "it was missed once";
}

TYPED_TEST(Contract, pointedElsewhereItForgetsWhatItMissed) {
  auto const a = this->sleeper(1);
  a->timeMinIs(this->in(0.005));
  a->hasNotificationActiveIs(false);
  this->time_.pass(0.02);
  a->notifierIs(nullptr);
  a->notifierIs(this->time_.wheel);
  a->hasNotificationActiveIs(true);
  EXPECT_FALSE(a->timeMin());
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, IsEmpty());
}

TYPED_TEST(Contract, askingAgainReplacesWhatWasMissed) {
  auto const a = this->sleeper(1);
  a->timeMinIs(this->in(0.005));
  a->hasNotificationActiveIs(false);
  this->time_.pass(0.02);
  double const later = this->in(60);
  a->timeMinIs(later);
  a->hasNotificationActiveIs(true);
  EXPECT_EQ(a->timeMin(), later);
  this->time_.pass(0.02);
  EXPECT_THAT(this->log_, IsEmpty());
}

TEST(VirtualWheel, timeStandsStillBetweenAdvances) {
  auto const wheel = Ostra::make<VirtualWheel>(5.0);
  EXPECT_EQ(Ostra::now(), 5.0);
  wheel->advance(2.5);
  EXPECT_EQ(Ostra::now(), 7.5);
}

TEST(VirtualWheel, stopsAtEachWakeUpOnTheWay) {
  std::vector<int> log;
  auto const wheel = Ostra::make<VirtualWheel>();
  Sleeper a(log, 1);
  a.notifierIs(wheel);
  std::vector<double> times;
  a.then = [&] {
    times.push_back(Ostra::now());
    a.timeMinIs(Ostra::now() + 10.0);
  };
  a.timeMinIs(10.0);
  wheel->advance(35.0);
  EXPECT_THAT(times, ElementsAre(10.0, 20.0, 30.0));
  EXPECT_EQ(Ostra::now(), 35.0);
}

TEST(VirtualWheel, mayGoBeforeALaterOne) {
  double const before = Ostra::now();
  auto first = Ostra::make<VirtualWheel>(1e9);
  auto second = Ostra::make<VirtualWheel>(2e9);
  first = nullptr;
  EXPECT_EQ(Ostra::now(), 2e9);
  second = nullptr;
  EXPECT_GE(Ostra::now(), before);
  EXPECT_LT(Ostra::now(), before + 1e6);
}

TEST(VirtualWheel, putsTheClockBack) {
  double const before = Ostra::now();
  Ostra::make<VirtualWheel>(1e9);
  double const after = Ostra::now();
  EXPECT_GE(after, before);
  EXPECT_LT(after, before + 60);
}

TEST(TimerfdWheel, descriptorIsReadableOnlyWhenSomethingIsDue) {
  std::vector<int> log;
  auto const wheel = Ostra::make<TimerfdWheel>();
  Sleeper a(log, 1);
  a.notifierIs(wheel);
  EXPECT_FALSE(readable(wheel->fd(), 0));
  a.timeMinIs(Ostra::now() + 0.01);
  EXPECT_TRUE(readable(wheel->fd(), 1000));
  wheel->dispatch();
  EXPECT_THAT(log, ElementsAre(1));
  EXPECT_FALSE(readable(wheel->fd(), 0)) << "an idle wheel must not keep a loop awake";
}

TEST(TimerfdWheel, aWakeUpWhoseSleeperIsGoneIsDueOnce) {
  std::vector<int> log;
  auto const wheel = Ostra::make<TimerfdWheel>();
  {
    Sleeper a(log, 1);
    a.notifierIs(wheel);
    a.timeMinIs(Ostra::now() + 0.005);
  }
  EXPECT_TRUE(readable(wheel->fd(), 1000));
  wheel->dispatch();
  EXPECT_THAT(log, IsEmpty());
  EXPECT_FALSE(readable(wheel->fd(), 20));
}

TEST(TimerfdWheel, dispatchWithNothingDueDoesNothing) {
  std::vector<int> log;
  auto const wheel = Ostra::make<TimerfdWheel>();
  Sleeper a(log, 1);
  a.notifierIs(wheel);
  a.timeMinIs(Ostra::now() + 60);
  wheel->dispatch();
  EXPECT_THAT(log, IsEmpty());
  EXPECT_TRUE(a.timeMin());
}

TEST(TimerfdWheel, survivesTimesFarAway) {
  std::vector<int> log;
  auto const wheel = Ostra::make<TimerfdWheel>();
  Sleeper a(log, 1);
  a.notifierIs(wheel);
  for (double const far : {1e9, 1e18, 1e300, std::numeric_limits<double>::infinity()}) {
    a.timeMinIs(far);
    EXPECT_FALSE(readable(wheel->fd(), 1)) << far;
  }
  a.timeMinIs(-1.0);
  EXPECT_TRUE(readable(wheel->fd(), 1000));
}

// Many sleepers against a plain sorted list.
TEST(VirtualWheel, wakesManySleepersInOrder) {
  std::mt19937 random(7);
  std::vector<int> log;
  auto const wheel = Ostra::make<VirtualWheel>();
  std::vector<std::unique_ptr<Sleeper>> sleepers;
  std::vector<std::pair<double, int>> expected;
  for (int i = 0; i < 1000; ++i) {
    sleepers.push_back(std::make_unique<Sleeper>(log, i));
    sleepers.back()->notifierIs(wheel);
    sleepers.back()->timeMinIs(1.0 + static_cast<double>(random() % 100000));
    sleepers.back()->timeMinIs(1.0 + static_cast<double>(random()) / 4e9 * 1000);
    expected.emplace_back(*sleepers.back()->timeMin(), i);
  }
  std::ranges::sort(expected);
  wheel->advance(2000);
  ASSERT_EQ(log.size(), expected.size());
  for (std::size_t i = 0; i < log.size(); ++i) ASSERT_EQ(log[i], expected[i].second) << i;
}

}  // namespace
}  // namespace Keel
