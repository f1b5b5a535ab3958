// SPDX-License-Identifier: Apache-2.0
// A writer is ended at each of its stores in turn, by SIGKILL, in a process of its own. After each: a reader
// that watched, and one that came later, find every record whole, and the key under way as before or as
// after; the watcher is told of what was published; the next writer loses nothing, leaves nothing half-done,
// and finishes the job.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <ostream>

#include "fixture.h"
#include "shoal/inspect.h"
#include "shoal/table_view.h"
#include "shoal/table_writer.h"

namespace ShoalTest {
namespace {

using Contents = std::map<U64, U64>;

struct Scenario {
  std::string name;
  std::function<void(Writer&)> prepare;
  std::function<void(Writer&)> operation;
};

long storesLeft = 0;
void dieAtLast() {
  if (--storesLeft < 0) kill(getpid(), SIGKILL);
}

// True when the writer was ended before it finished. `openingToo`: its opening may be where it ends.
bool endedAtStore(std::string const& path, std::function<void(Writer&)> const& operation, long stores,
                  bool openingToo = false) {
  pid_t const child = fork();
  if (child == 0) {
    storesLeft = stores;
    if (openingToo) Shoal::Testing::storePoint = dieAtLast;
    Writer writer(path);
    Shoal::Testing::storePoint = dieAtLast;
    operation(writer);
    Shoal::Testing::storePoint = nullptr;
    _exit(0);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0);
  return WIFSIGNALED(status);
}

std::vector<std::string> damageOf(std::string const& path, bool unfinishedToo) {
  Shoal::Inspection found = Shoal::inspect(path);
  if (unfinishedToo)
    found.damage.insert(found.damage.end(), found.unfinished.begin(), found.unfinished.end());
  return found.damage;
}

void PrintTo(Scenario const& scenario, std::ostream* out) { *out << scenario.name; }

class StorePoints : public testing::TestWithParam<Scenario> {
 protected:
  void checkAfter(std::string const& path, Reader& watched, Watcher& watcher, Contents const& before,
                  Contents const& after) {
    Contents const now = contents(Reader(path));
    ASSERT_TRUE(now == before || now == after);
    ASSERT_EQ(damageOf(path, false), std::vector<std::string>());
    // Nothing but the writer's end wakes this watcher, and what was published is known to it.
    settle(watched);
    ASSERT_EQ(watcher.seen, now);
    {
      Writer next(path);
      ASSERT_EQ(contents(next), now);
      ASSERT_EQ(next.size(), now.size());
      ASSERT_EQ(damageOf(path, true), std::vector<std::string>());
      GetParam().operation(next);
      ASSERT_EQ(contents(next), after);
      ASSERT_EQ(damageOf(path, true), std::vector<std::string>());
    }
    settle(watched);
    ASSERT_EQ(watcher.seen, after);
  }
};

TEST_P(StorePoints, LeaveTheTableWhole) {
  Directory dir;
  std::string const original = dir / "original";
  Contents before;
  Contents after;
  {
    Writer writer(original, {.ringEntries = 16});
    GetParam().prepare(writer);
    before = contents(writer);
  }
  std::filesystem::copy_file(original, dir / "finished");
  {
    Writer writer(dir / "finished");
    GetParam().operation(writer);
    after = contents(writer);
  }
  long stores = 0;
  for (bool ended = true; ended; ++stores) {
    std::string const path = dir / "table";
    std::filesystem::copy_file(original, path, std::filesystem::copy_options::overwrite_existing);
    auto reader = Ostra::make<Reader>(path);
    Watcher watcher;
    watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    watcher.hasNotificationActiveIs(true);
    settle(*reader);
    // Walked the table, and begins its watch when all is over.
    auto lateReader = Ostra::make<Reader>(path);
    Watcher late;
    late.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(lateReader.get()));
    late.hasNotificationActiveIs(true);
    ended = endedAtStore(path, GetParam().operation, stores);
    settle(*lateReader);
    ASSERT_EQ(late.seen, contents(Reader(path))) << "at store " << stores;
    ASSERT_NO_FATAL_FAILURE(checkAfter(path, *reader, watcher, before, after)) << "at store " << stores;
    std::filesystem::remove(path);
  }
  std::printf("%s: ended at each of %ld stores\n", GetParam().name.c_str(), stores - 1);
  EXPECT_GT(stores, 1);
}

void fill(Writer& writer, U64 from, U64 to) {
  for (U64 key = from; key < to; ++key) writer.entryIs(record(key, 1));
}

// Keys that the first index puts into bucket 0, the first to be split.
std::vector<U64> firstBucketKeys;
void fillFirstBucket(Writer& writer, std::size_t count) {
  Shoal::TableView const view(std::make_shared<Shoal::Mapping>(writer.name(), Shoal::Access::read));
  firstBucketKeys.clear();
  for (U64 key = 1000000; firstBucketKeys.size() < count + 1; ++key)
    if (Shoal::Format::bucketOf(view.hash(key), Shoal::Format::firstBuckets) == 0)
      firstBucketKeys.push_back(key);
  for (std::size_t i = 0; i < count; ++i) writer.entryIs(record(firstBucketKeys[i], 1));
}

Scenario const scenarios[] = {
    {"insert", [](Writer& w) { fill(w, 1, 5); }, [](Writer& w) { w.entryIs(record(9, 2)); }},
    {"first", [](Writer&) {}, [](Writer& w) { w.entryIs(record(1, 1)); }},
    {"replace", [](Writer& w) { fill(w, 1, 5); }, [](Writer& w) { w.entryIs(record(3, 2)); }},
    {"remove", [](Writer& w) { fill(w, 1, 5); }, [](Writer& w) { w.entryDel(EntryKey(3)); }},
    // 128 buckets x 1.25 records: the next insert splits.
    {"split", [](Writer& w) { fill(w, 1, 161); }, [](Writer& w) { w.entryIs(record(161, 1)); }},
    // A line holds three entries.
    {"append a line", [](Writer& w) { fillFirstBucket(w, 3); },
     [](Writer& w) { w.entryIs(record(firstBucketKeys[3], 2)); }},
    {"split long chain",
     [](Writer& w) {
       fillFirstBucket(w, 40);
       fill(w, 1, 121);
     },
     [](Writer& w) { w.entryIs(record(121, 1)); }},
    // 8192 buckets a chunk of index.
    {"grow the index", [](Writer& w) { fill(w, 1, 10241); }, [](Writer& w) { w.entryIs(record(10241, 1)); }},
    // 409 slots a chunk.
    {"grow", [](Writer& w) { fill(w, 1, 410); }, [](Writer& w) { w.entryIs(record(410, 1)); }},
    // Every slot was used before the operation comes to it.
    {"reuse",
     [](Writer& w) {
       fill(w, 1, 5);
       for (U64 i = 0; i < 450; ++i) w.entryIs(record(1 + i % 4, 2 + i));
     },
     [](Writer& w) { w.entryIs(record(2, 1000)); }},
};

INSTANTIATE_TEST_SUITE_P(Operations, StorePoints, testing::ValuesIn(scenarios), [](auto const& scenario) {
  std::string name = scenario.param.name;
  std::erase(name, ' ');
  return name;
});

// A writer that makes a damaged index anew, and is ended at each of its stores: the next one does it again,
// and no record is lost.
TEST(Healing, IsBegunAnewWhereItWasEnded) {
  Directory dir;
  std::string const original = dir / "original";
  Contents before;
  {
    Writer writer(original, {.ringEntries = 16});
    fill(writer, 1, 41);
    for (U64 key = 30; key < 41; ++key) writer.entryDel(EntryKey(key));
    before = contents(writer);
  }
  {
    std::fstream file(original, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(Shoal::Format::chunkStart(16) + 8 * Shoal::Format::linkInLine));
    file << "not a link";
  }
  auto const operation = [](Writer& writer) { writer.entryIs(record(50, 1)); };
  Contents after = before;
  after[50] = 1;
  long stores = 0;
  for (bool ended = true; ended; stores += 7) {
    std::string const path = dir / "table";
    std::filesystem::copy_file(original, path, std::filesystem::copy_options::overwrite_existing);
    ended = endedAtStore(path, operation, stores, true);
    Writer next(path);
    ASSERT_TRUE(contents(next) == before || contents(next) == after) << "at store " << stores;
    operation(next);
    ASSERT_EQ(contents(next), after) << "at store " << stores;
    ASSERT_EQ(damageOf(path, true), std::vector<std::string>());
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
  }
  EXPECT_GT(stores, 100);
}

}  // namespace
}  // namespace ShoalTest
