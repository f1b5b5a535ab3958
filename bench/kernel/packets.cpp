// SPDX-License-Identifier: Apache-2.0
#include "bench/kernel/packets.h"

#include <bpf/bpf.h>
#include <fmt/format.h>
#include <sched.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "apps/vantrel/acl/parse.h"
#include "bench/peers/workload.h"
#include "bench/report/report.h"
#include "tests/apps/acl_generator.h"

namespace Bench {

using XdpTest::Bytes;
using XdpTest::Header;

namespace {

constexpr std::size_t mostFrames = 16;
constexpr U32 runs = 3;
constexpr double secondsARun = 0.002;

template <class T, class Random>
T valueIn(Acl::Ternary<T> const& t, Random& random) {
  return static_cast<T>(t.value | (static_cast<T>(random()) & static_cast<T>(~t.mask)));
}

template <class Random>
U16 portIn(Acl::Range const& range, Random& random) {
  return static_cast<U16>(range.lo + random() % (range.hi - range.lo + 1U));
}

template <class Random>
Header headerIn(Acl::Rule const& r, Random& random) {
  Header h;
  h.source = valueIn(r.source, random);
  h.destination = valueIn(r.destination, random);
  h.sourcePort = portIn(r.sourcePort, random);
  h.destinationPort = portIn(r.destinationPort, random);
  h.flags = valueIn(r.flags, random);
  h.protocol = r.protocol.mask == 0 ? XdpTest::tcp : valueIn(r.protocol, random);
  return XdpTest::real(h);
}

// With the interface's own address, which is all zero, and a checksum: the stack takes it.
Bytes forLoopback(Header const& h) {
  Bytes frame = XdpTest::withChecksum(XdpTest::frame(h));
  std::fill_n(frame.begin(), 6, U8{0});
  return frame;
}

// Seconds that the packets took. The flag makes them go on to the network stack.
double seconds(int program, Bytes const& frame, U32 packets, U32 flags) {
  bpf_test_run_opts how = {};
  how.sz = sizeof how;
  how.data_in = frame.data();
  how.data_size_in = static_cast<U32>(frame.size());
  how.repeat = static_cast<int>(packets);
  how.flags = flags;
  if (int const error = bpf_prog_test_run_opts(program, &how); error != 0)
    throw std::runtime_error(fmt::format("a test run failed: {}", std::strerror(-error)));
  return how.duration * 1e-9 * packets;
}

double fastest(int program, Bytes const& frame, U32 flags) {
  U32 packets = brief() ? 64 : 1024;
  double took = seconds(program, frame, packets, flags);
  while (took < secondsARun && !brief()) took = seconds(program, frame, packets *= 2, flags);
  for (U32 run = 1; run < runs; ++run) took = std::min(took, seconds(program, frame, packets, flags));
  return took / packets;
}

double mean(int program, std::vector<Bytes> const& frames, U32 flags) {
  double sum = 0;
  for (Bytes const& frame : frames) sum += fastest(program, frame, flags);
  return sum * 1e9 / static_cast<double>(frames.size());
}

}  // namespace

void ownNetwork() {
  static int const error = ::unshare(CLONE_NEWNET) != 0            ? errno
                           : std::system("ip link set lo up") == 0 ? 0
                                                                   : ENOENT;
  if (error != 0)
    throw std::runtime_error(fmt::format("skipped: no network namespace: {}", std::strerror(error)));
}

std::vector<Acl::Rule> rulesOf(std::string const& set) {
  for (auto const& [name, path] : ruleSets())
    if (name == set) return Acl::parseFile(path);
  if (set.find_first_not_of("0123456789") != std::string::npos)
    throw std::runtime_error(fmt::format("skipped: no rule set {}", set));
  return Acl::generateRules(7, std::stoul(set));
}

std::vector<Bytes> framesFor(std::vector<Acl::Rule> const& rules) {
  std::mt19937_64 random(11);
  std::size_t const count = std::min(mostFrames, rules.size());
  std::vector<Bytes> frames;
  frames.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    frames.push_back(forLoopback(headerIn(rules[(2 * i + 1) * rules.size() / (2 * count)], random)));
  return frames;
}

int passingProgram() {
  static int const program = [] {
    bpf_insn const instructions[] = {
        {.code = BPF_ALU64 | BPF_MOV | BPF_K, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = XDP_PASS},
        {.code = BPF_JMP | BPF_EXIT, .dst_reg = 0, .src_reg = 0, .off = 0, .imm = 0}};
    return bpf_prog_load(BPF_PROG_TYPE_XDP, "passing", "Apache-2.0", instructions, 2, nullptr);
  }();
  if (program < 0)
    throw std::runtime_error(fmt::format("skipped: no program can be loaded: {}", std::strerror(-program)));
  return program;
}

double costOf(int program, std::vector<Bytes> const& frames) { return mean(program, frames, 0); }

double costInStack(std::vector<Bytes> const& frames) {
  return mean(passingProgram(), frames, BPF_F_TEST_XDP_LIVE_FRAMES);
}

}  // namespace Bench
