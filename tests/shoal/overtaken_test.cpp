// SPDX-License-Identifier: Apache-2.0
// A read that the writer overtakes, at each of its instructions in turn: it returns what was in the table
// while it ran, whole. The writer gives the record's slot to another record, to the same key again, and to a
// record that it completes and does not come to publish.
//
// The processor's trap flag stops the read after each instruction; at the one that is wanted the writer works
// in the signal's handler.
#include <signal.h>
#include <sys/ucontext.h>

#include <array>
#include <functional>
#include <optional>
#include <utility>

#include "fixture.h"
#include "shoal/table_view.h"
#include "shoal/table_writer.h"

#if defined(__x86_64__)
#include <x86intrin.h>

namespace ShoalTest {
namespace {

using Traits = Shoal::RecordTraits<Config>;
constexpr U64 key = 7;
constexpr U64 other = 8;
constexpr U64 unpublished = 1000;
constexpr U64 trapFlag = 0x100;

// Lets something happen at one instruction of what runs meanwhile, and something else some instructions
// later.
class Interruption {
 public:
  Interruption(long instruction, std::function<void()> what, long later = 0,
               std::function<void()> then = nullptr) {
    left_ = instruction;
    what_ = std::move(what);
    later_ = later;
    then_ = std::move(then);
    struct sigaction action {};
    action.sa_sigaction = &Interruption::trapped;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before_);
  }
  ~Interruption() {
    sigaction(SIGTRAP, &before_, nullptr);
    what_ = then_ = nullptr;
  }
  static bool happened() { return left_ < 0; }

  template <class Work>
  [[gnu::noinline]] static auto during(Work const& work) {
    if (what_) __writeeflags(__readeflags() | trapFlag);
    auto const result = work();
    __writeeflags(__readeflags() & ~trapFlag);
    return result;
  }

 private:
  static void trapped(int, siginfo_t*, void* context) {
    if (left_-- != 0) return;
    what_();
    if (then_) {
      left_ = later_;
      what_ = std::exchange(then_, nullptr);
    } else {
      static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_EFL] &= ~static_cast<greg_t>(trapFlag);
    }
  }
  static inline long left_ = 0;
  static inline long later_ = 0;
  static inline std::function<void()> what_;
  static inline std::function<void()> then_;
  struct sigaction before_ {};
};

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
    view_.emplace(writer_.mapping());
    read(key);
    slot_ = slotOfKey();
  }
  ~World() { Shoal::Testing::storePoint = nullptr; }

  Shoal::TableView& view() { return *view_; }
  Config read(U64 of) {
    Config r = Traits::unset();
    Shoal::Extent const extent =
        Interruption::during([&] { return view_->read(of, reinterpret_cast<U64*>(Traits::image(r))); });
    if (extent.isEmpty()) return {};
    Traits::accept(r, extent);
    return r;
  }
  void put(U64 of, U64 version) {
    std::array<U64, Traits::bytes / 8> image;
    auto const extent = Traits::encode(plain(of, version), reinterpret_cast<std::byte*>(image.data()));
    writer_.put(of, image.data(), extent);
  }
  void remove(U64 of) { writer_.remove(of); }
  // The record goes to another slot, and the one it was in is the next to be taken.
  void freeTheSlot() {
    put(key, 2);
    for (U64 writes = 0; writes < 128; ++writes) put(other, 2 + writes);  // so long a slot rests
  }
  // Writes the key's record into the slot that is next, and stops when it is complete and not published.
  void putHalfway() {
    slotWord_ = view_->slot(slot_);
    Shoal::Testing::storePoint = [] {
      bool const complete = !Shoal::Format::isWriting(slotWord_[1]) && slotWord_[3] == unpublished;
      if (complete) throw Stop();
    };
    EXPECT_THROW(put(key, unpublished), Stop);
    Shoal::Testing::storePoint = nullptr;
  }
  U64 slotOfKey() {
    Shoal::TableView fresh(writer_.mapping());
    for (auto place = fresh.walk(0); place; place = fresh.walk(place->hint))
      if (place->key == key) return Shoal::Format::entryUnit(*fresh.visited());
    return 0;
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

enum class Fate { anothers, sameKeys, halfway, removed };

void overtake(World& world, Fate fate) {
  if (fate == Fate::removed) return world.remove(key);
  world.freeTheSlot();
  if (fate == Fate::halfway) return world.putHalfway();
  world.put(fate == Fate::anothers ? other : key, 500);
  EXPECT_EQ(world.slotOfKey() == world.slot(), fate == Fate::sameKeys);
}

void expectWhatWasThere(Config const& r, Fate fate, long instruction) {
  if (r == Config()) {
    EXPECT_EQ(fate, Fate::removed) << "instruction " << instruction;
    return;
  }
  U64 const version = r.opId().value();
  U64 const newest = fate == Fate::sameKeys ? 500 : fate == Fate::removed ? 1 : 2;
  EXPECT_EQ(r, plain(key, version)) << "instruction " << instruction;
  EXPECT_TRUE(version == 1 || version == newest) << "instruction " << instruction << ": version " << version;
}

void expectOneOf(Config const& r, std::set<U64> const& versions) {
  ASSERT_NE(r, Config()) << "it reads as absent";
  EXPECT_TRUE(versions.contains(r.opId().value()));
  EXPECT_EQ(r, plain(key, r.opId().value()));
}

TEST(Overtaken, AReadReturnsWhatWasThere) {
  for (Fate const fate : {Fate::anothers, Fate::sameKeys, Fate::halfway, Fate::removed}) {
    long instruction = 0;
    std::set<U64> versions;
    for (bool reached = true; reached; ++instruction) {
      World world;
      Interruption const interruption(instruction, [&] { overtake(world, fate); });
      Config const r = world.read(key);
      reached = Interruption::happened();
      ASSERT_NO_FATAL_FAILURE(expectWhatWasThere(r, fate, instruction));
      versions.insert(r.opId().value());
    }
    EXPECT_GT(instruction, 50);
    EXPECT_EQ(versions.size(), 2U) << "before it and after it";
  }
}

// The slot is freed and, some instructions later, published again, with the same entry.
TEST(Overtaken, AReadMissesNoRecordThatComesBack) {
  constexpr long most = 60;
  for (long instruction = 0; instruction < most; ++instruction) {
    for (long later = 0; later < 32; later += 4) {
      World world;
      Interruption const interruption(
          instruction, [&] { world.freeTheSlot(); }, later, [&] { world.put(key, 500); });
      Config const r = world.read(key);
      ASSERT_NO_FATAL_FAILURE(expectOneOf(r, {1, 2, 500})) << instruction << " and " << later;
    }
  }
}

// Two keys of one bucket and one tag: the first entry that is looked at is the other's every second time.
TEST(Overtaken, KeysOfEqualTagAreTwoRecords) {
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
  EXPECT_EQ(world.read(key), plain(key, 1));
  EXPECT_EQ(world.read(twin), plain(twin, 3));
}

}  // namespace
}  // namespace ShoalTest
#endif
