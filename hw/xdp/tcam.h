// SPDX-License-Identifier: Apache-2.0
// XdpTcam: a driver whose hardware is a table in the kernel that real packets pass through.
//
//   executor --> write 7@4, erase 9@1 --> bits, records, refs  <-- look-ups, one a packet, on each CPU
//
// An entry carries a packet filter's rule (acl/rule.h). Adding, changing, moving and removing entries leaves
// no packet a verdict that neither the table before nor the one after would give: tcam.cpp says why.
//
// Invariants: one store to refs makes an entry appear, change or vanish. Between two such stores every
//   look-up that ran at the first one has ended.
// Ownership: owns the program. References nothing else.
// Threading: the agent's event loop.
// Cost: a call sets or clears up to 3,840 bits and waits for the look-ups that run, once. No packet waits.
// Errors: the constructor throws as XdpProgram does, and on a real-time kernel where nothing waits for
//   look-ups that preempt one another. An entry whose data is no rule, a mark without tc, and a position
//   beyond the table are refused.
#pragma once

#include <optional>
#include <unordered_map>
#include <vector>

#include "hw/acl/rule.h"
#include "hw/driver.h"
#include "hw/xdp/program.h"
#include "ostra/entity.h"

namespace Hw {

class XdpTcam : public Ostra::Entity, public Driver {
 public:
  using EntryConfig = Vantrel::EntryConfig;
  using EntryKey = Vantrel::EntryKey;

  class Notifiee : public Ostra::NotifieeOf<XdpTcam const> {
   public:
    virtual void onWrites() {}
    virtual void onGracePeriods() {}
    virtual void onAttached() {}
  };

  XdpTcam(std::string name, XdpOptions const& options);

  // Calls that arrived.
  U64 writes() const { return writes_; }
  U64 entries() const { return places_.size(); }
  // Packets that the key's entry decided since it was added.
  U64 hits(EntryKey const& key) const;
  // Packets that no entry decided.
  U64 undecided(Reason reason) const;
  // Drains that waited for a grace period, because look-ups of one CPU may interleave.
  U64 gracePeriods() const { return gracePeriods_; }
  XdpProgram& program() { return program_; }
  // The entries from that position on, some hundreds at most, a line each: position, key, hits and rule.
  // Empty when there is none.
  std::string entriesFrom(U32 ti) const;
  // Nothing filters from then on, and no pin is left.
  void detach();

  Outcome write(EntryConfig const& entry, U32 ti, U64 token) override;
  Outcome erase(EntryKey const& key, U32 ti, U64 token) override;
  std::optional<std::optional<Held>> readBack(U32 ti) override;
  void contents(Visitor const& visit) override;

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 protected:
  // For tests of what the machine that they run on is not like.
  XdpTcam(std::string name, XdpOptions const& options, bool mayInterleave, bool hasGracePeriods);
  // Returns when every look-up that runs now has ended. Tests override it to show what it is for.
  virtual void drain();

 private:
  U64 unmatched() const { return undecided(noEntryMatches); }
  U64 fragments() const { return undecided(fragment); }
  U64 malformedPackets() const { return undecided(malformed); }
  U64 otherProtocols() const { return undecided(notIpv4); }
  U64 arpPackets() const { return undecided(arp); }
  std::string mode() const { return nameOf(program_.options().hook); }
  std::string const& interface() const { return program_.options().interface; }
  std::string otherwise() const { return program_.options().permits ? "permit" : "deny"; }
  U32 positions() const { return program_.positions(); }
  U64 memory() const { return program_.memory(); }
  bool attached() const { return attached_; }

  // Where a key is: at one position, or at two while it is moved.
  struct Place {
    U32 counter;
    U32 positions;
  };

  std::optional<std::string> fault(EntryConfig const& entry, std::optional<Acl::Rule> const& rule,
                                   U32 ti) const;
  U32 counterFor(EntryKey const& key);
  void record(U32 slot, EntryConfig const& entry, Acl::Rule const& rule, U32 counter);
  void refer(U32 ti, U64 ref);
  void setBits(U32 ti, Acl::Rule const& rule);
  void keepBits(U32 ti, Acl::Rule const* rule);
  void release(U32 slot);
  U64 refAt(U32 ti) const;
  bool isSound(U64 ref) const;
  void takeOver();
  void mendRow(U32 word);
  void mendSums(U32 sum);
  void refuseUnsafe() const;
  static bool endsInTurn(TcamCpu& cpu);
  void awaitGracePeriod();
  static void awaitQuiet(TcamCpu& cpu);

  bool mayInterleave_;  // look-ups of one CPU
  bool const hasGracePeriods_;
  XdpProgram program_;
  bool const canMark_;
  std::vector<U32> freeSlots_, freeCounters_;
  std::unordered_map<EntryKey, Place> places_;
  U64 writes_ = 0;
  U64 gracePeriods_ = 0;
  bool attached_;  // to the interface
};

}  // namespace Hw
