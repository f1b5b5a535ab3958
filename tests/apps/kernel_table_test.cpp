// SPDX-License-Identifier: Apache-2.0
// vantreld with a table in the kernel: in a network namespace and a BPF file system of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "tests/hw/xdp/packets.h"
#include "tests/support/namespaces.h"
#include "tests/support/site.h"

using namespace TestSupport;
using testing::HasSubstr;

namespace {

class KernelTableTest : public Site {
 protected:
  void SetUp() override {
    if (int const error = ownNetworkAndMounts(); error != 0)
      GTEST_SKIP() << "no network namespace can be made: " << std::strerror(error);
    ASSERT_EQ(std::system("ip link add sender type veth peer name filter address 02:00:00:00:00:01 &&"
                          "ip address add 192.0.2.1/24 dev filter && ip link set sender up &&"
                          "ip link set filter up"),
              0);
    std::filesystem::create_directories(pins());
    ASSERT_EQ(::mount("bpf", pins().c_str(), "bpf", 0, nullptr), 0) << std::strerror(errno);
  }
  void TearDown() override { ::umount2(pins().c_str(), MNT_DETACH); }
  static std::string program() { return VANTREL_BIN_DIR "/vantreld"; }
  std::string pins() const { return dir / "pins"; }
  std::set<std::string> pinned() const {
    std::set<std::string> names;
    for (auto const& entry : std::filesystem::directory_iterator(pins()))
      names.insert(entry.path().filename());
    return names;
  }
  std::vector<std::string> flags() const {
    return {"--hw", "xdp:filter,generic", "--size", "4096", "--hw-pin", pins(), "--keep"};
  }
};

// Sends a datagram through the filter and waits for it, again and again; its rule is always in the table.
class Stream {
 public:
  Stream() {
    sockaddr_in at = {};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    EXPECT_EQ(::bind(in_, reinterpret_cast<sockaddr*>(&at), sizeof at), 0) << std::strerror(errno);
    timeval const patience{2, 0};
    ::setsockopt(in_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    to_.sll_family = AF_PACKET;
    to_.sll_ifindex = static_cast<int>(::if_nametoindex("sender"));
    thread_ = std::thread([this] { run(); });
  }
  ~Stream() {
    stop();
    ::close(in_);
    ::close(out_);
  }
  void stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  U64 sent() const { return sent_; }
  U64 received() const { return received_; }

  static constexpr U16 port = 2000;
  // The rule that lets it through; the same as the last one of many.
  static Acl::Rule rule() {
    Acl::Rule mine;
    mine.destination = {0xC0000201, ~U32{0}};
    mine.protocol = {XdpTest::udp, 0xFF};
    mine.destinationPort = {port, port};
    return mine;
  }
  static std::vector<Acl::Rule> rules() {
    std::vector<Acl::Rule> rules = Acl::generateRules(5, 150);
    rules.push_back(rule());
    return rules;
  }

 private:
  void run() {
    auto const frame = XdpTest::withChecksum(XdpTest::frame({.source = 0xC0000209,
                                                             .destination = 0xC0000201,
                                                             .sourcePort = 1000,
                                                             .destinationPort = port,
                                                             .protocol = XdpTest::udp}));
    for (char buffer[64]; !stop_; ++sent_) {
      ::sendto(out_, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to_), sizeof to_);
      received_ += ::recv(in_, buffer, sizeof buffer, 0) >= 0;
    }
  }
  int const in_ = ::socket(AF_INET, SOCK_DGRAM, 0), out_ = ::socket(AF_PACKET, SOCK_RAW, 0);
  sockaddr_ll to_ = {};
  std::atomic<bool> stop_ = false;
  std::atomic<U64> sent_ = 0, received_ = 0;
  std::thread thread_;
};

TEST_F(KernelTableTest, RestartWritesNothing) {
  start(flags());
  run(loading(5, 200, {"--size", "4096"}));
  EXPECT_EQ(hardware("entries"), "200");
  EXPECT_EQ(hardware("writes"), "200");
  for (int const signal : {SIGTERM, SIGKILL}) {
    end(signal);
    start(flags());
    EXPECT_EQ(hardware("entries"), "200");
    EXPECT_EQ(hardware("writes"), "0");
  }
}

TEST_F(KernelTableTest, DetachLeavesNothing) {
  auto const before = pinned();
  start(flags());
  end(SIGTERM);
  EXPECT_TRUE(pinned().contains("link"));
  Process detach(
      {program(), "--dir", tables(), "--hw", "xdp:filter,generic", "--hw-pin", pins(), "--hw-detach"},
      dir / "detach.out", dir / "detach.err");
  EXPECT_EQ(detach.wait(), 0) << detach.err();
  EXPECT_EQ(pinned(), before);
  EXPECT_NE(std::system("ip -d link show filter | grep -q prog/xdp"), 0);
}

TEST_F(KernelTableTest, ShowsTableAndHits) {
  start({"--hw", "xdp:filter,native,default=deny", "--size", "1024"});
  std::ofstream(dir / "rules", std::ios::binary) << Acl::textOf(Stream::rules());
  ASSERT_EQ(run({"load", dir / "rules", "--wait", "--size", "1024"}).status, 0);
  U64 sent = 0;
  {
    Stream stream;
    while (stream.received() < 100) std::this_thread::yield();
    stream.stop();
    sent = stream.sent();
  }
  auto const shown = nlohmann::json::parse(said({"hw", "show", "--json"}));
  EXPECT_EQ(shown.at("mode"), "native");
  EXPECT_EQ(shown.at("interface"), "filter");
  EXPECT_EQ(shown.at("default"), "deny");
  EXPECT_EQ(shown.at("positions"), 1024);
  EXPECT_EQ(shown.at("entries"), Stream::rules().size());
  EXPECT_GT(shown.at("memory"), 1024 * 600);
  EXPECT_THAT(said({"hw", "show"}), HasSubstr("interface       filter\nmode            native\n"));
  std::istringstream lines(said({"hw", "hits", "--json"}));
  U64 entries = 0, hits = 0, before = 0;
  std::string key;
  for (std::string line; std::getline(lines, line); ++entries) {
    auto const entry = nlohmann::json::parse(line);
    EXPECT_TRUE(entries == 0 || entry.at("position") > before);
    before = entry.at("position");
    hits += entry.at("hits").get<U64>();
    if (entry.at("rule") != Acl::text(Stream::rule())) continue;
    EXPECT_EQ(entry.at("hits"), sent);
    key = entry.at("key").dump();
  }
  EXPECT_EQ(entries, Stream::rules().size());
  EXPECT_EQ(hits, sent);
  EXPECT_EQ(nlohmann::json::parse(said({"hw", "hits", key, "--json"})).at("hits"), sent);
  EXPECT_EQ(run({"hw", "hits", "99999999"}).status, 1);
}

TEST_F(KernelTableTest, CommandDetachesTable) {
  start(flags());
  EXPECT_EQ(std::system("ip -d link show filter | grep -q prog/xdp"), 0);
  EXPECT_THAT(run({"hw", "detach"}).err, HasSubstr("give --yes"));
  EXPECT_EQ(said({"hw", "detach", "--yes"}), "nothing filters any more");
  EXPECT_THAT(run({"show"}).out, HasSubstr("NOT HEALTHY: the table in the kernel is detached"));
  EXPECT_NE(std::system("ip -d link show filter | grep -q prog/xdp"), 0);
  EXPECT_FALSE(pinned().contains("link"));
  EXPECT_THAT(said({"hw", "show"}), HasSubstr("filter, detached"));
}

TEST_F(KernelTableTest, CommandNamesOtherHardware) {
  start();
  for (char const* what : {"show", "hits", "detach"}) {
    std::vector<std::string> words{"hw", what};
    if (words.back() == "detach") words.emplace_back("--yes");
    Ended const ended = run(words);
    EXPECT_EQ(ended.status, 1);
    EXPECT_THAT(ended.err, HasSubstr("drives no table in the kernel"));
  }
}

TEST_F(KernelTableTest, NeedsThreeCapabilities) {
  auto const begin = [&](std::string const& capabilities) {
    return Process({"/usr/bin/setpriv", "--bounding-set", "-all," + capabilities, program(), "--dir",
                    tables(), "--hw", "xdp:filter,generic"},
                   dir / "out", dir / "err");
  };
  Process serves = begin("+bpf,+perfmon,+net_admin");
  awaitReady(serves);
  serves.signal(SIGTERM);
  EXPECT_EQ(serves.wait(), 0) << serves.err();
  for (char const* few : {"+perfmon,+net_admin", "+bpf,+net_admin", "+bpf,+perfmon"}) {
    Process refused = begin(few);
    EXPECT_EQ(refused.wait(), 1) << few;
    EXPECT_THAT(refused.err(), HasSubstr("CAP_BPF, CAP_PERFMON and CAP_NET_ADMIN are needed")) << few;
  }
}

TEST_F(KernelTableTest, DetachFindsTheHookByItself) {
  start({"--hw", "xdp:filter,tc", "--size", "64", "--hw-pin", pins(), "--keep"});
  end(SIGTERM);
  EXPECT_EQ(std::system("tc filter show dev filter ingress | grep -q atTc"), 0);
  auto const detach = [&](std::vector<std::string> argv) {
    argv.insert(argv.end(),
                {program(), "--dir", tables(), "--hw", "xdp:filter", "--hw-pin", pins(), "--hw-detach"});
    return Process(argv, dir / "out", dir / "err");
  };
  Process refused = detach({"/usr/bin/setpriv", "--bounding-set", "-all"});
  EXPECT_EQ(refused.wait(), 1) << "without the right to do so: " << refused.out();
  EXPECT_TRUE(pinned().contains("shape"));
  Process done = detach({});
  EXPECT_EQ(done.wait(), 0) << done.err();
  EXPECT_FALSE(pinned().contains("shape"));
  EXPECT_NE(std::system("tc filter show dev filter ingress | grep -q atTc"), 0);
}

TEST_F(KernelTableTest, WrongOptionsAreNamed) {
  for (auto const& [option, said] : std::map<std::string, std::string>{
           {"xdp:", "expected sim, null or xdp:INTERFACE"},
           {"other", "expected sim, null or xdp:INTERFACE"},
           {"xdp:filter,fast", "found \"fast\""},
       }) {
    Process refused({program(), "--dir", tables(), "--hw", option}, dir / "out", dir / "err");
    EXPECT_EQ(refused.wait(), 2);
    EXPECT_THAT(refused.err(), HasSubstr(said));
  }
  Process keeps({program(), "--dir", tables(), "--hw", "xdp:filter", "--keep"}, dir / "out", dir / "err");
  EXPECT_EQ(keeps.wait(), 2);
  EXPECT_THAT(keeps.err(), HasSubstr("needs --hw-pin"));
}

TEST_F(KernelTableTest, LosesNoPacketWhileRulesAreEdited) {
  start({"--hw", "xdp:filter,native,default=deny", "--size", "4096"});
  std::vector<Acl::Rule> rules = Stream::rules();
  auto const load = [&] {
    std::ofstream(dir / "rules", std::ios::binary) << Acl::textOf(rules);
    Ended const ended = run({"load", dir / "rules", "--wait", "--size", "4096"});
    EXPECT_EQ(ended.status, 0) << ended.err;
  };
  load();
  Stream stream;
  std::mt19937_64 random(3);
  for (int round = 0; round < 12; ++round) {
    if (round % 3 == 0)
      std::ranges::reverse(rules);
    else
      std::ranges::rotate(rules, rules.begin() + static_cast<std::ptrdiff_t>(random() % rules.size()));
    load();
  }
  stream.stop();
  EXPECT_GT(stream.sent(), 1000);
  EXPECT_EQ(stream.received(), stream.sent());
  EXPECT_EQ(hardware("unmatched"), "0");
  EXPECT_GT(std::stoull(hardware("writes")), 1000);
}

}  // namespace
