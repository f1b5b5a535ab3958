// SPDX-License-Identifier: Apache-2.0
// Asks the engine once for each claim of a snapshot. It guesses nothing: what it says of an entry is what the
// engine itself goes by.
#include "vantrel/diag/wait_status.h"

#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/fast/fast_vantrel_impl.h"

namespace Vantrel {

WaitStatus::WaitStatus(std::string name)
    : Entity(std::move(name)),
      kind_(std::make_unique<KindOfKey>()),
      blocker_(std::make_unique<IndexOfKey>()),
      since_(std::make_unique<TimeOfKey>()) {}

WaitStatus::~WaitStatus() = default;

void WaitStatus::explain(FastVantrelImpl const& engine, DebugStatus const& snapshot) {
  membersDelAll("kind", *kind_, &Notifiee::onKind);
  membersDelAll("blocker", *blocker_, &Notifiee::onBlocker);
  membersDelAll("since", *since_, &Notifiee::onSince);
  for (auto const& [ti, key] : snapshot.pending()) {
    WaitReason const reason = engine.waitReason(key);
    kindIs(key, reason.kind);
    if (reason.other) blockerIs(key, reason.other->ti);
    sinceIs(key, reason.since);
  }
  versionIs(snapshot.version());
}

void WaitStatus::kindIs(EntryKey const& key, WaitReason::Kind kind) {
  memberIs("kind", *kind_, key, kind, &Notifiee::onKind);
}
WaitReason::Kind WaitStatus::kindDel(EntryKey const& key) {
  return memberDel("kind", *kind_, key, &Notifiee::onKind);
}

void WaitStatus::blockerIs(EntryKey const& key, U32 ti) {
  memberIs("blocker", *blocker_, key, ti, &Notifiee::onBlocker);
}
U32 WaitStatus::blockerDel(EntryKey const& key) {
  return memberDel("blocker", *blocker_, key, &Notifiee::onBlocker);
}

void WaitStatus::sinceIs(EntryKey const& key, U64 since) {
  memberIs("since", *since_, key, since, &Notifiee::onSince);
}
U64 WaitStatus::sinceDel(EntryKey const& key) { return memberDel("since", *since_, key, &Notifiee::onSince); }

namespace {
std::string engineKnows(WaitStatus const&) { return "the engine knows it"; }
}  // namespace

Ostra::TypeInfo const& WaitStatus::staticType() {
  using W = WaitStatus;
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<W>("Vantrel::WaitStatus")
                                          .collection("kind", &W::kind, &W::kindIs, &W::kindDel)
                                          .refusedBecause(&engineKnows)
                                          .collection("blocker", &W::blocker, &W::blockerIs, &W::blockerDel)
                                          .refusedBecause(&engineKnows)
                                          .collection("since", &W::since, &W::sinceIs, &W::sinceDel)
                                          .refusedBecause(&engineKnows)
                                          .attribute("version", &W::version, &W::versionIs)
                                          .refusedBecause(&engineKnows)
                                          .toldLast();
  return type;
}

}  // namespace Vantrel
