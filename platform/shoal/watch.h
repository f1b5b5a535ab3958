// SPDX-License-Identifier: Apache-2.0
// The watcher's side of waking: a descriptor to poll, which becomes readable when there may be something to
// handle.
//
// Invariants: asleepIs(true) before the last look at the table: then whoever changes it afterwards wakes this
//   watcher.
// Ownership: owns its files in the side directory, which go with it.
// Threading: one thread.
// Cost: asleep, nothing; awake, the writer sends nothing.
// Errors: FileException when the side directory cannot be used.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "shoal/side_directory.h"

namespace Shoal {

class Watch {
 public:
  explicit Watch(std::string const& tablePath);
  ~Watch();
  Watch(Watch const&) = delete;
  Watch& operator=(Watch const&) = delete;

  int fd() const { return poll_; }
  void asleepIs(bool asleep) { page_->word().store(asleep ? 1 : 0, std::memory_order_seq_cst); }
  // Makes the descriptor readable until the next drain().
  void wakeSelf();
  struct News {
    bool fileMayBeAnother = false;  // something of the table's name appeared
    bool writerWent = false;        // a writer closed the table, or died
  };
  // Takes what made the descriptor readable.
  News drain();

 private:
  struct Writer {
    int socket;
    int event;
  };
  void begin(std::string const& tablePath);
  void end();
  void watchDirectory(std::string const& tablePath);
  void listen();
  void add(int fd, U64 tag, U32 events);
  void welcome(News& news);
  void forget(std::vector<Writer>::iterator writer);
  bool hear(int socket);
  void readDirectoryNews(News& news);

  static constexpr std::size_t maxWriters = 8;
  std::string fileName_;
  SideDirectory directory_;
  std::string name_;  // of its page and socket, without the suffix
  int poll_ = -1;
  int self_ = -1;
  int directoryNews_ = -1;
  int tableWatch_ = -1;
  int sideWatch_ = -1;
  int listener_ = -1;
  std::unique_ptr<SharedPage> page_;
  std::unique_ptr<SharedPage> bell_;
  std::vector<Writer> writers_;  // usually one; a successor may be met before the end of the last is seen
};

}  // namespace Shoal
