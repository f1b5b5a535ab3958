// SPDX-License-Identifier: Apache-2.0
// A writer under load is ended by SIGKILL at random, again and again, while readers check every record they
// see against its own content. SHOAL_KILLS says how often (300 unless it is set; `make soak` sets 10000).
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

#include "fixture.h"
#include "shoal/inspect.h"

namespace ShoalTest {
namespace {

constexpr U64 keys = 3000;

int kills() {
  char const* const wanted = std::getenv("SHOAL_KILLS");
  return wanted ? std::atoi(wanted) : 300;
}

// Writes until it is ended. The last version of each key it began with is in the table.
[[noreturn]] void writeForEver(std::string const& path, U64 seed) {
  Writer writer(path);
  std::mt19937_64 random(seed);
  for (U64 version = seed << 20;; ++version) {
    U64 const key = 1 + random() % keys;
    if (random() % 4 == 0)
      writer.entryDel(EntryKey(key));
    else
      writer.entryIs(record(key, version));
  }
}

struct Tally {
  U64 reads = 0;
  U64 torn = 0;
  U64 damaged = 0;
};

// Looks up keys at random and walks now and then, until told to stop.
Tally readUntil(std::string const& path, std::atomic<bool> const& stop, U64 seed) {
  Tally tally;
  Reader reader(path);
  std::mt19937_64 random(seed);
  auto const check = [&](EntryKey const& key) {
    try {
      Config const r = reader.entry(key);
      ++tally.reads;
      if (r != Config() && (!isWhole(r) || r.key() != key)) ++tally.torn;
    } catch (Pallo::CorruptionDetectedException const& error) {
      std::printf("%s\n", error.what());
      ++tally.damaged;
    }
  };
  while (!stop) {
    for (int i = 0; i < 20000 && !stop; ++i) check(EntryKey(1 + random() % keys));
    for (auto place = reader.first(); place && !stop; place = reader.next(*place)) check(place->key);
  }
  return tally;
}

TEST(KilledWriter, LosesNothingWhereverItIsKilled) {
  Directory dir;
  std::string const path = dir / "t";
  { Writer const make(path, {.ringEntries = 256}); }
  auto watched = Ostra::make<Reader>(path);
  Watcher watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(watched.get()));
  watcher.hasNotificationActiveIs(true);
  std::atomic<bool> stop = false;
  Tally tally;
  std::thread reading([&] { tally = readUntil(path, stop, 1); });
  std::mt19937_64 random(99);
  int const wanted = kills();
  for (int i = 1; i <= wanted; ++i) {
    pid_t const child = fork();
    if (child == 0) writeForEver(path, static_cast<U64>(i));
    usleep(static_cast<useconds_t>(random() % 8000));
    kill(child, SIGKILL);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    if (i % 3 != 0) continue;  // most writers take over from one that was killed, not from a repaired table
    settle(*watched);
    ASSERT_EQ(watcher.seen, contents(Reader(path))) << "after kill " << i;
    Writer const repaired(path);
    Shoal::Inspection const found = Shoal::inspect(path);
    ASSERT_EQ(found.damage, std::vector<std::string>()) << "after kill " << i;
    ASSERT_EQ(found.unfinished, std::vector<std::string>()) << "after kill " << i;
    ASSERT_EQ(found.records, repaired.size());
  }
  stop = true;
  reading.join();
  std::printf("%d kills, %lu reads beside them\n", wanted, tally.reads);
  EXPECT_GT(tally.reads, 0U);
  EXPECT_EQ(tally.torn, 0U);
  EXPECT_EQ(tally.damaged, 0U);
}

}  // namespace
}  // namespace ShoalTest
