// SPDX-License-Identifier: Apache-2.0
// The watcher's side of waking: a descriptor to poll, which becomes readable when there may be something to
// handle.
//
// Invariants: asleepIs(true) before the last look at the table: then whoever changes it afterwards wakes this
//   watcher.
// Ownership: owns its files in the side directory, which go with it. Where that directory was made anew, the
//   watch moves there; its descriptor stays the same.
// Threading: one thread.
// Cost: asleep, nothing; awake, the writer sends nothing. For want of descriptors, a look ten times a second.
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
  void asleepIs(bool asleep) { seat_->page->word().store(asleep ? 1 : 0, std::memory_order_seq_cst); }
  // Makes the descriptor readable until the next drain().
  void wakeSelf();
  // The same in a tenth of a second, for what is wanting now: descriptors, perhaps.
  void wakeSelfSoon();
  struct News {
    bool fileMayBeAnother = false;  // something of the table's name appeared, or was written and closed
    bool writerWent = false;        // a writer closed the table, or died
    std::string problem;            // why the watch could not move; it is tried again soon
  };
  // From now on it is the file that is at the path now.
  void fileIsNew();
  // Takes what made the descriptor readable.
  News drain();

 private:
  struct Writer {
    int socket;
    int event;
  };
  // What it has in the side directory.
  struct Seat {
    explicit Seat(std::string const& tablePath);
    ~Seat();
    Seat(Seat const&) = delete;
    Seat& operator=(Seat const&) = delete;
    void take();
    void listen();

    SideDirectory directory;
    std::string name;  // of its page and socket, without the suffix
    int listener = -1;
    std::unique_ptr<SharedPage> page;
    std::unique_ptr<SharedPage> bell;
  };
  void begin();
  void end();
  void sit();
  void move(News& news);
  void ring() { seat_->bell->word().fetch_add(1, std::memory_order_seq_cst); }
  void add(int fd, U64 tag, U32 events);
  void welcome(News& news);
  void forget(std::vector<Writer>::iterator writer);
  bool hear(int socket);
  void readDirectoryNews(News& news);

  static constexpr std::size_t maxWriters = 8;
  std::string const tablePath_;
  std::string const fileName_;
  int poll_ = -1;
  int self_ = -1;
  int timer_ = -1;
  int directoryNews_ = -1;
  int tableWatch_ = -1;
  int sideWatch_ = -1;
  int fileWatch_ = -1;
  std::unique_ptr<Seat> seat_;
  bool moveOwed_ = false;
  bool moveFailed_ = false;      // and it was said
  bool deaf_ = false;            // to the listener, while there is no descriptor for who knocks
  std::vector<Writer> writers_;  // usually one; a successor may be met before the end of the last is seen
};

}  // namespace Shoal
