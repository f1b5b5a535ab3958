// SPDX-License-Identifier: Apache-2.0
// The table on an interface, in a network namespace of the test's own, and the table that outlives its agent,
// in a BPF file system of the test's own.
#include <arpa/inet.h>
#include <bpf/libbpf.h>
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "tests/apps/acl/random_rules.h"
#include "tests/hw/xdp/table.h"
#include "tests/support/namespaces.h"
#include "tests/support/temp_dir.h"

namespace XdpTest {
namespace {

using Hw::XdpOptions;
using Hw::XdpTcam;
using Kind = Hw::Outcome::Kind;

// Runs the body in a thread with namespaces of its own for interfaces and mounts.
void alone(std::function<void()> const& body) {
  std::thread([&] {
    ASSERT_EQ(TestSupport::ownNetworkAndMounts(), 0);
    body();
  }).join();
}

void command(std::string const& line) { ASSERT_EQ(std::system(line.c_str()), 0) << line; }

// Two ends of a cable; the packets that enter at `sender` are filtered where they leave, at `filter`.
void makeCable() {
  command(
      "ip link add sender address 02:00:00:00:00:02 type veth peer name filter address 02:00:00:00:00:01");
  command("ip address add 192.0.2.1/24 dev filter");
  command("ip link set sender up; ip link set filter up");
}

Bytes datagram(U16 port) { return withChecksum(frame({0xC0000209, 0xC0000201, 1000, port, 0, udp})); }

// The near end. Closing such a socket takes the kernel milliseconds.
class Sender {
 public:
  Sender() {
    to_.sll_family = AF_PACKET;
    to_.sll_ifindex = static_cast<int>(::if_nametoindex("sender"));
  }
  ~Sender() { ::close(out_); }
  Sender(Sender const&) = delete;
  Sender& operator=(Sender const&) = delete;
  void send(Bytes const& frame) const {
    auto const* const to = reinterpret_cast<sockaddr const*>(&to_);
    ASSERT_EQ(::sendto(out_, frame.data(), frame.size(), 0, to, sizeof to_),
              static_cast<ssize_t>(frame.size()))
        << std::strerror(errno);
  }

 private:
  int const out_ = ::socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll to_ = {};
};

void send(Bytes const& frame, int times) {
  Sender const sender;
  for (int i = 0; i < times; ++i) sender.send(frame);
}

class Receiver {
 public:
  explicit Receiver(U16 port) {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
    timeval const patience{0, 200'000};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Receiver() { ::close(fd_); }
  Receiver(Receiver const&) = delete;
  Receiver& operator=(Receiver const&) = delete;
  // Until so many came, or none comes for a while.
  int received(int atMost = INT_MAX) const {
    int count = 0;
    for (char buffer[64]; count < atMost && ::recv(fd_, buffer, sizeof buffer, 0) >= 0;) ++count;
    return count;
  }

 private:
  int const fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
};

Acl::Rule toPort(U16 port, Acl::ActionKind action) {
  Acl::Rule r;
  r.protocol = {udp, 0xFF};
  r.destinationPort = {port, port};
  r.action.kind = action;
  return r;
}

class InterfaceTest : public TableTest {};
class CableTest : public TableTest {};  // who taps an interface sees packets before tc does: XDP only
class KillTest : public TableTest {};

TEST_P(InterfaceTest, DeliversWhatEntriesPermit) {
  alone([] {
    makeCable();
    Receiver const wanted(2000), unwanted(2001);
    {
      XdpTcam tcam("hardware", {.interface = "filter", .hook = GetParam(), .positions = 64});
      tcam.write(entryOf(1, toPort(2000, Acl::ActionKind::Permit), 9), 9, 1);
      tcam.write(entryOf(2, toPort(2001, Acl::ActionKind::Deny), 10), 10, 2);
      send(datagram(2000), 100);
      send(datagram(2001), 50);
      EXPECT_EQ(wanted.received(), 100);
      EXPECT_EQ(unwanted.received(), 0);
      EXPECT_EQ(tcam.hits(EntryKey(1)), 100);
      EXPECT_EQ(tcam.hits(EntryKey(2)), 50);
    }
    send(datagram(2001), 50);  // nothing filters any more
    EXPECT_EQ(unwanted.received(), 50);
  });
}

TEST_P(InterfaceTest, NamesInterfaceThatIsAbsent) {
  alone([] {
    try {
      XdpTcam const tcam("hardware", {.interface = "filter", .hook = GetParam()});
      ADD_FAILURE();
    } catch (std::runtime_error const& e) {
      EXPECT_THAT(e.what(), testing::StartsWith("the interface filter: "));
    }
  });
}

TEST_P(InterfaceTest, FiltersOnWhenTheAgentIsGone) {
  alone([] {
    makeCable();
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    XdpOptions const options{.interface = "filter", .hook = GetParam(), .positions = 64, .pins = dir.path()};
    Receiver const unwanted(2001);
    {
      XdpTcam tcam("hardware", options);
      tcam.write(entryOf(2, toPort(2001, Acl::ActionKind::Deny), 10), 10, 2);
    }
    send(datagram(2001), 50);
    EXPECT_EQ(unwanted.received(), 0);
    XdpTcam next("hardware", options);
    EXPECT_EQ(next.hits(EntryKey(2)), 50);
    send(datagram(2001), 50);
    EXPECT_EQ(unwanted.received(), 0);
    EXPECT_EQ(next.hits(EntryKey(2)), 100);
    next.detach();
    send(datagram(2001), 50);
    EXPECT_EQ(unwanted.received(), 50);
  });
}

// What comes through to the interface, seen behind XDP. Frames are known by their source address.
class Tap {
 public:
  Tap() {
    sockaddr_ll at = {};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_IP);
    at.sll_ifindex = static_cast<int>(::if_nametoindex("filter"));
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
    timeval const patience{0, 100'000};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  }
  ~Tap() { ::close(fd_); }
  Tap(Tap const&) = delete;
  Tap& operator=(Tap const&) = delete;
  static constexpr U8 sign = 0x06;  // first byte of the address; the last two are the number
  // The numbers that came, until none comes for a while.
  std::set<U32> came() const {
    std::set<U32> numbers;
    U8 got[2048];
    while (::recv(fd_, got, sizeof got, 0) > 14)
      if (got[6] == sign) numbers.insert(U32{got[10]} << 8 | got[11]);
    return numbers;
  }

 private:
  int const fd_ = ::socket(AF_PACKET, SOCK_RAW, 0);  // of no protocol until it is bound
};

TEST_P(CableTest, DecidesHeadersAsLinearOne) {
  alone([] {
    makeCable();
    std::mt19937_64 random(5);
    std::vector<Acl::Rule> rules(300);
    for (Acl::Rule& rule : rules) {
      rule = Acl::randomRule(random, 2);
      rule.action = {random() % 2 ? Acl::ActionKind::Permit : Acl::ActionKind::Deny, 0};
    }
    XdpTcam tcam("hardware", {.interface = "filter", .hook = GetParam(), .positions = 300, .permits = false});
    for (U32 ti = 0; ti < rules.size(); ++ti)
      ASSERT_EQ(tcam.write(entryOf(ti + 1, rules[ti], ti), ti, 1).kind, Kind::Done);
    Tap const tap;
    Sender const sender;
    U64 passed = 0, dropped = 0;
    for (U32 batch = 0; batch < 64; ++batch) {
      std::set<U32> wanted;
      for (U32 number = 0; number < 128; ++number) {
        Header const h = headerAround(rules[random() % rules.size()], random);
        auto const first = std::ranges::find_if(rules, [&h](auto const& rule) { return matches(rule, h); });
        bool const passes = first != rules.end() && first->action.kind == Acl::ActionKind::Permit;
        if (passes) wanted.insert(number);
        ++(passes ? passed : dropped);
        Bytes bytes = frame(h);
        bytes[6] = Tap::sign, bytes[10] = 0, bytes[11] = static_cast<U8>(number);
        sender.send(bytes);
      }
      ASSERT_EQ(tap.came(), wanted) << "batch " << batch;
    }
    EXPECT_GT(passed, 1000);
    EXPECT_GT(dropped, 1000);
  });
}

// One of the packets' ports has an entry that permits it, the other one the default verdict: the program's
// absence would let that through, an empty table would hold the other back.
TEST_P(InterfaceTest, ReplacesProgramUnderPackets) {
  alone([] {
    makeCable();
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    XdpOptions const options{
        .interface = "filter", .hook = GetParam(), .positions = 64, .permits = false, .pins = dir.path()};
    auto tcam = std::make_unique<XdpTcam>("hardware", options);
    tcam->write(entryOf(1, toPort(2000, Acl::ActionKind::Permit), 9), 9, 1);
    Receiver const wanted(2000), unwanted(2001);
    std::atomic<bool> stop = false;
    std::atomic<int> sent = 0, received = 0;
    std::thread sender([&] {
      while (!stop) {
        send(datagram(2000), 20);
        send(datagram(2001), 20);
        sent += 20;
        received += wanted.received(20);
      }
    });
    int generations = 0;
    while (sent < 4000 || generations < 20) {
      tcam = nullptr;
      tcam = std::make_unique<XdpTcam>("hardware", options);
      EXPECT_EQ(tcam->entries(), 1);
      ++generations;
    }
    stop = true;
    sender.join();
    EXPECT_EQ(received, sent);
    EXPECT_EQ(unwanted.received(), 0);
    EXPECT_EQ(tcam->hits(EntryKey(1)), sent);
    EXPECT_EQ(tcam->undecided(noEntryMatches), sent);
    tcam->detach();
  });
}

TEST_P(InterfaceTest, PinnedTableStaysAtItsHook) {
  alone([] {
    makeCable();
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    XdpOptions options{.interface = "filter", .hook = GetParam(), .positions = 64, .pins = dir.path()};
    { XdpTcam const tcam("hardware", options); }
    std::map<XdpHook, std::string> const names = {
        {XdpHook::Driver, "native"}, {XdpHook::Stack, "generic"}, {XdpHook::Tc, "tc"}};
    for (auto const& [hook, name] : names) {
      options.hook = hook;
      if (hook == GetParam()) {
        EXPECT_NO_THROW(XdpTcam("hardware", options));
        continue;
      }
      try {
        XdpTcam const tcam("hardware", options);
        ADD_FAILURE() << name;
      } catch (std::runtime_error const& e) {
        EXPECT_EQ(e.what(), dir.path() + ": its table is attached as " + names.at(GetParam()) + ", not as " +
                                name + "; detach it first");
      }
    }
    options.hook = GetParam();
    options.interface = "sender";
    EXPECT_THROW(XdpTcam("hardware", options), std::runtime_error);
  });
}

// A filter that accepts all, where the table's would be.
void attachTheirs() {
  bpf_insn accept[2] = {};
  accept[0].code = BPF_ALU64 | BPF_MOV | BPF_K;
  accept[1].code = BPF_JMP | BPF_EXIT;
  bpf_tc_hook hook = {};
  hook.sz = sizeof hook;
  hook.ifindex = static_cast<int>(::if_nametoindex("filter"));
  hook.attach_point = BPF_TC_INGRESS;
  bpf_tc_opts theirs = {};
  theirs.sz = sizeof theirs;
  theirs.handle = theirs.priority = 1;
  theirs.prog_fd = bpf_prog_load(BPF_PROG_TYPE_SCHED_CLS, "theirs", "GPL", accept, 2, nullptr);
  ASSERT_GE(theirs.prog_fd, 0);
  ASSERT_EQ(bpf_tc_hook_create(&hook), 0);
  ASSERT_EQ(bpf_tc_attach(&hook, &theirs), 0);
  ::close(theirs.prog_fd);
}

std::string thrownBy(std::function<void()> const& body) {
  try {
    body();
    return "";
  } catch (std::runtime_error const& e) {
    return e.what();
  }
}

TEST_F(KillTest, FilterOfSomebodyElseStays) {
  alone([] {
    makeCable();
    attachTheirs();
    XdpOptions const options{.interface = "filter", .hook = XdpHook::Tc, .positions = 64};
    std::string const said = "filter: somebody else's filter has priority 1 at tc ingress";
    EXPECT_EQ(thrownBy([&] { XdpTcam("hardware", options); }), said);
    EXPECT_EQ(thrownBy([&] { Hw::XdpProgram::detach(options); }), said);
    command("tc filter show dev filter ingress | grep -q theirs");
    command("tc filter del dev filter ingress");
    EXPECT_NO_THROW(XdpTcam("hardware", options));
  });
}

// A hook that an attempt failed at is not the table's.
TEST_F(KillTest, FailedAttachmentIsForgotten) {
  alone([] {
    makeCable();
    attachTheirs();
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    XdpOptions options{.interface = "filter", .hook = XdpHook::Tc, .positions = 64, .pins = dir.path()};
    EXPECT_THROW(XdpTcam("hardware", options), std::runtime_error);
    options.hook = XdpHook::Driver;
    EXPECT_NO_THROW(XdpTcam("hardware", options));
  });
}

INSTANTIATE_TEST_SUITE_P(Modes, CableTest, testing::Values(XdpHook::Driver, XdpHook::Stack),
                         [](auto const& p) { return p.param == XdpHook::Stack ? "Stack" : "Driver"; });

INSTANTIATE_TEST_SUITE_P(Hooks, InterfaceTest, testing::Values(XdpHook::Driver, XdpHook::Stack, XdpHook::Tc),
                         [](auto const& p) {
                           return p.param == XdpHook::Tc      ? "Tc"
                                  : p.param == XdpHook::Stack ? "Stack"
                                                              : "Driver";
                         });

constexpr U32 positions = 300;
constexpr U32 keys = 100;

// What an agent that will be killed has done, in memory that its parent sees.
struct Diary {
  struct Entry {
    U64 key, version;
  };
  Entry at[positions];  // as it was before the call; key 0: free
  U32 changing;         // the position of the call
  Entry becomes;        // what the call makes of it
  U64 calls;
};

// A rule that follows from key and version.
Acl::Rule ruleOf(U64 key, U64 version) {
  std::mt19937_64 random(key * 1000 + version);
  return Acl::randomRule(random, 2);
}

EntryConfig entryOf(Diary::Entry const& e, U32 ti) {
  return XdpTest::entryOf(e.key, ruleOf(e.key, e.version), ti, e.version);
}

void call(XdpTcam& tcam, Diary& diary, U32 ti, Diary::Entry const& becomes) {
  diary.changing = ti;
  diary.becomes = becomes;
  if (becomes.key != 0)
    tcam.write(entryOf(becomes, ti), ti, 1);
  else
    tcam.erase(EntryKey(diary.at[ti].key), ti, 1);
  diary.at[ti] = becomes;
  ++diary.calls;
}

// Adds, updates, moves and deletes without end.
[[noreturn]] void edit(XdpOptions const& options, Diary& diary, U64 seed) {
  std::mt19937_64 random(seed);
  XdpTcam tcam("hardware", options);
  for (;;) {
    U64 const key = 1 + random() % keys;
    U32 const to = static_cast<U32>(random() % positions);
    U32 from = positions;
    for (U32 ti = 0; ti < positions; ++ti)
      if (diary.at[ti].key == key) from = ti;
    U64 const version = from == positions ? 1 : diary.at[from].version + 1;
    if (from != positions && random() % 4 == 0) {
      call(tcam, diary, from, {});
    } else if (diary.at[to].key == 0 || to == from) {
      call(tcam, diary, to, {key, version});
      if (from != positions && from != to) call(tcam, diary, from, {});
    }
  }
}

using Contents = std::map<U32, EntryConfig>;

Contents contentsOf(XdpTcam& tcam) {
  Contents held;
  tcam.contents([&](U32 ti, EntryConfig const* entry) {
    ASSERT_TRUE(entry) << ti;
    held.emplace(ti, *entry);
  });
  return held;
}

Contents contentsOf(Diary const& diary) {
  Contents held;
  for (U32 ti = 0; ti < positions; ++ti)
    if (diary.at[ti].key != 0) held.emplace(ti, entryOf(diary.at[ti], ti));
  return held;
}

// Bits say what the entries say, and no more: they are those of a table that was written afresh.
void expectNoStaleBits(XdpTcam& tcam, Contents const& held) {
  XdpTcam fresh("hardware", {.positions = positions});
  for (auto const& [ti, entry] : held) fresh.write(entry, ti, 1);
  for (U32 field = 0; field < byteFields; ++field) {
    for (U32 word = 0; word < (positions + 63) / 64; ++word)
      ASSERT_EQ(std::memcmp(tcam.program().bits(word, field), fresh.program().bits(word, field), 2048), 0);
    ASSERT_EQ(std::memcmp(tcam.program().sums(0, field), fresh.program().sums(0, field), 2048), 0);
  }
}

void killOnce(XdpOptions const& options, Diary& diary, U64 seed) {
  pid_t const child = ::fork();
  if (child == 0) edit(options, diary, seed);
  ::usleep(20'000 + static_cast<useconds_t>(seed * 7919 % 10'000));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
}

TEST_F(KillTest, TableIsThatBeforeOrAfterTheCall) {
  alone([] {
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    XdpOptions const options{.positions = positions, .pins = dir.path()};
    void* const shared =
        ::mmap(nullptr, sizeof(Diary), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto& diary = *static_cast<Diary*>(shared);
    U64 cut = 0;
    for (U64 seed = 1; seed <= 60; ++seed) {
      killOnce(options, diary, seed);
      XdpTcam tcam("hardware", options);
      Contents const held = contentsOf(tcam);
      if (held != contentsOf(diary)) {
        diary.at[diary.changing] = diary.becomes;
        ++cut;
      }
      ASSERT_EQ(held, contentsOf(diary)) << "kill " << seed;
      expectNoStaleBits(tcam, held);
      // A key that was being moved is at one position again, as adoption would do it.
      std::map<U64, U32> places;
      for (auto const& [ti, entry] : held)
        if (auto const known = places.find(entry.key().value()); known == places.end())
          places.emplace(entry.key().value(), ti);
        else
          call(tcam, diary, ti, {});
    }
    EXPECT_GT(diary.calls, 1000);
    RecordProperty("killed inside a call, behind its store", static_cast<int>(cut));
    ::munmap(shared, sizeof(Diary));
  });
}

TEST_F(KillTest, PinnedTableOfAnotherSizeIsRefused) {
  alone([] {
    TestSupport::TempDir const dir;
    ASSERT_EQ(::mount("bpf", dir.path().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
    { XdpTcam const tcam("hardware", {.positions = 64, .pins = dir.path()}); }
    try {
      XdpTcam const tcam("hardware", {.positions = 128, .pins = dir.path()});
      ADD_FAILURE();
    } catch (std::runtime_error const& e) {
      EXPECT_EQ(e.what(), dir.path() + ": holds a table of another shape; detach it first");
    }
  });
}

}  // namespace
}  // namespace XdpTest
