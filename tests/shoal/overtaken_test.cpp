// SPDX-License-Identifier: Apache-2.0
// A straight read that the writer overtakes, at each of its looks at the file in turn: it must return what
// was in the table while it ran, whole, or nothing. The writer gives the record's slot to another record, to
// the same key again, and to a record that it completes and does not come to publish.
#include <array>
#include <functional>
#include <optional>

#include "fixture.h"

namespace ShoalTest {
namespace {

// Lets something happen before one of the looks.
struct Overtaken {
  static inline std::function<void()> what;
  static inline int looksLeft = 0;
  static void look() {
    if (looksLeft-- == 0) what();
  }
  static U64 load(std::atomic<U64> const* word) {
    look();
    return Shoal::Words::load(word);
  }
  static bool is(std::atomic<U64> const* word, U64 value) {
    look();
    return Shoal::Words::is(word, value);
  }
  static void fence() { Shoal::Words::fence(); }
  static unsigned entriesOfTag(std::atomic<U64> const* line, U64 tag) {
    look();
    return Shoal::Words::entriesOfTag(line, tag);
  }
  template <U64 atLeast = 1>
  static U64 copyRows(std::atomic<U64> const* slot, std::byte* to, U64 rows) {
    look();
    return Shoal::Words::copyRows<atLeast>(slot, to, rows);
  }
};

using Straight = Shoal::StraightRead<Config>;
constexpr U64 key = 7;
constexpr U64 other = 8;
constexpr U64 unpublished = 1000;

// A record of the usual length, whatever its version.
Config plain(U64 of, U64 version) {
  Config r(EntryKey(of), OpId(version), static_cast<U32>(version), 1, 2);
  r.tableIndexIs(TableKey(0), static_cast<U32>(version));
  for (unsigned i = 0; i < 4; ++i) r.dataIs(DataKey(i), of * 1000 + version + i + 1);
  return r;
}

class World {
 public:
  World() : writer_(dir_ / "t", Shoal::shapeOf<Config>(), {}) {
    put(key, 1);
    put(other, 1);
    view_.emplace(writer_.mapping(), Shoal::shapeOf<Config>());
    view_->contains(key);
    slot_ = slotOfKey();
  }
  ~World() { Shoal::Testing::storePoint = nullptr; }

  Shoal::TableView& view() { return *view_; }
  void put(U64 of, U64 version) {
    std::array<std::byte, Shoal::RecordTraits<Config>::bytes> image;
    Shoal::RecordTraits<Config>::encode(plain(of, version), image.data());
    writer_.put(of, image.data());
  }
  // The record goes to another slot, and the one it was in is the next to be taken.
  void freeTheSlot() {
    put(key, 2);
    for (U64 writes = 0; writes < 128; ++writes) put(other, 2 + writes);  // so long a slot rests
  }
  // Writes the key's record into the slot that is next, and stops when it is complete and not published.
  void putHalfway() {
    slotWord_ = view_->word(slot_ * Shoal::Format::unitBytes);
    Shoal::Testing::storePoint = [] {
      bool const complete = (slotWord_[1] & 1) == 0 && slotWord_[4] == unpublished;
      if (complete) throw Stop();
    };
    EXPECT_THROW(put(key, unpublished), Stop);
    Shoal::Testing::storePoint = nullptr;
  }
  U64 slotOfKey() {
    Shoal::TableView fresh(writer_.mapping(), Shoal::shapeOf<Config>());
    return Shoal::Format::entryUnit(*fresh.entryWord(key));
  }
  U64 slot() const { return slot_; }

 private:
  struct Stop {};
  static inline std::atomic<U64> const* slotWord_ = nullptr;
  Directory dir_;
  Shoal::TableWriter writer_;
  std::optional<Shoal::TableView> view_;
  U64 slot_ = 0;
};

enum class Fate { anothers, sameKeys, halfway };

void overtake(World& world, Fate fate) {
  world.freeTheSlot();
  if (fate == Fate::halfway) return world.putHalfway();
  world.put(fate == Fate::anothers ? other : key, 500);
  EXPECT_EQ(world.slotOfKey() == world.slot(), fate == Fate::sameKeys);
}

TEST(Straight, AReadThatIsOvertakenReturnsWhatWasThereOrNothing) {
  for (Fate const fate : {Fate::anothers, Fate::sameKeys, Fate::halfway}) {
    int looks = 0;
    int returned = 0;
    for (bool reached = true; reached; ++looks) {
      World world;
      reached = false;
      Overtaken::looksLeft = looks;
      Overtaken::what = [&] {
        reached = true;
        overtake(world, fate);
      };
      Config record;
      if (!Straight::inPlace<Overtaken>(world.view(), record, key)) continue;
      ++returned;
      U64 const version = record.opId().value();
      EXPECT_EQ(record, plain(key, version)) << "look " << looks;
      U64 const newest = fate == Fate::sameKeys ? 500 : 2;
      EXPECT_TRUE(version == 1 || version == newest) << "look " << looks << ": version " << version;
    }
    EXPECT_GE(looks, 8);
    EXPECT_GE(returned, 2);  // overtaken before all, and not at all
  }
}

// Two keys of one bucket and one tag: the first entry that is looked at is the other's every second time.
TEST(Straight, KeysOfEqualTagAreTwoRecords) {
  World world;
  Shoal::TableView& view = world.view();
  U64 const buckets = view.buckets();
  auto const placeOf = [&](U64 k) {
    U64 const hash = view.hash(k);
    return Shoal::Format::tag(hash) << 32 | Shoal::Format::bucketOf(hash, buckets);
  };
  U64 twin = 1000;
  while (placeOf(twin) != placeOf(key)) ++twin;
  world.put(twin, 3);
  EXPECT_EQ(view.buckets(), buckets);
  int found = 0;
  for (U64 const k : {key, twin}) {
    for (auto const read : {Straight::forThisProcessor(), &Straight::narrow, &Straight::overCopy}) {
      Config record;
      if (!read(view, record, k)) continue;
      ++found;
      EXPECT_EQ(record, plain(k, k == key ? 1 : 3));
    }
    EXPECT_EQ(Shoal::recordOf<Config>(view, EntryKey(k)), plain(k, k == key ? 1 : 3));
  }
  EXPECT_EQ(found, 3);  // the one that comes first
}

}  // namespace
}  // namespace ShoalTest
