// SPDX-License-Identifier: Apache-2.0
// What a watcher is promised, under a stopped, a slow and a killed reader: late, never lost.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <fstream>
#include <functional>
#include <random>
#include <thread>
#include <tuple>
#include <utility>

#include "watching.h"

namespace ShoalTest {
namespace {

TEST(Notification, TellsWhoFellBehindWhatVanishedAndTheWhole) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 16});
  for (U64 key = 1; key <= 10; ++key) writer.entryIs(record(key, 1));
  Watched w(dir / "t");
  writer.entryDel(EntryKey(4));
  for (U64 i = 0; i < 40; ++i) writer.entryIs(record(5 + i % 3, 2 + i));
  writer.entryDel(EntryKey(6));
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.collections, 2);
  EXPECT_EQ(w.watcher.seen, contents(*w.reader));
  EXPECT_THAT(w.watcher.keys, testing::UnorderedElementsAre(4, 6));
  writer.entryIs(record(77, 1));
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.collections, 2) << "it continues after the whole-collection notification";
  EXPECT_EQ(w.watcher.keys.back(), 77U);
}

// A key that a walk met, and that came and went entirely behind the ring.
TEST(Notification, AKeyMetByAWalkAloneIsMissedWhenItVanishes) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 16});
  Watched w(dir / "t");
  for (U64 i = 0; i < 40; ++i) writer.entryIs(record(1 + i, 1));
  settle(*w.reader, 10);
  ASSERT_EQ(w.watcher.seen.size(), 40U);
  for (U64 i = 0; i < 40; ++i) writer.entryDel(EntryKey(1 + i));
  settle(*w.reader, 10);
  EXPECT_TRUE(w.watcher.seen.empty());
}

// Someone who writes just before and just after the look-up that a notification causes.
class Meddled : public Watcher {
 public:
  std::function<void()> before;
  std::function<void()> after;
  void onEntry(EntryKey const& key) override {
    if (auto const once = std::exchange(before, nullptr)) once();
    Watcher::onEntry(key);
    if (auto const once = std::exchange(after, nullptr)) once();
  }
};

// The first removal is told from the ring, or after the ring has come round.
TEST(Notification, TellsRemovalOfKeyThatCameBackMeanwhile) {
  for (bool const behind : {false, true}) {
    Directory dir;
    Writer writer(dir / "t", {.ringEntries = 16});
    auto const comeRound = [&] {
      for (U64 i = 0; i < 40; ++i) writer.entryIs(record(2, 3 + i));
    };
    auto const reader = Ostra::make<Reader>(dir / "t");
    Meddled watcher;
    watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    watcher.hasNotificationActiveIs(true);
    writer.entryIs(record(1, 1));
    settle(*reader, 10);
    writer.entryDel(EntryKey(1));
    if (behind) comeRound();
    watcher.before = [&] { writer.entryIs(record(1, 2)); };
    watcher.after = [&] {
      EXPECT_TRUE(watcher.seen.contains(1));
      writer.entryDel(EntryKey(1));
      comeRound();
    };
    settle(*reader, 10);
    EXPECT_EQ(watcher.seen, contents(*reader)) << behind;
  }
}

// Its watcher looked it up again on its own account, between two notifications.
TEST(Notification, TellsRemovalOfKeyFoundBeforeItWasTold) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 16});
  Watched w(dir / "t");
  writer.entryIs(record(1, 1));
  settle(*w.reader, 10);
  writer.entryDel(EntryKey(1));
  settle(*w.reader, 10);
  ASSERT_EQ(w.watcher.keys, (std::vector<U64>{1, 1}));
  writer.entryIs(record(1, 2));
  EXPECT_EQ(w.reader->entry(EntryKey(1)), record(1, 2));
  writer.entryDel(EntryKey(1));
  for (U64 i = 0; i < 40; ++i) writer.entryIs(record(2, 3 + i));
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.keys, (std::vector<U64>{1, 1, 1}));
}

// Notes keys and looks nothing up.
class Listener : public Shoal::Table<Config>::Notifiee {
 public:
  void onEntry(EntryKey const& key) override { keys.push_back(key.value()); }
  std::vector<U64> keys;
};

TEST(Notification, TellsRemovalToAWatcherThatLooksNothingUp) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 16});
  auto const reader = Ostra::make<Reader>(dir / "t");
  Listener listener;
  listener.notifierIs(reader);
  listener.hasNotificationActiveIs(true);
  settle(*reader, 10);
  for (U64 const key : {5, 6}) writer.entryIs(record(key, 1));
  writer.entryDel(EntryKey(6));
  settle(*reader, 10);
  ASSERT_EQ(listener.keys, (std::vector<U64>{5, 6, 6}));
  listener.keys.clear();
  writer.entryDel(EntryKey(5));
  for (U64 key = 100; key < 140; ++key) writer.entryIs(record(key, 1));
  settle(*reader, 10);
  EXPECT_EQ(listener.keys, std::vector<U64>{5}) << "what it was told of and is gone";
}

// Whoever else looks a key up and finds it gone has not told its watcher.
TEST(Notification, AKeyThatAnotherFoundGoneIsMissedByItsWatcher) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 16});
  Watched w(dir / "t");
  for (U64 const key : {1, 2}) writer.entryIs(record(key, 1));
  settle(*w.reader, 10);
  w.watcher.keys.clear();
  writer.entryDel(EntryKey(2));
  ASSERT_EQ(w.reader->entry(EntryKey(2)), Config());
  for (U64 key = 100; key < 140; ++key) writer.entryIs(record(key, 1));
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.keys, std::vector<U64>{2});
  EXPECT_EQ(w.watcher.seen, contents(*w.reader));
}

// Does something of its own when it is told of a key.
class Meddler : public Shoal::Table<Config>::Notifiee {
 public:
  void onEntry(EntryKey const& key) override {
    if (then) then(key.value());
  }
  std::function<void(U64)> then;
};

// One watcher has read the record, then it goes, then the next is told of the same change, looks or does not.
TEST(Notification, TellsTheFirstOfAKeyGoneBeforeTheSecond) {
  for (bool const looks : {true, false}) {
    Directory dir;
    Writer writer(dir / "t", {.ringEntries = 16});
    Watched w(dir / "t");
    Meddler second;
    second.notifierIs(w.reader);
    second.hasNotificationActiveIs(true);
    settle(*w.reader, 10);
    bool done = false;
    second.then = [&](U64 key) {
      if (key != 2 || std::exchange(done, true)) return;
      writer.entryDel(EntryKey(2));
      EXPECT_EQ(w.reader->entry(EntryKey(looks ? 2 : 1)), Config());
      for (U64 other = 100; other < 140; ++other) writer.entryIs(record(other, 1));
    };
    writer.entryIs(record(2, 1));
    settle(*w.reader, 10);
    EXPECT_TRUE(done);
    EXPECT_EQ(w.watcher.seen, contents(*w.reader)) << looks;
    EXPECT_EQ(w.watcher.keys, (std::vector<U64>{2, 2})) << looks;
  }
}

TEST(Notification, FollowsAFileReplacedBeforeTheWatchBegan) {
  Directory dir;
  { Writer(dir / "t").entryIs(record(1, 1)); }
  auto const reader = Ostra::make<Reader>(dir / "t");
  Watcher watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
  watcher.hasNotificationActiveIs(true);
  ASSERT_TRUE(watcher.seen.contains(1));
  Writer writer(dir / "t", {.replace = true});
  writer.entryIs(record(2, 1));
  settle(*reader, 10);
  EXPECT_EQ(watcher.seen, contents(*reader));
  EXPECT_TRUE(watcher.seen.contains(2));
}

TEST(Notification, NothingIsSentWhileTheReaderIsAwake) {
  Directory dir;
  Writer writer(dir / "t");
  Watched w(dir / "t");
  U64 const before = writer.writerCounters().wakeUps;
  for (U64 i = 0; i < 1000; ++i) writer.entryIs(record(1, i));
  EXPECT_LE(writer.writerCounters().wakeUps, before + 1);
}

TEST(Notification, EachWatcherHasItsOwnPace) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 64});
  Watched quick(dir / "t");
  Watched slow(dir / "t");
  for (U64 i = 1; i <= 200; ++i) {
    writer.entryIs(record(i % 20, i));
    settle(*quick.reader);
  }
  settle(*quick.reader, 10);
  settle(*slow.reader, 10);
  EXPECT_EQ(quick.watcher.collections, 1);
  EXPECT_EQ(quick.watcher.keys.size(), 200U);
  EXPECT_EQ(slow.watcher.collections, 2);
  EXPECT_EQ(quick.watcher.seen, slow.watcher.seen);
}

// In a process of its own: dispatches until the last key is seen, then says what it knows through its exit
// status.
pid_t startReader(std::string const& path, U64 expected, unsigned pause) {
  return startChild([=] {
    Watched w(path);
    while (!w.watcher.seen.contains(expected)) {
      if (!readable(w.reader->fd(), 20000)) return 2;
      w.reader->dispatch();
      usleep(pause);
    }
    settle(*w.reader, 50);
    return w.watcher.seen == contents(*w.reader) ? 0 : 1;
  });
}

void churn(Writer& writer, U64 writes) {
  std::mt19937_64 random(3);
  for (U64 i = 1; i <= writes; ++i) {
    U64 const key = 1 + random() % 500;
    random() % 3 ? writer.entryIs(record(key, i)) : writer.entryDel(EntryKey(key));
  }
}

constexpr U64 lastKey = 1000000;

TEST(Notification, ASlowReaderEndsWithTheFinalState) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 64});
  pid_t const reader = startReader(dir / "t", lastKey, 3000);
  churn(writer, 200000);
  writer.entryIs(record(lastKey, 1));
  EXPECT_EQ(statusOf(reader), 0);
}

// A file that grows between a reader's two looks at it is not cut short.
TEST(Notification, AReaderMayComeWhileTheFileGrows) {
  Directory dir;
  Writer writer(dir / "t");
  std::atomic<bool> done = false;
  std::thread growing([&] {
    for (U64 key = 1; key <= 60000; ++key) writer.entryIs(record(key, 1));
    done = true;
  });
  U64 mounts = 0;
  do {
    EXPECT_NO_THROW(Ostra::make<Reader>(dir / "t"));
    ++mounts;
  } while (!done);
  growing.join();
  EXPECT_GT(mounts, 1U);
}

TEST(Notification, AStoppedReaderLosesAndCostsNothing) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 64});
  pid_t const reader = startReader(dir / "t", lastKey, 0);
  usleep(100000);
  kill(reader, SIGSTOP);
  U64 const before = writer.writerCounters().wakeUps;
  churn(writer, 100000);
  EXPECT_LE(writer.writerCounters().wakeUps, before + 2);
  writer.entryIs(record(lastKey, 1));
  kill(reader, SIGCONT);
  EXPECT_EQ(statusOf(reader), 0);
}

TEST(Notification, AKilledReaderIsForgotten) {
  Directory dir;
  Writer writer(dir / "t");
  pid_t const reader = startReader(dir / "t", lastKey, 0);
  usleep(50000);
  writer.entryIs(record(1, 1));
  killAndWait(reader);
  churn(writer, 10000);
  Watched other(dir / "t");
  writer.entryIs(record(2, 99));
  settle(*other.reader, 20);
  EXPECT_EQ(other.watcher.seen, contents(writer));
  EXPECT_EQ(slotsTaken(dir / "t"), 1U) << "the dead watcher's slot is free";
}

TEST(Notification, WritersComeAndGoUnderAWatcher) {
  Directory dir;
  { Writer const make(dir / "t"); }
  Watched w(dir / "t");
  for (U64 i = 1; i <= 30; ++i) {
    Writer writer(dir / "t");
    writer.entryIs(record(i, i));
    if (i % 2) settle(*w.reader, 5);
  }
  settle(*w.reader, 20);
  EXPECT_EQ(w.watcher.seen.size(), 30U);
  EXPECT_EQ(w.watcher.collections, 1);
}

TEST(Notification, AnIdlePairUsesNoProcessor) {
  Directory dir;
  Writer writer(dir / "t");
  Watched w(dir / "t");
  writer.entryIs(record(1, 1));
  settle(*w.reader, 20);
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  EXPECT_FALSE(readable(w.reader->fd(), 500));
  getrusage(RUSAGE_SELF, &after);
  EXPECT_LE(after.ru_nvcsw - before.ru_nvcsw, 3) << "nothing woke it";
}

TEST(Notification, AReaderAtRestLooksOnceASecond) {
  Directory dir;
  Writer const writer(dir / "t");
  Watched w(dir / "t");
  w.awaitLook();
  auto const begin = std::chrono::steady_clock::now();
  for (int look = 0; look < 2; ++look) w.awaitLook();
  auto const passed = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(passed, std::chrono::milliseconds(1500)) << "no more often";
  EXPECT_EQ(w.watcher.collections, 1);
}

// Each writer that came and went while the watcher stood still has rung and hung up.
TEST(Notification, TheLastOfManyWritersWakesAWatcher) {
  Directory dir;
  { Writer const make(dir / "t"); }
  Watched w(dir / "t");
  settle(*w.reader);
  for (U64 i = 1; i <= 40; ++i) {
    Writer writer(dir / "t");
    writer.entryIs(record(i, 1));
  }
  Writer last(dir / "t");
  last.entryIs(record(41, 1));
  settle(*w.reader);
  EXPECT_EQ(w.watcher.seen, contents(last));
  for (U64 version = 2; version < 10; ++version) {
    last.entryIs(record(5, version));
    ASSERT_TRUE(readable(w.reader->fd(), 2000)) << version;
    settle(*w.reader);
    ASSERT_EQ(w.watcher.seen[5], version);
  }
}

// Somebody tidied up: the table, the directory beside it, or both are gone, and made anew by the next writer,
// who rings another bell. The watcher goes with it, and its descriptor stays the same.
TEST(Notification, AWatcherFollowsToAnotherSideDirectory) {
  for (bool const tableToo : {true, false}) {
    Directory dir;
    { Writer(dir / "t").entryIs(record(1, 1)); }
    Watched w(dir / "t");
    settle(*w.reader, 10);
    int const fd = w.reader->fd();
    std::filesystem::remove_all(dir / "t.watch");
    if (tableToo) std::filesystem::remove(dir / "t");
    settle(*w.reader, 10);
    for (U64 version = 2; version < 5; ++version) {
      Writer writer(dir / "t");
      settle(*w.reader, 10);
      for (U64 key = 1; key < 4; ++key) {
        writer.entryIs(record(key, version));
        ASSERT_TRUE(readable(fd, 2000)) << "key " << key << " of " << version << ", " << tableToo;
        settle(*w.reader);
        ASSERT_EQ(w.watcher.seen, contents(writer));
      }
    }
    EXPECT_EQ(w.reader->fd(), fd);
  }
}

std::string bytesOf(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
// As a copy onto it does: the file is cut to nothing first, and stays the same file.
void writeOver(std::string const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Another table, an older state of the same, or the same again, copied onto a watched file: the watcher has
// what is in it before and after a writer comes. Whether it looked while the file was cut is the same.
TEST(Notification, AFileThatWasWrittenOverIsFollowed) {
  for (bool const looked : {true, false}) {
    Directory dir;
    for (auto const& [name, from, to] : {std::tuple{"t", 1, 100}, {"u", 50, 3000}}) {
      Writer writer(dir / name);
      for (int key = from; key < to; ++key) writer.entryIs(record(static_cast<U64>(key), 1));
    }
    std::string const early = bytesOf(dir / "t");
    {
      Writer writer(dir / "t");
      for (U64 key = 1; key < 3000; ++key) writer.entryIs(record(key, 2));
    }
    std::string const late = bytesOf(dir / "t");
    Watched w(dir / "t");
    settle(*w.reader, 10);
    U64 version = 10;
    for (std::string const& bytes : {late, bytesOf(dir / "u"), late, early}) {
      settle(*w.reader, 10);  // of the last writer's end, too
      std::filesystem::resize_file(dir / "t", 0);
      if (looked) {
        EXPECT_THROW(w.reader->entry(EntryKey(60)), Pallo::CorruptionDetectedException);
      }
      writeOver(dir / "t", bytes);
      int const collections = w.watcher.collections;
      settle(*w.reader, 10);
      ASSERT_EQ(w.watcher.seen, contents(Reader(dir / "t"))) << looked;
      Writer writer(dir / "t");
      // An older state grows on, and not as it did before.
      for (U64 key = 7000; bytes == early && key < 20000; ++key) writer.entryIs(record(key, 3));
      settle(*w.reader, 10);
      ASSERT_EQ(w.watcher.seen, contents(writer)) << looked;
      EXPECT_TRUE(!looked || w.watcher.collections > collections) << "what it found damaged is whole";
      writer.entryIs(record(60, ++version));
      settle(*w.reader, 100);
      ASSERT_EQ(w.watcher.seen, contents(writer)) << looked;
      EXPECT_EQ(contents(*w.reader), w.watcher.seen);
    }
    std::filesystem::rename(dir / "u", dir / "t");
    settle(*w.reader, 10);
    writeOver(dir / "t", late);
    settle(*w.reader, 10);
    EXPECT_EQ(w.watcher.seen, contents(Reader(dir / "t")));
  }
}

// A look-up may be the first to find the file's bytes back. What others found damaged before is to be told of
// again; and another table's bytes are not read as if they were this one's.
TEST(Notification, TellsTheWholeOfAFileFoundWholeByALookUp) {
  Directory dir;
  { Writer(dir / "t").entryIs(record(60, 1)); }
  { Writer(dir / "u").entryIs(record(60, 2)); }
  std::string const bytes = bytesOf(dir / "t");
  Watched w(dir / "t");
  settle(*w.reader, 10);
  std::filesystem::resize_file(dir / "t", 0);
  EXPECT_THROW(w.reader->entry(EntryKey(60)), Pallo::CorruptionDetectedException);
  writeOver(dir / "t", bytes);
  EXPECT_EQ(w.reader->entry(EntryKey(60)), record(60, 1));
  int const collections = w.watcher.collections;
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.collections, collections + 1);
  std::filesystem::resize_file(dir / "t", 0);
  EXPECT_THROW(w.reader->entry(EntryKey(60)), Pallo::CorruptionDetectedException);
  writeOver(dir / "t", bytesOf(dir / "u"));
  EXPECT_THROW(w.reader->entry(EntryKey(60)), Pallo::CorruptionDetectedException);
  settle(*w.reader, 10);
  EXPECT_EQ(w.reader->entry(EntryKey(60)), record(60, 2));
  EXPECT_EQ(w.watcher.seen, (std::map<U64, U64>{{60, 2}}));
}

class Thrower : public Watcher {
 public:
  void onEntry(EntryKey const& key) override {
    if (keys.size() % 3 == 2) {
      keys.push_back(0);
      throw std::runtime_error("this one did not go well");
    }
    Watcher::onEntry(key);
  }
  void onEntryColl() override {
    if (++throws_ == 2) throw std::runtime_error("nor did this");
    Watcher::onEntryColl();
  }

 private:
  int throws_ = 0;
};

// Dispatches until nothing more comes; an exception costs the notification it came from.
int settleThrough(Reader& reader) {
  int thrown = 0;
  while (readable(reader.fd())) try {
      reader.dispatch();
    } catch (std::runtime_error const&) {
      ++thrown;
    }
  return thrown;
}

TEST(Notification, AHandlerThatThrowsCostsNoLaterNotification) {
  Directory dir;
  Writer writer(dir / "t", {.ringEntries = 64});
  auto const reader = Ostra::make<Reader>(dir / "t");
  Thrower watcher;
  watcher.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
  watcher.hasNotificationActiveIs(true);
  settleThrough(*reader);
  for (U64 key = 1; key <= 30; ++key) writer.entryIs(record(key, 1));
  EXPECT_EQ(settleThrough(*reader), 10);
  EXPECT_EQ(watcher.keys.size(), 30U);
  // The same when it fell behind: those who vanished are told of one by one, and then there is to be a walk.
  for (U64 key = 1; key <= 20; ++key) writer.entryDel(EntryKey(key));
  for (U64 key = 100; key < 200; ++key) writer.entryIs(record(key, 1));
  watcher.keys.clear();
  EXPECT_GT(settleThrough(*reader), 6);
  EXPECT_EQ(watcher.keys.size(), 20U);
  EXPECT_EQ(watcher.collections, 2);
  EXPECT_EQ(watcher.seen.count(150), 1U);
  EXPECT_FALSE(readable(reader->fd()));
}

// A writer meets the watcher as soon as it has a descriptor for its FIFO.
TEST(Notification, AWriterShortOfDescriptorsMeetsItsWatcherLater) {
  for (int spare = 0; spare < 2; ++spare) {
    Directory dir;
    Writer writer(dir / "t");
    Baton watches;
    pid_t const child = startChild([&] {
      Watched w(dir / "t");
      watches.pass();
      return w.sees(2, 1, 10000) && w.watcher.seen.contains(1) ? 0 : 1;
    });
    ASSERT_TRUE(watches.take());
    U64 const before = writer.writerCounters().wakeUps;
    {
      FewDescriptors const few(spare);
      writer.entryIs(record(1, 1));
      EXPECT_EQ(writer.writerCounters().wakeUps, before + static_cast<unsigned>(spare));
    }
    usleep(50000);
    writer.entryIs(record(2, 1));
    EXPECT_EQ(writer.writerCounters().wakeUps, before + 1 + static_cast<unsigned>(spare)) << "it was met";
    EXPECT_EQ(statusOf(child), 0) << spare;
  }
}

// A process without a descriptor to spare hears of each change all the same, and is not woken without end.
TEST(Notification, AWatcherWithoutSpareDescriptorsHearsAndRests) {
  Directory dir;
  Writer writer(dir / "t");
  Baton ready, written;
  pid_t const child = startChild([&] {
    Watched w(dir / "t");
    FewDescriptors const few(0);
    for (U64 key = 1; key <= 5; ++key) {
      if (!ready.pass() || !written.take()) return 2;
      int dispatches = 0;
      for (; readable(w.reader->fd(), dispatches ? 50 : 2000) && dispatches < 10; ++dispatches)
        w.reader->dispatch();
      if (!w.watcher.seen.contains(key)) return 3;
      if (dispatches == 10) return 4;
    }
    return 0;
  });
  for (U64 key = 1; key <= 5 && ready.take(); ++key) {
    writer.entryIs(record(key, 1));
    written.pass();
  }
  EXPECT_EQ(statusOf(child), 0) << "3: never woken; 4: woken without end";
}

// A watch that cannot begin leaves nothing behind, and says what was missing. It needs a descriptor to show
// and a timer, and with those it looks once a second.
TEST(Notification, AWatchThatFailsKeepsNoDescriptor) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "without a descriptor the sanitizer takes an exception's type for damaged";
#endif
  Directory dir;
  Writer writer(dir / "t");
  int const needed = 2;
  for (int spare = 0; spare < needed; ++spare) {
    Reader reader(dir / "t");
    int const before = dup(0);
    close(before);
    std::exception_ptr error;
    {
      FewDescriptors const few(spare);
      try {
        reader.fd();
      } catch (...) {
        error = std::current_exception();
      }
    }
    ASSERT_TRUE(error) << "it began with " << spare;
    try {
      std::rethrow_exception(error);
    } catch (Shoal::FileException const& said) {
      EXPECT_THAT(said.what(), testing::HasSubstr("Too many open files")) << spare;
    }
    int const after = dup(0);
    close(after);
    EXPECT_EQ(after, before) << spare;
    EXPECT_EQ(slotsTaken(dir / "t"), 0U);
  }
}

// A watch that lacks the descriptors for its slot looks once a second, says so once, and is woken at once
// when it has them.
TEST(Notification, AWatchShortOfDescriptorsRegistersLater) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "without a descriptor the sanitizer takes an exception's type for damaged";
#endif
  for (int const spare : {2, 3, 4, 5}) {
    Directory dir;
    Writer writer(dir / "t");
    auto const reader = Ostra::make<Reader>(dir / "t");
    {
      FewDescriptors const few(spare);
      reader->fd();
      for (int look = 0; look < 3; ++look) {
        settle(*reader, 20);
        writer.entryIs(record(1, static_cast<U64>(look)));
        ASSERT_TRUE(readable(reader->fd(), 1500)) << spare;
      }
      EXPECT_EQ(reader->corruptions(), 1U) << spare << ", said once: " << reader->lastCorruption();
      EXPECT_THAT(reader->lastCorruption(), testing::HasSubstr("Too many open files"));
    }
    ASSERT_TRUE(readable(reader->fd(), 1500));
    settle(*reader, 20);
    EXPECT_EQ(slotsTaken(dir / "t"), 1U);
    U64 const before = writer.writerCounters().wakeUps;
    writer.entryIs(record(2, 1));
    EXPECT_EQ(writer.writerCounters().wakeUps, before + 1) << spare;
    EXPECT_TRUE(readable(reader->fd()));
  }
}

// A reader that cannot open the file that replaced its own, or the new directory beside it, says so once, and
// follows when it can, without another change.
class Follows : public testing::TestWithParam<bool> {};

TEST_P(Follows, LaterWhenShortOfDescriptors) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "without a descriptor the sanitizer takes an exception's type for damaged";
#endif
  bool const sidecarToo = GetParam();
  Directory dir;
  { Writer(dir / "t").entryIs(record(1, 1)); }
  Watched w(dir / "t");
  settle(*w.reader, 10);
  if (sidecarToo) std::filesystem::remove_all(dir / "t.watch");
  Baton written, more;
  pid_t const child = startChild([&] {
    Writer writer(dir / "t", {.replace = true});
    for (U64 key = 2;; ++key) {
      writer.entryIs(record(key, 1));
      if (!written.pass() || !more.take()) return 2;
    }
  });
  ASSERT_TRUE(written.take());
  {
    FewDescriptors const few(0);
    for (int i = 0; i < 3; ++i) w.reader->dispatch();
    EXPECT_EQ(w.watcher.seen, (std::map<U64, U64>{{1, 1}}));
    EXPECT_THAT(w.reader->lastCorruption(), testing::HasSubstr("cannot be opened"));
    EXPECT_LE(w.reader->corruptions(), sidecarToo ? 2U : 1U) << "each is said once";
  }
  EXPECT_TRUE(w.dispatchUntil([&] { return w.watcher.seen == std::map<U64, U64>{{2, 1}}; }, 1500));
  settle(*w.reader, 500);
  more.pass();
  ASSERT_TRUE(written.take());
  EXPECT_TRUE(readable(w.reader->fd(), 500));
  settle(*w.reader, 10);
  EXPECT_EQ(w.watcher.seen, (std::map<U64, U64>{{2, 1}, {3, 1}}));
  killAndWait(child);
}

INSTANTIATE_TEST_SUITE_P(Notification, Follows, testing::Bool(),
                         [](auto const& sidecarToo) { return sidecarToo.param ? "FileAndSidecar" : "File"; });

// The same where no writer comes that would wake the reader.
TEST(Notification, AReaderShortOfDescriptorsFollowsByItself) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "without a descriptor the sanitizer takes an exception's type for damaged";
#endif
  Directory dir;
  { Writer(dir / "t").entryIs(record(1, 1)); }
  { Writer(dir / "other").entryIs(record(2, 1)); }
  Watched w(dir / "t");
  settle(*w.reader, 10);
  std::filesystem::rename(dir / "other", dir / "t");
  {
    FewDescriptors const few(0);
    for (int i = 0; i < 3; ++i) w.reader->dispatch();
    EXPECT_EQ(w.reader->corruptions(), 1U);
  }
  EXPECT_TRUE(w.sees(2, 1, 500)) << "it tries again soon";
  Writer writer(dir / "t");
  writer.entryIs(record(3, 1));
  settle(*w.reader, 500);
  EXPECT_EQ(w.watcher.seen, contents(writer));
}

}  // namespace
}  // namespace ShoalTest
