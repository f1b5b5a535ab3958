// SPDX-License-Identifier: Apache-2.0
// A shared table beside LMDB and beside the floor, in one run: reads, iteration, writes, wake-ups, bytes a
// record.
//
//   floor read       a plain hash probe to the record's place in the same mapped file, and a copy of the
//                    bytes in use
//   floor iteration  a copy of every record's whole image, in the order in which they lie in memory
//   wake-up          the round trip of two unrelated processes, each asleep in poll(), over two of each kind
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"
#ifdef SHOAL_BENCH_LMDB
#include <lmdb.h>
#endif

namespace {

using Config = Vantrel::EntryConfig;
using Traits = Shoal::RecordTraits<Config>;
using Vantrel::DataKey;
using Vantrel::EntryKey;
using Vantrel::OpId;
using Vantrel::TableKey;
using Clock = std::chrono::steady_clock;

U64 sink = 0;  // what is read is used

Config record(U64 key, U64 version) {
  Config r(EntryKey(key), OpId(version), static_cast<U32>(key), 1, 100);
  r.tableIndexIs(TableKey(0), static_cast<U32>(key));
  for (unsigned i = 0; i < 4; ++i) r.dataIs(DataKey(i), key + i + 1);
  return r;
}

// Nanoseconds of processor time of this thread: what others do on the machine is not in it.
double processorTime() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// The best of five runs: nanoseconds an operation.
double nanoseconds(U64 operations, std::function<void()> const& run) {
  double best = 1e18;
  for (int i = 0; i < 5; ++i) {
    double const began = processorTime();
    run();
    double const spent = processorTime() - began;
    best = std::min(best, spent / static_cast<double>(operations));
  }
  return best;
}

double median(std::vector<double>& all) {
  std::ranges::nth_element(all, all.begin() + static_cast<long>(all.size() / 2));
  return all[all.size() / 2];
}

// Nanoseconds of one read: the median over slices so short that most are not interrupted, after a first
// round.
template <class Read>
double nanosecondsOfRead(std::vector<U64> const& order, Read read) {
  constexpr std::size_t slice = 500;
  std::vector<double> all;
  for (int round = 0; round < 5; ++round) {
    all.clear();
    for (std::size_t from = 0; from + slice <= order.size(); from += slice) {
      double const began = processorTime();
      for (std::size_t i = from; i < from + slice; ++i) read(order[i]);
      all.push_back((processorTime() - began) / slice);
    }
  }
  return median(all);
}

// A plain open-addressing table from key to the record's slot in the mapped file.
class Floor {
 public:
  Floor(Shoal::TableView& view, std::vector<U64> const& keys) : mask_(std::bit_ceil(keys.size() * 2) - 1) {
    places_.assign(mask_ + 1, {0, nullptr});
    for (auto place = view.walk(0); place; place = view.walk(place->hint)) {
      U64 const unit = Shoal::Format::entryUnit(view.visitedEntry());
      U64 at = Shoal::Format::mix(place->key) & mask_;
      while (places_[at].image) at = (at + 1) & mask_;
      places_[at] = {place->key, view.mapping().base() + unit * 64 + Shoal::Format::slotImageAt};
      images_.push_back(places_[at].image);
    }
    std::ranges::sort(images_);
  }
  std::byte const* find(U64 key) const {
    U64 at = Shoal::Format::mix(key) & mask_;
    while (places_[at].key != key) at = (at + 1) & mask_;
    return places_[at].image;
  }
  std::vector<std::byte const*> const& images() const { return images_; }

 private:
  struct Place {
    U64 key;
    std::byte const* image;
  };
  U64 mask_;
  std::vector<Place> places_;
  std::vector<std::byte const*> images_;
};

#ifdef SHOAL_BENCH_LMDB
void must(int code) {
  if (code == 0) return;
  fmt::print(stderr, "lmdb: {}\n", mdb_strerror(code));
  std::exit(1);
}
class Lmdb {
 public:
  Lmdb(std::string const& path, U64 records) {
    must(mdb_env_create(&env_));
    must(mdb_env_set_mapsize(env_, (records + 10000) * 2048));
    must(mdb_env_open(env_, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP | MDB_NORDAHEAD, 0600));
    MDB_txn* txn;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    must(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi_));
    must(mdb_txn_commit(txn));
  }
  ~Lmdb() { mdb_env_close(env_); }
  void fill(std::vector<U64> const& keys) {
    MDB_txn* txn;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    for (U64 const key : keys) put(txn, key, 1);
    must(mdb_txn_commit(txn));
  }
  void put(MDB_txn* txn, U64 key, U64 version) {
    std::byte image[Traits::bytes];
    Traits::encode(record(key, version), image);
    MDB_val k{sizeof key, &key};
    MDB_val v{sizeof image, image};
    must(mdb_put(txn, dbi_, &k, &v, 0));
  }
  void write(U64 key, U64 version) {
    MDB_txn* txn;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    put(txn, key, version);
    must(mdb_txn_commit(txn));
  }
  void remove(U64 key) {
    MDB_txn* txn;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    MDB_val k{sizeof key, &key};
    must(mdb_del(txn, dbi_, &k, nullptr));
    must(mdb_txn_commit(txn));
  }
  // One read transaction a read, begun anew each time as a reader must that wants the present state.
  Config read(U64 key) {
    if (!reading_) {
      must(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reading_));
    } else {
      must(mdb_txn_renew(reading_));
    }
    MDB_val k{sizeof key, &key};
    MDB_val v;
    must(mdb_get(reading_, dbi_, &k, &v));
    Config const r = Traits::decode(static_cast<std::byte const*>(v.mv_data));
    mdb_txn_reset(reading_);
    return r;
  }

 private:
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_txn* reading_ = nullptr;
};
#endif

std::vector<U64> someKeys(U64 count) {
  std::mt19937_64 random(count);
  std::vector<U64> keys(count);
  for (U64& key : keys) key = random() | 1;
  return keys;
}

void row(std::string const& what, double ours, double other, std::string const& ratio) {
  fmt::print("  {:<34}{:>10.1f}{:>12.1f}   {}\n", what, ours, other, ratio);
}

void measure(std::string const& dir, U64 count) {
  fmt::print("\n{} records of 616 bytes, 1 table index, 4 data words\n", count);
  fmt::print("  {:<34}{:>10}{:>12}\n", "nanoseconds", "table", "other");
  std::string const path = dir + "/table";
  std::vector<U64> const keys = someKeys(count);
  Shoal::WriterTable<Config> writer(path, {.replace = true});
  for (U64 const key : keys) writer.entryIs(record(key, 1));
  Shoal::ReaderTable<Config> const reader(path);
  Shoal::TableView view(std::make_shared<Shoal::Mapping>(path, Shoal::Mapping::Access::read));
  Floor const floor(view, keys);
  std::vector<U64> order(std::min<U64>(200000, std::max<U64>(count, 50000)));
  std::mt19937_64 random(1);
  for (U64& key : order) key = keys[random() % count];

  double const read =
      nanosecondsOfRead(order, [&](U64 key) { sink += reader.entry(EntryKey(key)).data(DataKey(3)); });
  constexpr std::size_t inUse = 136;
  double const floorRead = nanosecondsOfRead(order, [&](U64 key) {
    std::byte copy[inUse];
    std::memcpy(copy, floor.find(key), inUse);
    asm volatile("" : : "r"(copy) : "memory");
  });
  double const floorWhole = nanosecondsOfRead(order, [&](U64 key) {
    std::byte copy[Traits::bytes];
    std::memcpy(copy, floor.find(key), Traits::bytes);
    asm volatile("" : : "r"(copy) : "memory");
  });
  row("read / floor (bytes in use)", read, floorRead,
      fmt::format("{:.2f} times, at most 2", read / floorRead));
  row("read / floor (whole image)", read, floorWhole, fmt::format("{:.2f} times", read / floorWhole));

  double const walk = nanoseconds(count, [&] {
    for (auto place = reader.first(); place; place = reader.next(*place))
      sink += reader.entry(place->key).data(DataKey(3));
  });
  std::vector<std::byte> copies(count * Traits::bytes);
  double const floorWalk = nanoseconds(count, [&] {
    std::byte* to = copies.data();
    for (std::byte const* image : floor.images()) {
      std::memcpy(to, image, Traits::bytes);
      to += Traits::bytes;
    }
    sink += static_cast<U64>(copies[count]);
  });
  row("iteration / copy of the records", walk, floorWalk,
      fmt::format("{:.2f} times, at most 2", walk / floorWalk));
  U64 const bytes = view.mapping().fileBytes();

  constexpr U64 writes = 20000;
  U64 version = 2;
  double const replace = nanoseconds(writes, [&] {
    for (U64 i = 0; i < writes; ++i) writer.entryIs(record(order[i], ++version));
  });
  U64 next = 2;  // even keys are new
  double insert = 1e18;
  double remove = 1e18;
  for (int i = 0; i < 3; ++i) {
    U64 const from = next;
    double const began = processorTime();
    for (U64 k = 0; k < writes; ++k, next += 2) writer.entryIs(record(next * 0x9E3779B97F4A7C15U, 1));
    double const between = processorTime();
    for (U64 k = from; k < next; k += 2) writer.entryDel(EntryKey(k * 0x9E3779B97F4A7C15U));
    double const ended = processorTime();
    insert = std::min(insert, (between - began) / writes);
    remove = std::min(remove, (ended - between) / writes);
  }
#ifdef SHOAL_BENCH_LMDB
  Lmdb lmdb(dir + "/lmdb", count);
  lmdb.fill(keys);
  double const lmdbRead = nanosecondsOfRead(order, [&](U64 key) { sink += lmdb.read(key).data(DataKey(3)); });
  double const lmdbReplace = nanoseconds(writes, [&] {
    for (U64 i = 0; i < writes; ++i) lmdb.write(order[i], ++version);
  });
  double const began = processorTime();
  for (U64 k = 0; k < writes; ++k) lmdb.write((2 + 2 * k) * 0x9E3779B97F4A7C15U, 1);
  double const between = processorTime();
  for (U64 k = 0; k < writes; ++k) lmdb.remove((2 + 2 * k) * 0x9E3779B97F4A7C15U);
  double const ended = processorTime();
  double const lmdbInsert = (between - began) / writes;
  double const lmdbRemove = (ended - between) / writes;
  auto const faster = [](double a, double b, int least) {
    return fmt::format("{:.1f} times faster, at least {}", b / a, least);
  };
  row("read / LMDB", read, lmdbRead, faster(read, lmdbRead, 5));
  row("insert / LMDB commit", insert, lmdbInsert, faster(insert, lmdbInsert, 3));
  row("replace / LMDB commit", replace, lmdbReplace, faster(replace, lmdbReplace, 3));
  row("remove / LMDB commit", remove, lmdbRemove, faster(remove, lmdbRemove, 3));
#else
  fmt::print("  LMDB is not installed: its columns are skipped\n");
  fmt::print("  insert {:.1f}, replace {:.1f}, remove {:.1f}\n", insert, replace, remove);
#endif
  fmt::print("  {:<34}{:>10.1f}\n", "bytes of memory a record",
             static_cast<double>(bytes) / static_cast<double>(count));
  std::filesystem::remove_all(dir + "/lmdb");
}

// ---- Wake-ups

void await(int fd) {
  pollfd p{fd, POLLIN, 0};
  poll(&p, 1, -1);
}

constexpr int roundTrips = 4000;

// The median round trip of `ping` answered by `answer` in another process, in microseconds.
double roundTrip(std::function<void()> const& answer, std::function<void()> const& ping) {
  pid_t const child = fork();
  if (child == 0) {
    answer();
    _exit(0);
  }
  usleep(100000);
  std::vector<double> all;
  for (int i = 0; i < roundTrips; ++i) {
    auto const began = Clock::now();
    ping();
    all.push_back(std::chrono::duration<double, std::micro>(Clock::now() - began).count());
  }
  waitpid(child, nullptr, 0);
  return median(all);
}

double bareRoundTrip(int here, int there, int toHere, int toThere, std::size_t bytes) {
  U64 word = 1;
  auto const take = [&](int fd) {
    await(fd);
    if (read(fd, &word, bytes) < 0) std::exit(1);
  };
  auto const give = [&](int fd) {
    word = 1;
    if (write(fd, &word, bytes) < 0) std::exit(1);
  };
  return roundTrip(
      [&] {
        for (int i = 0; i < roundTrips; ++i) take(there), give(toHere);
      },
      [&] { give(toThere), take(here); });
}

class Counter : public Shoal::Table<Config>::Notifiee {
 public:
  void onEntry(EntryKey const&) override { ++count; }
  int count = 0;
};

void awaitChange(Shoal::ReaderTable<Config>& reader, Counter& counter) {
  for (int const before = counter.count; counter.count == before;) {
    await(reader.fd());
    reader.dispatch();
  }
}

// Two tables, each written by one process and watched by the other.
double tableRoundTrip(std::string const& dir) {
  { Shoal::WriterTable<Config> const make(dir + "/ping", {.replace = true}); }
  { Shoal::WriterTable<Config> const make(dir + "/pong", {.replace = true}); }
  auto const watch = [](std::string const& path, Counter& counter) {
    auto reader = Ostra::make<Shoal::ReaderTable<Config>>(path);
    counter.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    counter.hasNotificationActiveIs(true);
    while (true) {
      pollfd p{reader->fd(), POLLIN, 0};
      if (poll(&p, 1, 50) != 1) return reader;
      reader->dispatch();
    }
  };
  pid_t const child = fork();
  if (child == 0) {
    Shoal::WriterTable<Config> pong(dir + "/pong");
    Counter counter;
    auto const reader = watch(dir + "/ping", counter);
    for (U64 i = 1; i <= roundTrips; ++i) {
      awaitChange(*reader, counter);
      pong.entryIs(record(1, i));
    }
    _exit(0);
  }
  Shoal::WriterTable<Config> ping(dir + "/ping");
  Counter counter;
  auto const reader = watch(dir + "/pong", counter);
  usleep(300000);
  std::vector<double> all;
  for (U64 i = 1; i <= roundTrips; ++i) {
    auto const began = Clock::now();
    ping.entryIs(record(1, i));
    awaitChange(*reader, counter);
    all.push_back(std::chrono::duration<double, std::micro>(Clock::now() - began).count());
  }
  waitpid(child, nullptr, 0);
  return median(all);
}

void wakeUps(std::string const& dir) {
  fmt::print("\nround trip between two sleeping processes, median of {}, best of 3, microseconds\n",
             roundTrips);
  double event = 1e9;
  double fifo = 1e9;
  double datagram = 1e9;
  double table = 1e9;
  for (int i = 0; i < 3; ++i) {
    int const a = eventfd(0, 0);
    int const b = eventfd(0, 0);
    event = std::min(event, bareRoundTrip(a, b, a, b, 8));
    int one[2];
    int two[2];
    if (pipe(one) != 0 || pipe(two) != 0) std::exit(1);
    fifo = std::min(fifo, bareRoundTrip(one[0], two[0], one[1], two[1], 1));
    int left[2];
    int right[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, left) != 0 || socketpair(AF_UNIX, SOCK_DGRAM, 0, right) != 0)
      std::exit(1);
    datagram = std::min(datagram, bareRoundTrip(left[0], right[0], left[1], right[1], 1));
    table = std::min(table, tableRoundTrip(dir));
    for (int const fd : {a, b, one[0], one[1], two[0], two[1], left[0], left[1], right[0], right[1]})
      close(fd);
  }
  double const best = std::min({event, fifo, datagram});
  fmt::print("  eventfd {:.2f}   FIFO {:.2f}   datagram {:.2f}\n", event, fifo, datagram);
  fmt::print("  write to notification and back: {:.2f}, {:.2f} times the best bare wake-up, at most 1.5\n",
             table, table / best);
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = "/dev/shm/shoal-bench-XXXXXX";
  if (!mkdtemp(dir.data())) return 1;
  U64 const most = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
  for (U64 const count : {U64{10000}, U64{100000}, U64{1000000}})
    if (count <= most) measure(dir, count);
  wakeUps(dir);
  std::filesystem::remove_all(dir);
  return sink == 42 ? 1 : 0;
}
