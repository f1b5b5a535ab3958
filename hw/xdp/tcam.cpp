// SPDX-License-Identifier: Apache-2.0
// How the table is changed under look-ups that are not atomic; testing/hw/drain.pml is the model.
//
//   position     3          4          5
//   refs      | slot 7 |    0     | slot 2 |      a look-up passes them from left to right
//
// A look-up reads positions one after another. While an entry moves from 5 to 3, one that passed 3 before the
// entry was there, and comes to 5 when it is gone, sees it nowhere: make-before-break is not enough. So each
// change is a single store to refs, and the next one comes when all look-ups of before have ended (drain()).
// Then each look-up overlaps at most one store S. Of all positions only that of S differs between the table
// before S and the one after, and the look-up reads its reference once: it equals one before or one after S.
//
// What surrounds the store does not show:
//   - A record is written before a reference to it is stored, and written again after the last reference is
//     gone and drained.
//   - Bits only filter. Those of a new match are set before S, those of the old one cleared after S and its
//     drain. A look-up that read a row before the bits were set does not examine the position: for a packet
//     that only the new match wants that is the table before S, for others the old bits are there. One that
//     reads a row after they were cleared began after S: the reference would have told it the same.
//
// The drain is Dekker's: the writer stores, fences and reads the epochs; a look-up adds itself to its CPU's
// epoch by an atomic that orders, and then reads. Either the writer sees it run and waits until the epoch
// changes, or the look-up sees the store. When the epoch changes all its loads are done: the second addition
// orders them, and the writer reads it with acquire. No order is asked of the processor but those: a record
// is stored before its reference by release, and a look-up's loads depend on one another from bit to
// reference to record.
//
// That takes it that look-ups of a CPU come one after another. On a real-time kernel one may preempt another.
// Then the drain is a grace period of RCU: every program runs in a read-side critical section, and membarrier
// returns when each that had begun has ended, with all its loads. It takes milliseconds, so it is used where
// the kernel says that it is a real-time one, and from the moment on at which a CPU's look-ups interleave.
// That moment is not missed. Two that run at once are in the epoch. One that began behind another and has
// ended meanwhile, so that the epoch changed for it, has said so before it ended. And a CPU that was seen
// without look-ups is drained whatever happened there.
//
// Killed between any two steps, an agent leaves a table that is whole: references tell all. The next one
// clears the bits that were set in vain and takes slots and counters that nothing refers to.
#include "hw/xdp/tcam.h"

#include <emmintrin.h>
#include <fmt/format.h>
#include <linux/membarrier.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <stdexcept>

#include "ostra/type_info.h"

namespace Hw {

using Kind = Outcome::Kind;
using Acl::Rule;

namespace {

constexpr U32 rowValues = 256;

// The values of one byte that a rule admits.
struct ByteMatch {
  U8 value = 0, mask = 0;
  U8 low = 0, high = 0xFF;
  bool matches(U32 v) const { return (v & mask) == value && low <= v && v <= high; }
};
using ByteMatches = std::array<ByteMatch, byteFields>;

template <class T>
void ternaryBytes(ByteMatches& out, U32 first, Acl::Ternary<T> const& t) {
  for (U32 i = 0; i < sizeof(T); ++i) {
    U32 const shift = 8 * (U32{sizeof(T)} - 1 - i);
    out[first + i] = {static_cast<U8>(t.value >> shift), static_cast<U8>(t.mask >> shift)};
  }
}

// The lower byte is bounded only when the upper one has one value.
void rangeBytes(ByteMatches& out, U32 first, Acl::Range const& r) {
  out[first] = {0, 0, static_cast<U8>(r.lo >> 8), static_cast<U8>(r.hi >> 8)};
  if (r.lo >> 8 == r.hi >> 8) out[first + 1] = {0, 0, static_cast<U8>(r.lo), static_cast<U8>(r.hi)};
}

ByteMatches bytesOf(Rule const& rule) {
  ByteMatches out;
  ternaryBytes(out, sourceByte, rule.source);
  ternaryBytes(out, destinationByte, rule.destination);
  rangeBytes(out, sourcePortByte, rule.sourcePort);
  rangeBytes(out, destinationPortByte, rule.destinationPort);
  ternaryBytes(out, flagsByte, rule.flags);
  ternaryBytes(out, protocolByte, rule.protocol);
  return out;
}

std::atomic_ref<U64> shared(U64& word) { return std::atomic_ref<U64>(word); }

// Only this process writes these words, so a store is enough.
void set(U64& word, U64 bits) { shared(word).store(word | bits, std::memory_order_release); }
void clear(U64& word, U64 bits) { shared(word).store(word & ~bits, std::memory_order_release); }

Rule ruleOf(TcamRecord const& record) {
  std::array<U64, entryWords> words;
  std::ranges::copy(record.words, words.begin());
  return Acl::decode(words).value();
}

bool isRule(TcamRecord const& record) {
  std::array<U64, entryWords> words;
  std::ranges::copy(record.words, words.begin());
  return Acl::decode(words).has_value() && record.tableIndexes <= mostTableIndexes;
}

int membarrier(int command) { return static_cast<int>(::syscall(SYS_membarrier, command, 0U, 0)); }

// The command returns at once when one CPU is online: it takes it that nothing else runs. A look-up that was
// preempted does.
bool hasGracePeriods() {
  int const commands = membarrier(MEMBARRIER_CMD_QUERY);
  return commands > 0 && (commands & MEMBARRIER_CMD_GLOBAL) && ::sysconf(_SC_NPROCESSORS_ONLN) > 1;
}

bool isRealTime() {
  int says = 0;
  std::ifstream("/sys/kernel/realtime") >> says;
  return says == 1;
}

Vantrel::EntryConfig entryOf(TcamRecord const& r) {
  Vantrel::EntryConfig entry(Vantrel::EntryKey(r.key), Vantrel::OpId(r.opId), r.handle, r.group, r.priority);
  for (U32 i = 0; i < r.tableIndexes; ++i) entry.tableIndexIs(Vantrel::TableKey(i), r.tableIndex[i]);
  for (U32 i = 0; i < entryWords; ++i) entry.dataIs(Vantrel::DataKey(i), r.words[i]);
  return entry;
}

}  // namespace

Ostra::TypeInfo const& XdpTcam::staticType() {
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<XdpTcam>("Hw::XdpTcam")
                                          .attribute("writes", &XdpTcam::writes)
                                          .attribute("entries", &XdpTcam::entries)
                                          .attribute("unmatched", &XdpTcam::unmatched)
                                          .attribute("fragments", &XdpTcam::fragments)
                                          .attribute("malformed", &XdpTcam::malformedPackets)
                                          .attribute("notIpv4", &XdpTcam::otherProtocols)
                                          .attribute("gracePeriods", &XdpTcam::gracePeriods)
                                          .attribute("arp", &XdpTcam::arpPackets)
                                          .attribute("mode", &XdpTcam::mode)
                                          .attribute("interface", &XdpTcam::interface)
                                          .attribute("attached", &XdpTcam::attached)
                                          .attribute("default", &XdpTcam::otherwise)
                                          .attribute("positions", &XdpTcam::positions)
                                          .attribute("memory", &XdpTcam::memory)
                                          .operation("entriesFrom", &XdpTcam::entriesFrom)
                                          .operation("detach", &XdpTcam::detach);
  return type;
}

XdpTcam::XdpTcam(std::string name, XdpOptions const& options)
    : XdpTcam(std::move(name), options, isRealTime(), hasGracePeriods()) {}

XdpTcam::XdpTcam(std::string name, XdpOptions const& options, bool mayInterleave, bool hasGracePeriods)
    : Entity(std::move(name)),
      mayInterleave_(mayInterleave),
      hasGracePeriods_(hasGracePeriods),
      program_((refuseUnsafe(), options)),
      canMark_(options.hook == XdpHook::Tc),
      attached_(!options.interface.empty()) {
  takeOver();
}

// Before anything is loaded.
void XdpTcam::refuseUnsafe() const {
  if (mayInterleave_ && !hasGracePeriods_)
    throw std::runtime_error(
        "packets of one CPU may preempt one another on this real-time kernel, and membarrier cannot wait "
        "for them: it needs two CPUs, and a kernel that was not started with nohz_full");
}

Outcome XdpTcam::write(EntryConfig const& entry, U32 ti, U64) {
  scalarIs("writes", writes_, writes_ + 1, &Notifiee::onWrites);
  auto const rule = Acl::decode(entry.dataWords().elements());
  if (auto const why = fault(entry, rule, ti)) return {Kind::Refused, *why};
  if (freeSlots_.empty()) return {Kind::Again, "each slot is in use"};
  U32 const slot = freeSlots_.back();
  freeSlots_.pop_back();
  record(slot, entry, *rule, counterFor(entry.key()));
  U64 const old = refAt(ti);
  setBits(ti, *rule);
  refer(ti, slot + U64{1});
  drain();
  if (old != 0) {
    keepBits(ti, &*rule);
    release(static_cast<U32>(old - 1));
  }
  return {};
}

Outcome XdpTcam::erase(EntryKey const&, U32 ti, U64) {
  scalarIs("writes", writes_, writes_ + 1, &Notifiee::onWrites);
  if (ti >= program_.positions()) return {};
  U64 const old = refAt(ti);
  if (old == 0) return {};
  bool const sound = isSound(old);
  refer(ti, 0);
  drain();
  keepBits(ti, nullptr);
  if (sound) release(static_cast<U32>(old - 1));
  return {};
}

std::optional<std::string> XdpTcam::fault(EntryConfig const& entry, std::optional<Rule> const& rule,
                                          U32 ti) const {
  if (ti >= program_.positions())
    return fmt::format("position {} is beyond the last one, {}", ti, program_.positions() - 1);
  if (!rule) return fmt::format("the data of key {} is no packet filter rule", entry.key().value());
  if (rule->action.kind == Acl::ActionKind::Mark && !canMark_) return "packets can be marked at tc only";
  return std::nullopt;
}

U32 XdpTcam::counterFor(EntryKey const& key) {
  auto const known = places_.find(key);
  if (known != places_.end()) {
    ++known->second.positions;
    return known->second.counter;
  }
  U32 const counter = freeCounters_.back();
  freeCounters_.pop_back();
  for (U32 cpu = 0; cpu < program_.cpuCount(); ++cpu) shared(program_.hits(cpu, counter)).store(0);
  places_.emplace(key, Place{counter, 1});
  return counter;
}

void XdpTcam::record(U32 slot, EntryConfig const& entry, Rule const& rule, U32 counter) {
  TcamRecord& r = program_.records()[slot];
  r = {};
  r.source = rule.source.value, r.sourceMask = rule.source.mask;
  r.destination = rule.destination.value, r.destinationMask = rule.destination.mask;
  r.sourcePortLow = rule.sourcePort.lo, r.sourcePortHigh = rule.sourcePort.hi;
  r.destinationPortLow = rule.destinationPort.lo, r.destinationPortHigh = rule.destinationPort.hi;
  r.flags = rule.flags.value, r.flagsMask = rule.flags.mask;
  r.protocol = rule.protocol.value, r.protocolMask = rule.protocol.mask;
  r.action = static_cast<U16>(rule.action.kind), r.mark = rule.action.argument;
  r.counter = counter;
  r.key = entry.key().value(), r.opId = entry.opId().value();
  r.handle = entry.hdl(), r.priority = entry.prio(), r.group = entry.pg();
  r.tableIndexes = entry.tableIndexs();
  std::ranges::copy(entry.tableIndexes().elements(), r.tableIndex);
  std::ranges::copy(entry.dataWords().elements(), r.words);
}

U64 XdpTcam::refAt(U32 ti) const { return program_.refs()[ti]; }

// The store that look-ups see.
void XdpTcam::refer(U32 ti, U64 ref) { shared(program_.refs()[ti]).store(ref, std::memory_order_release); }

void XdpTcam::setBits(U32 ti, Rule const& rule) {
  ByteMatches const bytes = bytesOf(rule);
  U32 const word = ti / 64;
  for (U32 field = 0; field < byteFields; ++field)
    for (U32 v = 0; v < rowValues; ++v)
      if (bytes[field].matches(v)) {
        set(program_.bits(word, field)[v], U64{1} << ti % 64);
        set(program_.sums(word / 64, field)[v], U64{1} << word % 64);
      }
}

// Clears the position's bits but for those of the rule; null: all.
void XdpTcam::keepBits(U32 ti, Rule const* rule) {
  ByteMatches const bytes = rule ? bytesOf(*rule) : ByteMatches{};
  U32 const word = ti / 64;
  for (U32 field = 0; field < byteFields; ++field)
    for (U32 v = 0; v < rowValues; ++v) {
      if (rule && bytes[field].matches(v)) continue;
      U64& row = program_.bits(word, field)[v];
      if ((row >> ti % 64 & 1) == 0) continue;
      clear(row, U64{1} << ti % 64);
      if (row == 0) clear(program_.sums(word / 64, field)[v], U64{1} << word % 64);
    }
}

// No look-up reads the slot any more.
void XdpTcam::release(U32 slot) {
  auto const place = places_.find(EntryKey(program_.records()[slot].key));
  if (--place->second.positions == 0) {
    freeCounters_.push_back(place->second.counter);
    places_.erase(place);
  }
  freeSlots_.push_back(slot);
}

void XdpTcam::drain() {
  std::atomic_thread_fence(std::memory_order_seq_cst);
  if (!mayInterleave_ && std::ranges::all_of(program_.cpus(), endsInTurn)) return;
  mayInterleave_ = true;
  if (hasGracePeriods_)
    awaitGracePeriod();
  else
    std::ranges::for_each(program_.cpus(), awaitQuiet);
}

// Waits for the look-up that runs on the CPU. False when look-ups interleave there: then it may still run.
bool XdpTcam::endsInTurn(TcamCpu& cpu) {
  std::atomic_ref const epoch(cpu.epoch);
  auto const seen = epoch.load(std::memory_order_acquire);
  auto now = seen;
  for (U32 turn = 1; now == seen && (seen & runningLookUps) == 1; ++turn) {
    turn % 1024 == 0 ? static_cast<void>(::sched_yield()) : _mm_pause();
    now = epoch.load(std::memory_order_acquire);
  }
  if ((now & runningLookUps) == 0) return true;
  return (now & runningLookUps) == 1 && std::atomic_ref(cpu.interleaved).load(std::memory_order_acquire) == 0;
}

void XdpTcam::awaitGracePeriod() {
  if (membarrier(MEMBARRIER_CMD_GLOBAL) != 0) throw std::runtime_error("membarrier failed");
  scalarIs("gracePeriods", gracePeriods_, gracePeriods_ + 1, &Notifiee::onGracePeriods);
}

// Waits for a moment without a look-up on the CPU. None may come under heavy traffic; but what else is there?
void XdpTcam::awaitQuiet(TcamCpu& cpu) {
  while (std::atomic_ref(cpu.epoch).load(std::memory_order_acquire) & runningLookUps) ::sched_yield();
}

std::optional<std::optional<Held>> XdpTcam::readBack(U32 ti) {
  U64 const ref = ti < program_.positions() ? refAt(ti) : 0;
  if (ref == 0) return std::optional<Held>();
  if (!isSound(ref)) return std::nullopt;
  TcamRecord const& r = program_.records()[ref - 1];
  return Held{EntryKey(r.key), Vantrel::OpId(r.opId)};
}

void XdpTcam::contents(Visitor const& visit) {
  for (U32 ti = 0; ti < program_.positions(); ++ti) {
    U64 const ref = refAt(ti);
    if (ref == 0) continue;
    if (!isSound(ref)) {
      visit(ti, nullptr);
      continue;
    }
    EntryConfig const entry = entryOf(program_.records()[ref - 1]);
    visit(ti, &entry);
  }
}

bool XdpTcam::isSound(U64 ref) const {
  if (ref == 0 || ref > program_.slots()) return false;
  TcamRecord const& r = program_.records()[ref - 1];
  return r.counter < program_.slots() && isRule(r);
}

void XdpTcam::takeOver() {
  std::vector<bool> slotUsed(program_.slots()), counterUsed(program_.slots());
  for (U32 ti = 0; ti < program_.positions(); ++ti) {
    U64 const ref = refAt(ti);
    if (!isSound(ref)) continue;
    TcamRecord const& r = program_.records()[ref - 1];
    slotUsed[ref - 1] = true;
    counterUsed[r.counter] = true;
    ++places_.try_emplace(EntryKey(r.key), Place{r.counter, 0}).first->second.positions;
  }
  for (U32 i = program_.slots(); i-- > 0;) {
    if (!slotUsed[i]) freeSlots_.push_back(i);
    if (!counterUsed[i]) freeCounters_.push_back(i);
  }
  if (!program_.isTakenOver()) return;
  drain();
  U32 const words = (program_.positions() + 63) / 64;
  for (U32 word = 0; word < words; ++word) mendRow(word);
  for (U32 sum = 0; sum < (words + 63) / 64; ++sum) mendSums(sum);
}

// What is set in vain is cleared. Nothing is missing.
void XdpTcam::mendRow(U32 word) {
  for (U32 ti = word * 64; ti < std::min(program_.positions(), word * 64 + 64); ++ti) {
    U64 const ref = refAt(ti);
    if (isSound(ref)) {
      Rule const rule = ruleOf(program_.records()[ref - 1]);
      keepBits(ti, &rule);
    } else if (ref == 0) {
      keepBits(ti, nullptr);
    }
  }
}

void XdpTcam::mendSums(U32 sum) {
  U32 const words = (program_.positions() + 63) / 64;
  for (U32 field = 0; field < byteFields; ++field)
    for (U32 v = 0; v < rowValues; ++v)
      for (U32 word = sum * 64; word < std::min(words, sum * 64 + 64); ++word)
        if (program_.bits(word, field)[v] == 0) clear(program_.sums(sum, field)[v], U64{1} << word % 64);
}

void XdpTcam::detach() {
  program_.detach();
  scalarIs("attached", attached_, false, &Notifiee::onAttached);
}

std::string XdpTcam::entriesFrom(U32 ti) const {
  constexpr U32 mostLines = 256;
  std::string text;
  for (U32 lines = 0; ti < program_.positions() && lines < mostLines; ++ti) {
    U64 const ref = refAt(ti);
    if (!isSound(ref)) continue;
    TcamRecord const& r = program_.records()[ref - 1];
    text += fmt::format("{} {} {} {}\n", ti, r.key, hits(EntryKey(r.key)), Acl::text(ruleOf(r)));
    ++lines;
  }
  return text;
}

U64 XdpTcam::hits(EntryKey const& key) const {
  auto const place = places_.find(key);
  if (place == places_.end()) return 0;
  U64 sum = 0;
  for (U32 cpu = 0; cpu < program_.cpuCount(); ++cpu)
    sum += shared(program_.hits(cpu, place->second.counter)).load(std::memory_order_relaxed);
  return sum;
}

U64 XdpTcam::undecided(Reason reason) const {
  U64 sum = 0;
  for (TcamCpu& cpu : program_.cpus())
    sum += std::atomic_ref(cpu.undecided[reason]).load(std::memory_order_relaxed);
  return sum;
}

}  // namespace Hw
