// SPDX-License-Identifier: Apache-2.0
// Any entry and any packet: 40 bytes are an entry's data words, the others a frame. The table in the kernel
// refuses the entry or takes it; then it gives the frame the verdict, and counts the reason, that a plain
// parser and the rule say, at XDP and at tc.
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include "tests/hw/xdp/test_run.h"

namespace {

using Frame = std::span<U8 const>;

constexpr std::size_t entryBytes = Acl::ruleWords * sizeof(U64);
// That a test run takes: at tc it wants the header of IP, whatever its version, behind that of Ethernet.
constexpr std::size_t leastFrame = 15, leastFrameAtTc = 54, mostFrame = 1500;

void require(bool holds) {
  if (!holds) std::abort();
}

struct Parsed {
  int reason;  // `reasons` for a packet that the table describes
  XdpTest::Header header;
};

U32 at16(Frame f, std::size_t i) { return U32{f[i]} << 8 | f[i + 1]; }
U32 at32(Frame f, std::size_t i) { return at16(f, i) << 16 | at16(f, i + 2); }

bool hasPorts(U8 protocol) {
  for (int const p : {6, 17, 33, 132, 136})
    if (p == protocol) return true;
  return false;
}

Parsed parseIp(Frame ip) {
  if (ip.size() < 20 || ip[0] >> 4 != 4) return {malformed, {}};
  std::size_t const header = (ip[0] & 15U) * 4U, total = at16(ip, 2);
  if (header < 20 || total < header || ip.size() < header) return {malformed, {}};
  if (at16(ip, 6) & 0x3FFF) return {fragment, {}};
  XdpTest::Header h{at32(ip, 12), at32(ip, 16), 0, 0, 0, ip[9]};
  if (!hasPorts(h.protocol)) return {reasons, h};
  std::size_t const wanted = header + (h.protocol == 6 ? 14 : 4);
  if (total < wanted || ip.size() < wanted) return {malformed, {}};
  h.sourcePort = static_cast<U16>(at16(ip, header));
  h.destinationPort = static_cast<U16>(at16(ip, header + 2));
  if (h.protocol == 6) h.flags = at16(ip, header + 12) & 0x0FFF;
  return {reasons, h};
}

Parsed parse(Frame frame) {
  std::size_t at = 12;
  for (int tags = 0; tags < 2 && (at16(frame, at) == 0x8100 || at16(frame, at) == 0x88A8); ++tags) {
    at += 4;
    if (frame.size() < at + 2) return {malformed, {}};
  }
  if (at16(frame, at) == 0x0806) return {arp, {}};
  if (at16(frame, at) != 0x0800) return {notIpv4, {}};
  return parseIp(frame.subspan(at + 2));
}

class Table {
 public:
  explicit Table(Hw::XdpHook hook)
      : hook_(hook), tcam_("hardware", {.hook = hook, .positions = 64, .permits = false}) {}

  void expectAsPlain(Vantrel::EntryConfig const& entry, std::optional<Acl::Rule> const& rule, Frame frame) {
    bool const canMark = hook_ == Hw::XdpHook::Tc;
    bool const isTaken = rule && (canMark || rule->action.kind != Acl::ActionKind::Mark);
    auto const outcome = tcam_.write(entry, position, 1).kind;
    require((outcome == Hw::Outcome::Kind::Done) == isTaken);
    Parsed parsed = parse(frame);
    bool const isHit = parsed.reason == reasons && isTaken && XdpTest::matches(*rule, parsed.header);
    if (parsed.reason == reasons && !isHit) parsed.reason = noEntryMatches;
    auto const before = counts();
    bool const passes = XdpTest::passes(tcam_, hook_, {frame.begin(), frame.end()});
    require(passes == (isHit ? rule->action.kind != Acl::ActionKind::Deny : parsed.reason == arp));
    auto const after = counts();
    for (int r = 0; r < reasons; ++r) require(after[r] - before[r] == (r == parsed.reason ? 1 : 0));
    require(tcam_.hits(entry.key()) == (isHit ? 1 : 0));
    tcam_.erase(entry.key(), position, 2);
    require(tcam_.entries() == 0);
  }

 private:
  static constexpr U32 position = 7;
  std::array<U64, reasons> counts() const {
    std::array<U64, reasons> all;
    for (U32 r = 0; r < reasons; ++r) all[r] = tcam_.undecided(static_cast<Reason>(r));
    return all;
  }
  Hw::XdpHook const hook_;
  Hw::XdpTcam tcam_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  static std::string const missing = XdpTest::missing();
  if (!missing.empty()) {
    std::fprintf(stderr, "skipped: %s\n", missing.c_str());
    std::_Exit(77);
  }
  static Table xdp(Hw::XdpHook::Driver), tc(Hw::XdpHook::Tc);
  if (n < entryBytes + leastFrame || n > entryBytes + mostFrame) return -1;
  std::array<U64, Acl::ruleWords> words;
  std::memcpy(words.data(), bytes, entryBytes);
  auto const rule = Acl::decode(words);
  Vantrel::EntryConfig entry(Vantrel::EntryKey(1), Vantrel::OpId(1 << 16), 1, 0, 1);
  for (U32 i = 0; i < words.size(); ++i) entry.dataIs(Vantrel::DataKey(i), words[i]);
  Frame const frame(bytes + entryBytes, n - entryBytes);
  xdp.expectAsPlain(entry, rule, frame);
  if (frame.size() >= leastFrameAtTc) tc.expectAsPlain(entry, rule, frame);
  return 0;
}
