// SPDX-License-Identifier: Apache-2.0
// The round trip of two unrelated processes, each asleep in poll(): over two tables, each written by one and
// watched by the other; the floor is the best of two eventfds, two FIFOs and two datagram sockets, by turns.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "bench/report/report.h"
#include "bench/report/table.h"
#include "bench/shoal/world.h"

namespace ShoalBench {
namespace {

using Clock = std::chrono::steady_clock;

int roundTrips() { return Bench::brief() ? 200 : 2000; }

void await(int fd) {
  pollfd p{fd, POLLIN, 0};
  ::poll(&p, 1, -1);
}

// The median round trip, in nanoseconds, of `ping` that `answer` answers in another process.
double roundTrip(std::function<void()> const& answer, std::function<void()> const& ping) {
  pid_t const child = ::fork();
  if (child == 0) {
    answer();
    ::_exit(0);
  }
  ::usleep(20000);
  std::vector<double> all;
  for (int i = 0; i < roundTrips(); ++i) {
    auto const began = Clock::now();
    ping();
    all.push_back(std::chrono::duration<double, std::nano>(Clock::now() - began).count());
  }
  ::waitpid(child, nullptr, 0);
  return Bench::median(std::move(all));
}

struct Ends {
  int read;
  int write;
};

double bareRoundTrip(Ends here, Ends there, std::size_t bytes) {
  U64 word = 1;
  auto const take = [&](int fd) {
    await(fd);
    if (::read(fd, &word, bytes) < 0) ::_exit(1);
  };
  auto const give = [&](int fd) {
    word = 1;
    if (::write(fd, &word, bytes) < 0) ::_exit(1);
  };
  double const median = roundTrip(
      [&] {
        for (int i = 0; i < roundTrips(); ++i) take(there.read), give(here.write);
      },
      [&] { give(there.write), take(here.read); });
  for (int const fd : {here.read, there.read}) ::close(fd);
  if (here.write != here.read) ::close(here.write), ::close(there.write);
  return median;
}

double overEvents() {
  int const a = ::eventfd(0, 0);
  int const b = ::eventfd(0, 0);
  return bareRoundTrip({a, a}, {b, b}, 8);
}
double overFifos() {
  int a[2];
  int b[2];
  if (::pipe(a) != 0 || ::pipe(b) != 0) throw std::runtime_error("no pipes");
  return bareRoundTrip({a[0], a[1]}, {b[0], b[1]}, 1);
}
double overDatagrams() {
  int a[2];
  int b[2];
  if (::socketpair(AF_UNIX, SOCK_DGRAM, 0, a) != 0 || ::socketpair(AF_UNIX, SOCK_DGRAM, 0, b) != 0)
    throw std::runtime_error("no sockets");
  return bareRoundTrip({a[0], a[1]}, {b[0], b[1]}, 1);
}

class Counter : public Shoal::Table<Config>::Notifiee {
 public:
  void onEntry(EntryKey const&) override { ++count; }
  int count = 0;
};

// A table that is watched: what was to be told at first has been told.
struct Watched {
  explicit Watched(std::string const& path) : reader(Ostra::make<Shoal::ReaderTable<Config>>(path)) {
    counter.notifierIs(Ostra::Ptr<Shoal::Table<Config> const>(reader.get()));
    counter.hasNotificationActiveIs(true);
    for (pollfd p{reader->fd(), POLLIN, 0}; ::poll(&p, 1, 10) == 1;) reader->dispatch();
  }
  void awaitChange() {
    for (int const before = counter.count; counter.count == before;) {
      await(reader->fd());
      reader->dispatch();
    }
  }
  Ostra::Ptr<Shoal::ReaderTable<Config>> reader;
  Counter counter;
};

double overTables() {
  std::string const ping = directory() + "/ping";
  std::string const pong = directory() + "/pong";
  for (std::string const& path : {ping, pong}) Shoal::WriterTable<Config> const make(path, {.replace = true});
  std::unique_ptr<Shoal::WriterTable<Config>> writer;
  std::unique_ptr<Watched> watched;
  auto const open = [&](std::string const& written, std::string const& read) {
    if (writer) return;
    writer = std::make_unique<Shoal::WriterTable<Config>>(written);
    watched = std::make_unique<Watched>(read);
  };
  U64 version = 0;
  return roundTrip(
      [&] {
        open(pong, ping);
        for (int i = 0; i < roundTrips(); ++i) {
          watched->awaitChange();
          writer->entryIs(record(1, ++version));
        }
      },
      [&] {
        open(ping, pong);
        writer->entryIs(record(1, ++version));
        watched->awaitChange();
      });
}

void wakeUp(benchmark::State& state) {
  for (auto _ : state) state.counters["ns"] = overTables();
}
void bareWakeUp(benchmark::State& state) {
  for (auto _ : state) {
    double const events = overEvents();
    double const fifos = overFifos();
    double const datagrams = overDatagrams();
    state.counters["ns"] = std::min({events, fifos, datagrams});
    state.counters["also:over eventfds"] = events;
    state.counters["also:over FIFOs"] = fifos;
    state.counters["also:over datagrams"] = datagrams;
  }
}
BENCHMARK(wakeUp)->Name("write to notification and back/ours/two processes")->Iterations(1);
BENCHMARK(bareWakeUp)->Name("write to notification and back/floor/two processes")->Iterations(1);

}  // namespace
}  // namespace ShoalBench
