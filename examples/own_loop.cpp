// SPDX-License-Identifier: Apache-2.0
// The library in a loop of your own, here plain epoll: each descriptor that is readable gets its dispatch().
// A child process plays the producer.
#include <sys/epoll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "hw/recorder.h"
#include "ostra/piecewise_map.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/vantrel.h"

using namespace Vantrel;

static void produce(std::string const& path) {
  auto const config = Ostra::make<Shoal::WriterTable<EntryConfig>>(path);
  for (U32 i = 1; i <= 3; ++i) {
    EntryConfig e(EntryKey(i), OpId(U64{i} << 16), i, 0, 10 * i);
    e.tableIndexIs(TableKey(0), 100 * i);
    config->entryIs(e);
  }
}

int main() {
  std::string directory = std::filesystem::temp_directory_path() / "own-loop-XXXXXX";
  if (!mkdtemp(directory.data())) return 1;
  std::string const path = directory + "/config.shoal";
  Ostra::make<Shoal::WriterTable<EntryConfig>>(path);  // the empty table
  auto const config = Ostra::make<Shoal::ReaderTable<EntryConfig>>(path);
  auto const wheel = Ostra::make<Keel::TimerfdWheel>();
  auto const hardware = Ostra::make<Hw::Recorder>("hardware", &std::cout);
  auto const engine = Ostra::make<FastVantrelImpl>("engine", config, nullptr, nullptr, hardware, 1);
  auto const frontEnd = vantrelSmFactory(config, nullptr, nullptr, nullptr, engine, nullptr, wheel);

  int const loop = epoll_create1(EPOLL_CLOEXEC);
  for (int const fd : {config->fd(), wheel->fd()}) {
    epoll_event event{EPOLLIN, {.fd = fd}};
    epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event);
  }
  pid_t const producer = fork();
  if (producer == 0) {
    produce(path);
    _exit(0);
  }
  while (engine->keyToHandle().size() < 3) {
    epoll_event event;
    if (epoll_wait(loop, &event, 1, -1) == 1)
      event.data.fd == wheel->fd() ? wheel->dispatch() : config->dispatch();
  }
  close(loop);
  waitpid(producer, nullptr, 0);
  std::filesystem::remove_all(directory);
}
