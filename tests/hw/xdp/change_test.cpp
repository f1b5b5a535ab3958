// SPDX-License-Identifier: Apache-2.0
// Changes under traffic: CPUs send one packet as fast as they can while the table is edited. Each packet is
// counted by the kernel with the entry that decided it, so a single wrong verdict shows.
//
// The controls do it wrong on purpose, and must show wrong verdicts: else the tests could not.
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <thread>

#include "tests/hw/xdp/table.h"

namespace XdpTest {
namespace {

using Done = Hw::Outcome::Kind;

constexpr U32 positions = 4096;
constexpr U32 inOneCall = 20000;  // packets
constexpr U32 slow = 500;         // entries that a look-up examines in vain, so that it takes long

// Knows which look-ups ran when a drain began, and that they had ended when it was over.
class Witness : public Hw::XdpTcam {
 public:
  using XdpTcam::XdpTcam;
  Witness(std::string name, Hw::XdpOptions const& options, bool mayInterleave, bool hasGracePeriods)
      : XdpTcam(std::move(name), options, mayInterleave, hasGracePeriods) {}
  // From now on a look-up that never goes on is there on a CPU that sends, preempted by all others.
  void preempt() { program().cpus()[preempted_ = 1].epoch += lookUpBegins; }
  // Look-ups that drains met; those of them that they did not wait for.
  U64 met = 0, missed = 0;

 protected:
  void drain() override {
    auto const before = epochs();
    XdpTcam::drain();
    auto const after = epochs();
    for (std::size_t cpu = 0; cpu < before.size(); ++cpu) {
      if ((before[cpu] & runningLookUps) <= (cpu == preempted_)) continue;
      ++met;
      missed += before[cpu] / (lookUpEnds + 1) == after[cpu] / (lookUpEnds + 1);
    }
  }

 private:
  std::vector<U64> epochs() {
    std::vector<U64> all;
    for (TcamCpu& cpu : program().cpus()) all.push_back(std::atomic_ref(cpu.epoch).load());
    return all;
  }
  std::size_t preempted_ = ~std::size_t{0};
};

void pinTo(U32 cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

// Threads that send the frame, one on each CPU but the first, where the table is edited; with one CPU, on
// that. No look-up is interrupted, so on one CPU an edit never meets one.
class Traffic {
 public:
  Traffic(int program, Bytes const& frame) {
    U32 const cpus = std::max(1U, std::thread::hardware_concurrency());
    pinTo(0);
    for (U32 cpu = cpus > 1 ? 1 : 0; cpu < cpus; ++cpu)
      threads_.emplace_back([this, program, frame, cpu] {
        pinTo(cpu);
        while (!stop_) {
          run(program, frame, inOneCall);
          sent_ += inOneCall;
        }
      });
  }
  ~Traffic() { stop(); }
  void stop() {
    stop_ = true;
    for (std::thread& t : threads_)
      if (t.joinable()) t.join();
  }
  U64 sent() const { return sent_; }

 private:
  std::atomic<bool> stop_ = false;
  std::atomic<U64> sent_ = 0;
  std::vector<std::thread> threads_;
};

// The packet that is sent.
constexpr Header packet{0x0A000001, 0xC0000201, 1000, 2000, 0x002, tcp};

// Matches the packet.
Acl::Rule wanted() {
  Acl::Rule r;
  r.destination = {packet.destination, ~U32{0}};
  r.destinationPort = {2000, 2000};
  return r;
}

// Passes the filter of bits for the packet, and does not match it: only looking at the record tells.
Acl::Rule probe() {
  Acl::Rule r = wanted();
  r.destinationPort = {1793, 2304};
  r.sourcePort = {static_cast<U16>(packet.sourcePort + 1), 2000};
  return r;
}

class ChangeTest : public TableTest {
 protected:
  // Probes between the position where the entry is and those where it goes make look-ups slow.
  template <class Table>
  std::unique_ptr<Table> make(U32 probes = slow) {
    auto tcam = std::make_unique<Table>(
        "hardware", Hw::XdpOptions{.hook = GetParam(), .positions = positions, .permits = false});
    for (U32 i = 0; i < probes; ++i)
      EXPECT_EQ(tcam->write(entryOf(100 + i, probe(), 100 + i), 100 + i, 1).kind, Done::Done);
    EXPECT_EQ(tcam->write(entryOf(1, wanted(), last), last, 1).kind, Done::Done);
    return tcam;
  }
  static constexpr U32 first = 3;
  static constexpr U32 last = positions - 5;
  static constexpr U64 packets = 1'000'000;
  static constexpr U64 mostRounds = 20'000'000;

  // Edits while the packets go through; returns how many were decided by no entry.
  template <class Edit>
  U64 wrong(Hw::XdpTcam& tcam, U64 atLeast, Edit edit, bool untilWrong = false) {
    Traffic traffic(tcam.program().fd(), frame(packet));
    U64 round = 0;
    while (traffic.sent() < atLeast && round < mostRounds) {
      edit(round++);
      if (untilWrong && tcam.undecided(noEntryMatches) != 0) break;
    }
    traffic.stop();
    sent_ = traffic.sent();
    return tcam.undecided(noEntryMatches);
  }

  U64 sent_ = 0;

  // To the front and back again.
  static auto mover(Hw::XdpTcam& tcam) {
    return [&tcam](U64 round) {
      U32 const from = round % 2 == 0 ? last : first, to = round % 2 == 0 ? first : last;
      tcam.write(entryOf(1, wanted(), to, round + 2), to, 1);
      tcam.erase(EntryKey(1), from, 2);
    };
  }
};

TEST_P(ChangeTest, MovesWithoutWrongVerdict) {
  auto const tcam = make<Hw::XdpTcam>();
  EXPECT_EQ(wrong(*tcam, packets, mover(*tcam)), 0);
  EXPECT_EQ(tcam->hits(EntryKey(1)), sent_);  // the counter moves along
}

// The look-ups that interleave have the table find out.
TEST_P(ChangeTest, MovesWhileLookUpsInterleave) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one CPU: no edit meets a look-up";
  auto const tcam = make<Witness>();
  EXPECT_EQ(tcam->gracePeriods(), 0);
  tcam->preempt();
  U64 sent = 0;
  for (int tries = 0; tries < 20 && (tries == 0 || tcam->met == 0); ++tries, sent += sent_)
    ASSERT_EQ(wrong(*tcam, packets, mover(*tcam)), 0);
  EXPECT_EQ(tcam->hits(EntryKey(1)), sent);
  EXPECT_GT(tcam->gracePeriods(), 2);
  EXPECT_EQ(tcam->missed, 0);
  EXPECT_GT(tcam->met, 0);
}

TEST_P(ChangeTest, WaitsForGracePeriodsOnRealTimeKernel) {
  Witness tcam("hardware", {.hook = GetParam(), .positions = 64}, true, true);
  EXPECT_EQ(tcam.write(entryOf(1, wanted(), 5), 5, 1).kind, Done::Done);
  EXPECT_EQ(tcam.erase(EntryKey(1), 5, 2).kind, Done::Done);
  EXPECT_EQ(tcam.gracePeriods(), 2);
}

TEST_P(ChangeTest, RealTimeKernelWithoutGracePeriodsIsRefused) {
  try {
    Witness const tcam("hardware", {.hook = GetParam(), .positions = 64}, true, false);
    ADD_FAILURE();
  } catch (std::runtime_error const& e) {
    EXPECT_THAT(e.what(), testing::HasSubstr("may preempt one another on this real-time kernel"));
  }
}

TEST_P(ChangeTest, WaitsForQuietWithoutGracePeriods) {
  Witness tcam("hardware", {.hook = GetParam(), .positions = 64}, false, false);
  auto& cpu = tcam.program().cpus()[0];
  cpu.epoch += U64{2} * lookUpBegins;
  std::atomic<bool> ended = false;
  std::thread lookUps([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ended = true;
    std::atomic_ref(cpu.epoch) += U64{2} * lookUpEnds;
  });
  EXPECT_EQ(tcam.write(entryOf(1, wanted(), 5), 5, 1).kind, Done::Done);
  EXPECT_TRUE(ended);
  lookUps.join();
}

TEST_P(ChangeTest, LosesVerdictsWithoutDrain) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one CPU: no edit meets a look-up";
  auto const tcam = make<Hasty>();
  EXPECT_GT(wrong(*tcam, 50 * packets, mover(*tcam), true), 0);
}

TEST_P(ChangeTest, LosesVerdictsByDeleteThenAdd) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "one CPU: no edit meets a look-up";
  auto const tcam = make<Hw::XdpTcam>();
  auto const swap = [&tcam](U64 round) {
    U32 const from = round % 2 == 0 ? last : first, to = round % 2 == 0 ? first : last;
    tcam->erase(EntryKey(1), from, 1);
    tcam->write(entryOf(1, wanted(), to, round + 2), to, 2);
  };
  EXPECT_GT(wrong(*tcam, 50 * packets, swap, true), 0);
}

TEST_P(ChangeTest, UpdatesWithoutWrongVerdict) {
  auto const tcam = make<Hw::XdpTcam>(10);
  EXPECT_EQ(wrong(*tcam, packets,
                  [&tcam](U64 round) {
                    Acl::Rule rule = wanted();  // other bits each time, the packet among them
                    if (round % 2 == 0) rule.sourcePort = {1000, 1000};
                    if (round % 3 == 0) rule.source = {0x0A000000, 0xFF000000};
                    tcam->write(entryOf(1, rule, last, round + 2), last, 1);
                  }),
            0);
}

TEST_P(ChangeTest, ReplacesEntryByAnotherBeforeIt) {
  auto const tcam = make<Hw::XdpTcam>();
  EXPECT_EQ(wrong(*tcam, packets,
                  [&tcam](U64 round) {
                    U64 const in = 2 - round % 2, out = 1 + round % 2;
                    U32 const to = round % 2 == 0 ? first : last, from = round % 2 == 0 ? last : first;
                    tcam->write(entryOf(in, wanted(), to, round + 2), to, 1);
                    tcam->erase(EntryKey(out), from, 2);
                  }),
            0);
}

INSTANTIATE_TEST_SUITE_P(Hooks, ChangeTest, testing::Values(XdpHook::Driver, XdpHook::Tc),
                         [](auto const& p) { return p.param == XdpHook::Tc ? "Tc" : "Xdp"; });

}  // namespace
}  // namespace XdpTest
