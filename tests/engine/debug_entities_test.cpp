// SPDX-License-Identifier: Apache-2.0
#include "vantrel/engine/debug_entities.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/engine_world.h"

using namespace Vantrel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ConfigWatcher : public DebugConfig::Notifiee {
 public:
  void onVersion() override { ++count; }
  int count = 0;
};

class StatusWatcher : public DebugStatus::Notifiee {
 public:
  void onPending(U32 const& ti) override { told.push_back("pending " + std::to_string(ti)); }
  void onPendingOpId(EntryKey const& k) override {
    told.push_back("pendingOpId " + std::to_string(k.value()));
  }
  void onStatus(U32 const& ti) override { told.push_back("status " + std::to_string(ti)); }
  void onStatusOpId(EntryKey const& k) override { told.push_back("statusOpId " + std::to_string(k.value())); }
  void onVersion() override { told.push_back("version"); }
  std::vector<std::string> take() { return std::exchange(told, {}); }
  std::vector<std::string> told;
};

}  // namespace

TEST(DebugConfig, StartsAtZeroUnderItsName) {
  auto const c = debugConfigFactory("cfg");
  EXPECT_EQ(c->name(), "cfg");
  EXPECT_EQ(c->version(), 0U);
}

TEST(DebugConfig, SettingTheCurrentVersionTriggersNothing) {
  auto const c = debugConfigFactory("cfg");
  ConfigWatcher w;
  w.notifierIs(c);
  c->versionIs(0);
  c->versionInc(0);
  EXPECT_EQ(w.count, 0);
  c->versionIs(3);
  EXPECT_EQ(w.count, 1);
}

TEST(DebugConfig, VersionIncPastTheMaximumWrapsAndNotifies) {
  auto const c = debugConfigFactory("cfg");
  c->versionIs(0xFFFFFFFF);
  ConfigWatcher w;
  w.notifierIs(c);
  c->versionInc(1);
  EXPECT_EQ(c->version(), 0U);
  EXPECT_EQ(w.count, 1);
}

TEST(DebugStatus, MembersNotifyWithTheirKeyOnlyOnChange) {
  auto const s = debugStatusFactory("st");
  EXPECT_EQ(s->name(), "st");
  EXPECT_EQ(s->version(), 0U);
  StatusWatcher w;
  w.notifierIs(s);
  for (int twice = 0; twice < 2; ++twice) {
    s->pendingIs(4, EntryKey(7));
    s->pendingOpIdIs(EntryKey(7), OpId(12));
    s->statusIs(3, EntryKey(7));
    s->statusOpIdIs(EntryKey(7), OpId(11));
    s->versionIs(5);
  }
  EXPECT_THAT(w.take(), ElementsAre("pending 4", "pendingOpId 7", "status 3", "statusOpId 7", "version"));
  s->pendingIs(4, EntryKey(8));
  EXPECT_THAT(w.take(), ElementsAre("pending 4"));
  EXPECT_EQ(s->pending().at(4), EntryKey(8));
}

TEST(DebugStatus, RemovingAnAbsentKeyReturnsZeroSilently) {
  auto const s = debugStatusFactory("st");
  StatusWatcher w;
  w.notifierIs(s);
  EXPECT_EQ(s->pendingDel(1), EntryKey(0));
  EXPECT_EQ(s->pendingOpIdDel(EntryKey(1)), OpId(0));
  EXPECT_EQ(s->statusDel(1), EntryKey(0));
  EXPECT_EQ(s->statusOpIdDel(EntryKey(1)), OpId(0));
  EXPECT_THAT(w.take(), IsEmpty());
}

TEST(DebugStatus, RemovingReturnsTheValueAndNotifies) {
  auto const s = debugStatusFactory("st");
  s->pendingIs(4, EntryKey(7));
  s->pendingOpIdIs(EntryKey(7), OpId(12));
  s->statusIs(3, EntryKey(7));
  s->statusOpIdIs(EntryKey(7), OpId(11));
  StatusWatcher w;
  w.notifierIs(s);
  EXPECT_EQ(s->pendingDel(4), EntryKey(7));
  EXPECT_EQ(s->pendingOpIdDel(EntryKey(7)), OpId(12));
  EXPECT_EQ(s->statusDel(3), EntryKey(7));
  EXPECT_EQ(s->statusOpIdDel(EntryKey(7)), OpId(11));
  EXPECT_THAT(w.take(), ElementsAre("pending 4", "pendingOpId 7", "status 3", "statusOpId 7"));
}

TEST(DebugStatus, RemovingAllNotifiesOfEach) {
  auto const s = debugStatusFactory("st");
  for (U32 i = 0; i < 5; ++i) {
    s->pendingIs(i, EntryKey(i));
    s->statusOpIdIs(EntryKey(i), OpId(i + 1));
  }
  StatusWatcher w;
  w.notifierIs(s);
  s->pendingDelAll();
  s->statusOpIdDelAll();
  s->statusDelAll();
  s->pendingOpIdDelAll();
  EXPECT_EQ(w.told.size(), 10U);
  EXPECT_THAT(s->pending(), IsEmpty());
  EXPECT_THAT(s->statusOpId(), IsEmpty());
}

// Watching without overriding anything is allowed, and does nothing.
TEST(DebugEntities, AWatcherNeedsNoHandler) {
  auto const c = debugConfigFactory("cfg");
  auto const s = debugStatusFactory("status");
  DebugConfig::Notifiee configWatcher;
  DebugStatus::Notifiee statusWatcher;
  configWatcher.notifierIs(c);
  statusWatcher.notifierIs(s);
  c->versionIs(1);
  s->pendingIs(1, EntryKey(2));
  s->pendingOpIdIs(EntryKey(2), OpId(3));
  s->statusIs(4, EntryKey(5));
  s->statusOpIdIs(EntryKey(5), OpId(6));
  s->versionIs(1);
  EXPECT_EQ(s->version(), 1U);
  EXPECT_EQ(s->pending().at(1), EntryKey(2));
}

TEST(DebugEntities, ARequestCanBeMadeByName) {
  auto const c = debugConfigFactory("cfg");
  c->typeInfo().write(*c, "version", U64{4});
  c->typeInfo().invoke(*c, "versionInc", {U64{2}});
  EXPECT_EQ(c->version(), 6U);
}

TEST(DebugEntities, OfferTheseNames) {
  using TestSupport::offered;
  EXPECT_THAT(offered(DebugConfig::staticType()), ElementsAre("version U32", "versionInc (U32)"));
  EXPECT_THAT(offered(DebugStatus::staticType()),
              ElementsAre("pending U32 -> U64", "pendingOpId U64 -> U64", "status U32 -> U64",
                          "statusOpId U64 -> U64", "version U32", "pendingDelAll ()", "pendingOpIdDelAll ()",
                          "statusDelAll ()", "statusOpIdDelAll ()"));
}

TEST(DebugEntities, TheAnswerIsEmptiedByNameFromInsideOnly) {
  auto const s = debugStatusFactory("status");
  Ostra::TypeInfo const& type = s->typeInfo();
  s->pendingIs(1, EntryKey(2));
  s->pendingOpIdIs(EntryKey(2), OpId(3));
  s->statusIs(4, EntryKey(5));
  s->statusOpIdIs(EntryKey(5), OpId(6));
  for (char const* name : {"pendingDelAll", "pendingOpIdDelAll", "statusDelAll", "statusOpIdDelAll"}) {
    EXPECT_THROW(type.checkOutsider(*s, name), Ostra::AttributeException) << name;
    std::size_t const before =
        s->pending().size() + s->pendingOpId().size() + s->status().size() + s->statusOpId().size();
    type.invoke(*s, name);
    EXPECT_EQ(s->pending().size() + s->pendingOpId().size() + s->status().size() + s->statusOpId().size(),
              before - 1)
        << name;
  }
}

TEST(DebugEntities, RefuseWritesToTheAnswerFromOutside) {
  auto const s = debugStatusFactory("status");
  try {
    s->typeInfo().writeFromOutside(*s, "version", U64{1});
    FAIL() << "it was written";
  } catch (Ostra::AttributeException const& error) {
    EXPECT_THAT(error.what(), testing::HasSubstr("the engine writes it"));
  }
  EXPECT_EQ(s->version(), 0U);
}
