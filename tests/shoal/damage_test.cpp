// SPDX-License-Identifier: Apache-2.0
// Damaged, foreign and cut files: each is said in one sentence, costs what it hit and nothing else, and is
// read in bounded time, through every operation a reader has.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <random>

#include "fixture.h"
#include "shoal/format.h"
#include "shoal/inspect.h"
#include "shoal/table_view.h"

namespace ShoalTest {
namespace {

using Reason = Shoal::FileException::Reason;
using testing::HasSubstr;

std::string bytesOf(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void write(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}
// Writes into the file in place, under whoever has it mapped.
void poke(std::string const& path, U64 offset, std::string const& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << bytes;
}

void pokeWord(std::string const& path, U64 offset, U64 word) {
  poke(path, offset, {reinterpret_cast<char const*>(&word), sizeof word});
}

// Fifty records, of keys 1 to 50.
void makeTable(std::string const& path) {
  Writer writer(path);
  for (U64 key = 1; key <= 50; ++key) writer.entryIs(record(key, 1));
}

void expectRefused(std::string const& path, Reason reason, std::string const& text) {
  try {
    Reader const reader(path);
    ADD_FAILURE() << path << " was opened";
  } catch (Shoal::FileException const& error) {
    EXPECT_EQ(error.reason(), reason) << error.what();
    EXPECT_THAT(error.what(), HasSubstr(text));
    EXPECT_THAT(error.what(), HasSubstr(path));
  }
}

TEST(Damage, RefusesAFileInOneSentence) {
  Directory dir;
  expectRefused(dir / "missing", Reason::missing, "there is no such file");
  write(dir / "empty", "");
  expectRefused(dir / "empty", Reason::truncated, "is empty");
  write(dir / "text", "not a table at all, but a letter to a friend");
  expectRefused(dir / "text", Reason::notATable, "is not a table file");
  expectRefused(dir.path(), Reason::notATable, "is not a regular file");
  { Shoal::WriterTable<Vantrel::EntryStatus> const other(dir / "status"); }
  expectRefused(dir / "status", Reason::otherRecord,
                "holds EntryStatus records of version 1, expected EntryConfig");
  { Writer const table(dir / "table"); }
  std::string const whole = bytesOf(dir / "table");
  write(dir / "short", whole.substr(0, whole.size() - 1));
  expectRefused(dir / "short", Reason::truncated, "is cut short");
  write(dir / "stub", whole.substr(0, 100));
  expectRefused(dir / "stub", Reason::truncated, "is cut short");
  std::string changed = whole;
  changed[8] = 9;
  write(dir / "newer", changed);
  expectRefused(dir / "newer", Reason::otherVersion, "format version 9, expected 5");
  changed = whole;
  changed[20] = 'x';
  write(dir / "bent", changed);
  expectRefused(dir / "bent", Reason::damaged, "header is damaged");
  std::filesystem::create_symlink(dir / "table", dir / "link");
  expectRefused(dir / "link", Reason::notAllowed, "is a symbolic link");
}

TEST(Damage, AWriterReplacesNothingButTables) {
  Directory dir;
  write(dir / "letter", "dear friend, this is not a table");
  EXPECT_THROW(Writer(dir / "letter", {.replace = true}), Shoal::FileException);
  EXPECT_EQ(bytesOf(dir / "letter"), "dear friend, this is not a table");
  write(dir / "empty", "");
  EXPECT_NO_THROW(Writer(dir / "empty", {.replace = true}));
}

// Offset of the key's index entry.
U64 entryOf(std::string const& path, U64 key) {
  Shoal::TableView view(std::make_shared<Shoal::Mapping>(path, Shoal::Access::read));
  for (auto place = view.walk(0); place; place = view.walk(place->hint))
    if (place->key == key)
      return static_cast<U64>(reinterpret_cast<std::byte const*>(view.visited()) - view.mapping().base());
  throw std::logic_error("no such key");
}
U64 wordAt(std::string const& bytes, U64 offset) {
  U64 value;
  std::memcpy(&value, bytes.data() + offset, 8);
  return value;
}

// Offset of the key's slot.
U64 slotOf(std::string const& path, U64 key) {
  return Shoal::Format::entryUnit(wordAt(bytesOf(path), entryOf(path, key))) * Shoal::Format::unitBytes;
}

TEST(Damage, CostsTheDamagedRecordAlone) {
  Directory dir;
  makeTable(dir / "t");
  U64 const slot = slotOf(dir / "t", 7);
  auto reader = Ostra::make<Reader>(dir / "t");
  for (U64 const at : {slot + 0, slot + 8, slot + 24, slot + 40, slot + 96}) {
    char const was = bytesOf(dir / "t")[at];
    poke(dir / "t", at, std::string(1, static_cast<char>(was ^ 0x10)));
    EXPECT_THROW(reader->entry(EntryKey(7)), Pallo::CorruptionDetectedException) << at - slot;
    EXPECT_EQ(readEntry(*reader, EntryKey(7)), Config());
    EXPECT_GT(reader->corruptions(), 0U);
    EXPECT_THAT(reader->lastCorruption(), HasSubstr("key 7"));
    U64 visited = 0;
    for (auto place = reader->first(); place; place = reader->next(*place)) {
      ++visited;
      EXPECT_TRUE(place->key == EntryKey(7) || isWhole(reader->entry(place->key)));
    }
    EXPECT_EQ(visited, 50U) << "one bad record does not end a walk";
    poke(dir / "t", at, std::string(1, was));
    EXPECT_EQ(reader->entry(EntryKey(7)), record(7, 1));
  }
}

TEST(Damage, OfAKeyIsReportedAndHealedByAWrite) {
  Directory dir;
  makeTable(dir / "t");
  U64 const slot = slotOf(dir / "t", 7);
  poke(dir / "t", slot + 16, "\x70");
  auto const reader = Ostra::make<Reader>(dir / "t");
  EXPECT_THROW(reader->entry(EntryKey(7)), Pallo::CorruptionDetectedException);
  EXPECT_EQ(contents(*reader).size(), 49U);
  EXPECT_EQ(reader->corruptions(), 1U);
  Writer writer(dir / "t");
  writer.entryIs(record(7, 2));
  settle(*reader, 10);
  EXPECT_EQ(reader->entry(EntryKey(7)), record(7, 2));
  EXPECT_EQ(contents(*reader).size(), 50U);
  EXPECT_EQ(writer.size(), 50U);
}

// Where the index is made anew, a record that is damaged beside it does not become an absent one.
TEST(Damage, OfARecordOutlivesAHealing) {
  Directory dir;
  makeTable(dir / "t");
  pokeWord(dir / "t", slotOf(dir / "t", 8) + 24, 5);
  pokeWord(dir / "t", Shoal::Format::countAt, 5);
  Writer writer(dir / "t");
  EXPECT_EQ(writer.writerCounters().rebuilds, 1U);
  EXPECT_EQ(writer.size(), 50U);
  auto const reader = Ostra::make<Reader>(dir / "t");
  EXPECT_THROW(reader->entry(EntryKey(8)), Pallo::CorruptionDetectedException);
  writer.entryIs(record(8, 2));
  EXPECT_EQ(reader->entry(EntryKey(8)), record(8, 2));
  EXPECT_EQ(writer.writerCounters().rebuilds, 1U) << "a write of its key is enough";
  EXPECT_EQ(contents(writer).size(), 50U);
}

// Of an index entry: whatever comes next, the key has the record that was written last.
TEST(Damage, OfAnEntryBringsNoOldRecordBack) {
  for (bool const writtenAnew : {true, false}) {
    Directory dir;
    Writer writer(dir / "t");
    for (U64 key = 1; key <= 50; ++key) writer.entryIs(record(key, 1));
    U64 const at = entryOf(dir / "t", 7);
    poke(dir / "t", at, std::string(1, static_cast<char>(bytesOf(dir / "t")[at] ^ 4)));
    if (writtenAnew) writer.entryIs(record(7, 2));
    writer.entryDel(EntryKey(7));
    EXPECT_EQ(writer.entry(EntryKey(7)), Config());
    EXPECT_EQ(writer.writerCounters().rebuilds, 1U);
    Shoal::inspect(dir / "t");
    EXPECT_EQ(Shoal::inspect(dir / "t").damage, std::vector<std::string>());
    EXPECT_EQ(contents(writer).size(), 49U);
  }
}

TEST(Damage, OfAnEntryIsHealedAtTheNextOpening) {
  Directory dir;
  makeTable(dir / "t");
  pokeWord(dir / "t", entryOf(dir / "t", 7), 0);
  EXPECT_THAT(Shoal::inspect(dir / "t").damage, testing::Contains(HasSubstr("of key 7, has no entry")));
  Writer const writer(dir / "t");
  EXPECT_EQ(contents(writer).size(), 50U);
  EXPECT_EQ(writer.entry(EntryKey(7)), record(7, 1));
}

// A walk of the writer's own that is under way when the index is made anew.
TEST(Damage, HealedUnderAWalkHidesNoKeyFromIt) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 key = 1; key <= 100; ++key) writer.entryIs(record(key, 1));
  std::set<U64> met;
  for (auto place = writer.first(); place; place = writer.next(*place)) {
    met.insert(place->key.value());
    if (met.size() != 50 || writer.writerCounters().rebuilds != 0) continue;
    U64 const at = entryOf(dir / "t", 7);
    poke(dir / "t", at, std::string(1, static_cast<char>(bytesOf(dir / "t")[at] ^ 4)));
    writer.entryIs(record(7, 2));
    ASSERT_EQ(writer.writerCounters().rebuilds, 1U);
  }
  EXPECT_EQ(met.size(), 100U);
}

// The table was moved away, and there is another at its path: that one is not made anew from this one.
TEST(Damage, IsHealedInItsOwnPlaceAlone) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 key = 1; key <= 50; ++key) writer.entryIs(record(key, 1));
  std::filesystem::rename(dir / "t", dir / "moved");
  Writer other(dir / "t");
  other.entryIs(record(99, 1));
  U64 const at = entryOf(dir / "moved", 7);
  poke(dir / "moved", at, std::string(1, static_cast<char>(bytesOf(dir / "moved")[at] ^ 4)));
  EXPECT_THROW(writer.entryIs(record(7, 2)), Pallo::CorruptionDetectedException);
  EXPECT_EQ(contents(Reader(dir / "t")), (std::map<U64, U64>{{99, 1}}));
}

TEST(Damage, ByTruncationIsNotHealedInSilence) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 key = 1; key <= 20000; ++key) writer.entryIs(record(key, 1));
  std::filesystem::resize_file(dir / "t", std::filesystem::file_size(dir / "t") / 2);
  int refused = 0;
  for (U64 key = 1; key <= 20000; ++key) {
    try {
      writer.entryIs(record(key, 2));
    } catch (Pallo::CorruptionDetectedException const& error) {
      EXPECT_THAT(error.what(), HasSubstr("cut short"));
      ++refused;
    }
  }
  EXPECT_GT(refused, 0);
  EXPECT_EQ(writer.writerCounters().rebuilds, 0U);
  std::filesystem::resize_file(dir / "t", 0);
  EXPECT_THROW(writer.entryIs(record(1, 3)), Pallo::CorruptionDetectedException);
}

TEST(Damage, OfTheIndexIsSaidAtTheEndOfTheWalk) {
  Directory dir;
  makeTable(dir / "t");
  U64 const at = entryOf(dir / "t", 7);
  poke(dir / "t", at, std::string(1, static_cast<char>(bytesOf(dir / "t")[at] ^ 4)));
  Reader reader(dir / "t");
  EXPECT_THROW(reader.entry(EntryKey(7)), Pallo::CorruptionDetectedException);
  U64 visited = 0;
  EXPECT_THROW(
      {
        for (auto place = reader.first(); place; place = reader.next(*place)) ++visited;
      },
      Pallo::CorruptionDetectedException);
  EXPECT_EQ(visited, 49U);
}

void expectHeaderDamage(std::string const& path, U64 at, U64 word) {
  Reader const before(path);
  U64 const was = wordAt(bytesOf(path), at);
  pokeWord(path, at, word);
  expectRefused(path, Reason::damaged, "the header's number of");
  if (at == Shoal::Format::bucketsAt) {
    EXPECT_THROW(before.entry(EntryKey(7)), Pallo::CorruptionDetectedException) << word;
    EXPECT_THROW(before.first(), Pallo::CorruptionDetectedException) << word;
  }
  pokeWord(path, at, was);
  EXPECT_EQ(Reader(path).entry(EntryKey(7)), record(7, 1));
}

// At opening it is an error, and no empty table; an index of more buckets than the file's chunks could hold
// is not walked.
TEST(Damage, OfALiveWordRefusesTheTable) {
  using namespace Shoal::Format;
  Directory dir;
  { Writer(dir / "t").entryIs(record(7, 1)); }
  for (U64 const at : {bucketsAt, countAt, headAt})
    for (U64 const word : {U64{0}, ~U64{0}}) expectHeaderDamage(dir / "t", at, word);
  for (U64 const buckets : {U64{0}, maxBuckets, maxBuckets + 1})
    expectHeaderDamage(dir / "t", bucketsAt, guard(buckets, bucketsAt));
}

// A writer makes the table anew from what its slots say, whatever live word is damaged; so does a repair, and
// it does not need the header either.
TEST(Damage, OfALiveWordIsHealedByTheWriter) {
  using namespace Shoal::Format;
  for (U64 const at : {bucketsAt, countAt, headAt}) {
    Directory dir;
    {
      Writer writer(dir / "t");
      for (U64 key = 1; key <= 500; ++key) writer.entryIs(record(key, 1));
      for (U64 key = 400; key <= 500; ++key) writer.entryDel(EntryKey(key));
    }
    std::map<U64, U64> const before = contents(Reader(dir / "t"));
    pokeWord(dir / "t", at, 0x1234);
    Writer const writer(dir / "t");
    EXPECT_EQ(writer.writerCounters().rebuilds, 1U);
    EXPECT_EQ(contents(writer), before);
    EXPECT_EQ(contents(Reader(dir / "t")), before);
  }
}

TEST(Repair, KeepsWhatChecksumsProve) {
  using namespace Shoal::Format;
  for (U64 const at : {U64{8}, U64{20}, U64{64}, bucketsAt, chunksAt, countAt, headAt}) {
    Directory dir;
    {
      Writer writer(dir / "t");
      for (U64 key = 1; key <= 500; ++key) writer.entryIs(record(key, key));
      writer.entryIs(record(3, 1000));
      writer.entryDel(EntryKey(4));
    }
    std::map<U64, U64> expected = contents(Reader(dir / "t"));
    U64 const lost = slotOf(dir / "t", 9);
    pokeWord(dir / "t", lost + 24, 1);  // its version
    pokeWord(dir / "t", at, 0x1234);
    expected.erase(9);
    Shoal::Repair const repaired = Shoal::repair(dir / "t");
    EXPECT_EQ(repaired.records, expected.size());
    ASSERT_EQ(repaired.lost.size(), 1U) << at;
    EXPECT_THAT(repaired.lost[0], HasSubstr(fmt::format("the slot at offset {} is damaged", lost)));
    EXPECT_THAT(repaired.lost[0], HasSubstr("a record of key 9 is lost"));
    EXPECT_EQ(contents(Reader(dir / "t")), expected) << at;
    EXPECT_EQ(Shoal::inspect(dir / "t").damage, std::vector<std::string>());
    EXPECT_EQ(Shoal::inspect(dir / "t").unfinished, std::vector<std::string>());
  }
}

TEST(Repair, SaysWhatATruncationCost) {
  for (U64 const cut : {U64{4096}, U64{200000}, U64{400000}}) {
    Directory dir;
    {
      Writer writer(dir / "t");
      for (U64 key = 1; key <= 20; ++key) writer.entryIs(record(key, 1));
    }
    std::filesystem::resize_file(dir / "t", std::filesystem::file_size(dir / "t") - cut);
    Shoal::Repair const repaired = Shoal::repair(dir / "t");
    ASSERT_FALSE(repaired.lost.empty());
    EXPECT_THAT(repaired.lost[0], HasSubstr("the file is cut short to"));
    EXPECT_EQ(repaired.records, cut == 400000 ? 0U : 20U) << cut;
    EXPECT_EQ(contents(Reader(dir / "t")).size(), repaired.records);
  }
  Directory dir;
  { Writer const writer(dir / "t"); }
  std::filesystem::resize_file(dir / "t", 10000);
  EXPECT_EQ(Shoal::repair(dir / "t").records, 0U);
}

// The lines of an index whose directory is damaged are not taken for records.
TEST(Repair, TakesNoLineForARecord) {
  using namespace Shoal::Format;
  Directory dir;
  U64 changes = 0;
  {
    Writer writer(dir / "t");
    for (U64 key = 1; key <= 500; ++key) writer.entryIs(record(key, 1));
    changes = writer.changes();
  }
  pokeWord(dir / "t", indexDirectoryAt(16384), 5);
  Shoal::Repair const repaired = Shoal::repair(dir / "t");
  EXPECT_EQ(repaired.records, 500U);
  EXPECT_EQ(repaired.lost.size(), 1U);
  EXPECT_LE(Writer(dir / "t").changes(), changes + 1000);
}

TEST(Repair, IsRefusedBesideARunningWriter) {
  Directory dir;
  Writer writer(dir / "t");
  writer.entryIs(record(1, 1));
  EXPECT_THROW(Shoal::repair(dir / "t"), Shoal::WriterLockedException);
  EXPECT_EQ(contents(writer).size(), 1U);
}

TEST(Repair, LeavesAloneWhatIsNoTable) {
  Directory dir;
  for (std::string const& letter : {std::string(), std::string("short"), std::string(100000, 'x')}) {
    write(dir / "letter", letter);
    EXPECT_THROW(Shoal::repair(dir / "letter"), Shoal::FileException);
    EXPECT_THROW(Writer(dir / "letter"), Shoal::FileException);
    EXPECT_TRUE(bytesOf(dir / "letter") == letter);
  }
  EXPECT_THROW(Shoal::repair(dir / "none"), Shoal::FileException);
}

// Whoever writes the file under a running reader, with every guard right, leads it nowhere but to damage: a
// file of as many chunks as there can be, and an entry beyond the window that this process could afford.
void readAll(Reader const& reader) {
  try {
    EXPECT_EQ(reader.entry(EntryKey(7)), Config());
  } catch (Pallo::CorruptionDetectedException const&) {
  }
  try {
    for (auto place = reader.first(); place; place = reader.next(*place)) continue;
  } catch (Pallo::CorruptionDetectedException const&) {
  }
}

TEST(Damage, BehindARightGuardStaysInTheWindow) {
  using namespace Shoal::Format;
  Directory dir;
  std::string const path = dir / "t";
  { Writer(path).entryIs(record(7, 1)); }
  U64 const at = entryOf(path, 7);
  U64 const entry = wordAt(bytesOf(path), at);
  auto const mislead = [&](U64 chunks, U64 unit, bool cramped) {
    rlimit const small{U64{4} << 30, U64{4} << 30};
    if (cramped) setrlimit(RLIMIT_AS, &small);
    Reader const reader(path);
    EXPECT_EQ(reader.entry(EntryKey(7)), record(7, 1));  // it remembers what it saw
    pokeWord(path, chunksAt, guard(chunks, chunksAt));
    pokeWord(path, at, Shoal::Format::entry(unit, entry));  // of the same tag
    readAll(reader);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  };
  U64 const most = windowBytes / chunkBytes;
#ifdef __SANITIZE_ADDRESS__
  auto const windows = {false};  // the sanitizer needs more address space than a small one leaves
#else
  auto const windows = {false, true};
#endif
  for (U64 const chunks : {U64{0}, most, most + 1, (U64{1} << 48) - 1}) {
    for (U64 const unit : {U64{0}, U64{1} << 26, U64{1} << 31, (U64{1} << 32) - 1}) {
      for (bool const cramped : windows) {
        EXPECT_EXIT(mislead(chunks, unit, cramped), testing::ExitedWithCode(0), "") << chunks << " " << unit;
        pokeWord(path, chunksAt, guard(2, chunksAt));
        pokeWord(path, at, entry);
      }
    }
  }
}

// The next write that needs it makes the index anew, and readers follow.
TEST(Damage, OfALinkIsHealedByTheNextWrite) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 key = 1; key <= 150; ++key) writer.entryIs(record(key, 1));
  auto const reader = Ostra::make<Reader>(dir / "t");
  Watcher watcher;
  watcher.notifierIs(reader);
  watcher.hasNotificationActiveIs(true);
  settle(*reader, 10);
  U64 const link = 8 * Shoal::Format::linkInLine + Shoal::Format::chunkStart(16384);
  poke(dir / "t", link + 4, std::string(1, static_cast<char>(bytesOf(dir / "t")[link + 4] ^ 1)));
  for (U64 key = 1000; key < 1900; ++key) EXPECT_NO_THROW(writer.entryIs(record(key, 1)));
  EXPECT_EQ(writer.writerCounters().rebuilds, 1U);
  EXPECT_EQ(contents(writer).size(), 1050U);
  settle(*reader, 10);
  EXPECT_EQ(watcher.seen, contents(writer));
}

// Whatever a damaged slot says of its own length.
TEST(Damage, OfASlotCostsNoLaterRecord) {
  Config full(EntryKey(1), OpId(1), ~0U, 7, ~0U);
  for (unsigned i = 0; i < 17; ++i) full.tableIndexIs(TableKey(i), ~0U);
  for (unsigned i = 0; i < 64; ++i) full.dataIs(DataKey(i), ~U64{0});
  for (bool const shortened : {true, false}) {
    Directory dir;
    Writer writer(dir / "t");
    Reader const reader(dir / "t");
    writer.entryIs(shortened ? full : record(1, 1));
    U64 const slot = slotOf(dir / "t", 1);
    U64 const state = wordAt(bytesOf(dir / "t"), slot + 8);
    auto const [head, tail] = Shoal::Format::extent(state);
    if (shortened)
      pokeWord(dir / "t", slot + 8, Shoal::Format::state(state, {1, 0}));
    else
      pokeWord(dir / "t", slot + 8 * (2 + head + tail), 4);  // behind the record
    writer.entryDel(EntryKey(1));
    for (U64 version = 1; version < 1000; ++version) {
      writer.entryIs(record(2, version % 8));
      ASSERT_EQ(reader.entry(EntryKey(2)), record(2, version % 8)) << shortened;
    }
  }
}

TEST(Damage, DoesNotOutliveACleanUp) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 key = 1; key <= 50; ++key) writer.entryIs(record(key, 1));
  U64 const entry = entryOf(dir / "t", 7);
  pokeWord(dir / "t", slotOf(dir / "t", 8) + 16, 88);  // its key
  poke(dir / "t", entry, std::string(1, static_cast<char>(bytesOf(dir / "t")[entry] ^ 4)));
  writer.cleanup();
  EXPECT_EQ(writer.size(), 0U);
  EXPECT_EQ(contents(writer).size(), 0U);
  writer.entryIs(record(7, 2));
  EXPECT_EQ(Reader(dir / "t").entry(EntryKey(7)), record(7, 2));
}

TEST(Damage, IsWhatATruncatedFileReadsAs) {
  Directory dir;
  {
    Writer writer(dir / "t");
    for (U64 key = 1; key <= 3000; ++key) writer.entryIs(record(key, 1));
  }
  std::string const whole = bytesOf(dir / "t");
  Reader reader(dir / "t");
  ASSERT_EQ(contents(reader).size(), 3000U);
  for (U64 const length : {whole.size() / 2, U64{500000}, U64{4096}, U64{0}}) {
    ASSERT_EQ(truncate((dir / "t").c_str(), static_cast<off_t>(length)), 0);
    U64 damaged = 0;
    for (U64 key = 1; key <= 3000; ++key) {
      try {
        Config const r = reader.entry(EntryKey(key));
        EXPECT_TRUE(r == Config() || isWhole(r));
      } catch (Pallo::CorruptionDetectedException const& error) {
        ++damaged;
        EXPECT_THAT(error.what(), HasSubstr("cut short"));
      }
    }
    EXPECT_GT(damaged, 0U) << length;
    EXPECT_NO_FATAL_FAILURE(reader.dispatch());
  }
  poke(dir / "t", 0, whole);
  EXPECT_EQ(reader.entry(EntryKey(5)), record(5, 1)) << "it is mapped anew when its bytes are back";
}

// Everything a reader can do, whatever the file says; true when some of it raised damage.
bool useEverything(std::string const& path) {
  bool damaged = false;
  auto const guarded = [&](auto const& use) {
    try {
      use();
    } catch (Pallo::Exception const&) {
      damaged = true;
    }
  };
  guarded([&] {
    Reader reader(path);
    guarded([&] { reader.size(); });
    for (U64 key = 0; key < 64; ++key)
      guarded([&] {
        Config const r = reader.entry(EntryKey(key));
        if (r != Config() && !isWhole(r)) throw std::runtime_error("a damaged record was returned");
      });
    guarded([&] {
      U64 visited = 0;
      for (auto place = reader.first(); place; place = reader.next(*place))
        if (++visited > 100000) throw std::runtime_error("a walk without end");
    });
    guarded([&] { reader.dispatch(); });
    guarded([&] { Writer(path).entryIs(record(3, 2)); });
    damaged = damaged || reader.corruptions() > 0;
  });
  return damaged;
}

TEST(Damage, OfAnyBitIsNeverReadAsARecord) {
  Directory dir;
  {
    Writer writer(dir / "t", {.ringEntries = 16});
    for (U64 key = 1; key <= 40; ++key) writer.entryIs(record(key, 1));
    for (U64 key = 30; key <= 40; ++key) writer.entryDel(EntryKey(key));
  }
  std::string const whole = bytesOf(dir / "t");
  std::vector<U64> bits;  // every bit of header and live words, and samples of the rest
  for (U64 const header : {U64{0}, Shoal::Format::headerCopyAt})
    for (U64 at = 0; at < sizeof(Shoal::Format::Header); ++at) bits.push_back((header + at) * 8 + at % 8);
  for (U64 at : {4096, 4160, 4224, 4288})
    for (U64 bit = 0; bit < 64; ++bit) bits.push_back(static_cast<U64>(at) * 8 + bit);
  std::mt19937_64 random(11);
  std::vector<U64> used;
  for (U64 at = 8192; at < whole.size(); ++at)
    if (whole[at] != 0) used.push_back(at);
  for (int i = 0; i < 1500; ++i) bits.push_back(used[random() % used.size()] * 8 + random() % 8);
  auto const began = std::chrono::steady_clock::now();
  for (U64 const bit : bits) {
    std::string changed = whole;
    changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ (1 << bit % 8));
    write(dir / "flipped", changed);
    ASSERT_NO_THROW(useEverything(dir / "flipped")) << "bit " << bit;
  }
  auto const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  std::printf("%zu files with one bit flipped, %.1f s\n", bits.size(), seconds);
}

TEST(Damage, OfWholePagesIsSurvived) {
  Directory dir;
  {
    Writer writer(dir / "t", {.ringEntries = 16});
    for (U64 key = 1; key <= 40; ++key) writer.entryIs(record(key, 1));
  }
  std::string const whole = bytesOf(dir / "t");
  std::mt19937_64 random(12);
  for (int i = 0; i < 300; ++i) {
    std::string changed = whole;
    U64 const from = 136 + random() % (whole.size() - 136);
    U64 const length = std::min<U64>(random() % 5000, whole.size() - from);
    for (U64 at = from; at < from + length; ++at) changed[at] = static_cast<char>(i % 2 ? random() : 0);
    write(dir / "noise", changed);
    ASSERT_NO_THROW(useEverything(dir / "noise")) << from << " + " << length;
  }
}

TEST(Validator, RefusesARecordAndReportsIt) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 const key : {1, 2}) writer.entryIs(record(key, 1));
  Reader reader(dir / "t");
  Checks checks([](EntryKey const& key, Config&, char const*) {
    if (key == EntryKey(2)) throw Pallo::CorruptionDetectedException("key 2 would stop the engine");
  });
  reader.validatorIs(&checks);
  EXPECT_EQ(reader.entry(EntryKey(1)), record(1, 1));
  EXPECT_EQ(readEntry(reader, EntryKey(2)), Config());
  EXPECT_EQ(reader.lastCorruption(), "key 2 would stop the engine");
}

TEST(Validator, HearsNothingOfAPeek) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 const key : {1, 2}) writer.entryIs(record(key, 1));
  pokeWord(dir / "t", slotOf(dir / "t", 2) + 24, 5);
  Reader reader(dir / "t");
  int asked = 0;
  Checks checks([&](EntryKey const&, Config&, char const*) { ++asked; });
  reader.validatorIs(&checks);
  EXPECT_EQ(peekEntry(reader, EntryKey(1)), record(1, 1));
  EXPECT_EQ(peekEntry(reader, EntryKey(2)), Config());
  EXPECT_EQ(asked, 0);
  EXPECT_EQ(reader.corruptions(), 0U);
}

TEST(Validator, ReplacesADamagedRecord) {
  Directory dir;
  Writer writer(dir / "t");
  for (U64 const key : {1, 2}) writer.entryIs(record(key, 1));
  pokeWord(dir / "t", slotOf(dir / "t", 2) + 24, 5);  // its version
  Reader reader(dir / "t");
  std::string damage;
  Checks checks([&](EntryKey const& key, Config& r, char const* what) {
    if (!what) return;
    EXPECT_EQ(r, Config());
    damage = what;
    r = record(key.value(), 9);
  });
  reader.validatorIs(&checks);
  EXPECT_EQ(reader.entry(EntryKey(1)), record(1, 1));
  EXPECT_EQ(reader.entry(EntryKey(2)), record(2, 9));
  EXPECT_THAT(damage, HasSubstr("the record of key 2 is damaged"));
  EXPECT_EQ(reader.entry(EntryKey(3)), Config());
  EXPECT_EQ(reader.corruptions(), 0U);
}

TEST(Reader, RefusesToWrite) {
  Directory dir;
  { Writer const writer(dir / "t"); }
  Reader reader(dir / "t");
  auto const textOf = [](auto const& use) {
    try {
      use();
    } catch (Pallo::NoPermissionException const& error) {
      return std::string(error.what());
    } catch (Pallo::UnimplementedException const& error) {
      return std::string(error.what());
    }
    return std::string("nothing raised");
  };
  EXPECT_EQ(textOf([&] { reader.entryIs(record(1, 1)); }), "write to read-only Shoal table");
  EXPECT_EQ(textOf([&] { reader.entryDel(EntryKey(1)); }), "remove from read-only Shoal table");
  EXPECT_EQ(textOf([&] { reader.cleanup(); }), "cleanup of read-only Shoal table");
  EXPECT_EQ(textOf([&] { reader.writerCounters(); }), "writerCounters() not implemented");
}

mode_t modeOf(std::string const& path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status.st_mode & 0777;
}

TEST(Permissions, AreTheOwnersAndTheGroups) {
  Directory dir;
  mode_t const before = umask(0);
  { Writer const writer(dir / "t"); }
  umask(027);
  { Writer const writer(dir / "narrow"); }
  umask(before);
  EXPECT_EQ(modeOf(dir / "t"), 0660U);
  EXPECT_EQ(modeOf(dir / "narrow"), 0640U);
  EXPECT_EQ(modeOf(dir / "t.watch") & 7, 0U);
  EXPECT_EQ(modeOf(dir / "t.watch/slots") & 7, 0U);
}

// A limit on the file's size stands for the full file system: the kernel refuses the space in the same place.
TEST(Growth, AFullFileSystemIsAClearErrorAndChangesNothing) {
  Directory dir;
  Writer writer(dir / "t");
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  rlimit const tight{2 * 1024 * 1024, before.rlim_max};
  auto const handler = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &tight);
  U64 written = 0;
  std::string text;
  try {
    for (; written < 100000; ++written) writer.entryIs(record(written + 1, 1));
  } catch (Shoal::NoSpaceException const& error) {
    text = error.what();
  }
  EXPECT_THAT(text, HasSubstr("cannot grow"));
  EXPECT_GT(written, 1000U);
  EXPECT_EQ(contents(writer).size(), written);
  EXPECT_EQ(writer.size(), written);
  writer.entryDel(EntryKey(1));
  EXPECT_NO_THROW(writer.entryIs(record(2, 2))) << "a free slot is enough";
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_NO_THROW(writer.entryIs(record(written + 1, 1)));
}

// Keys a multiple of a large power of two apart, in a row, or alike under the unseeded mix of their hash.
TEST(Growth, ChosenKeysCostNoMoreThanRandomOnes) {
  auto const linesPerLookUp = [](auto const& keyAt) {
    Directory dir;
    Writer writer(dir / "t");
    for (U64 i = 0; i < 50000; ++i) writer.entryIs(Config(EntryKey(keyAt(i)), OpId(1), 0, 0, 0));
    Shoal::Inspection const found = Shoal::inspect(dir / "t");
    EXPECT_EQ(found.records, 50000U);
    return static_cast<double>(found.linesRead) / 50000;
  };
  std::mt19937_64 random(5);
  double const fair = linesPerLookUp([&](U64) { return random(); });
  // The inverse of the mix: keys whose hashes, but for the seed, end in sixteen zero bits.
  auto const unmix = [](U64 x) {
    x = (x ^ x >> 31 ^ x >> 62) * 0x319642B2D24D8EC3U;
    x = (x ^ x >> 27 ^ x >> 54) * 0x96DE1B173F119089U;
    return x ^ x >> 30 ^ x >> 60;
  };
  ASSERT_EQ(Shoal::Format::mix(unmix(12345)), 12345U);
  double const alike = linesPerLookUp([&](U64 i) { return unmix(i << 16); });
  double const row = linesPerLookUp([](U64 i) { return i; });
  double const strided = linesPerLookUp([](U64 i) { return i << 40; });
  std::printf("index lines a look-up: random %.3f, alike %.3f, in a row %.3f, strided %.3f\n", fair, alike,
              row, strided);
  for (double const chosen : {alike, row, strided}) EXPECT_LT(chosen, 1.25 * fair);
}

}  // namespace
}  // namespace ShoalTest
