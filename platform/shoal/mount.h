// SPDX-License-Identifier: Apache-2.0
// A table file mounted read-only: the view, and what keeps its watcher informed.
//
// Invariants: a key that was told of (announced, met in a walk, or found by a look-up) and is gone is told of
//   again, whatever was missed in between. A file that was replaced by another is followed, and so is one
//   that something else was written over.
// Ownership: owns view and watch.
// Threading: one thread.
// Cost: nothing while nothing changes. Watched, eight bytes and a little a key, and a probe of a hash set a
//   look-up; falling behind costs one look-up for each key told of. Where changes queue, the next keys'
//   records are on their way into the cache while this key's watchers are at work.
// Errors: those of TableView and Watch.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "shoal/table_view.h"
#include "shoal/watch.h"

namespace Shoal {

class VANTREL_API Mount {
 public:
  // Who is told.
  class Sink {
   public:
    virtual void changed(U64 key) = 0;
    virtual void anythingChanged() = 0;
    virtual void damaged(std::string_view what) = 0;

   protected:
    ~Sink() = default;
  };

  Mount(std::string path, Shape const& shape, Sink& sink);
  ~Mount();
  Mount(Mount const&) = delete;
  Mount& operator=(Mount const&) = delete;

  TableView& view() { return *view_; }
  std::string const& path() const { return path_; }

  // The descriptor to poll; watching begins with the first call.
  int fd();
  // Handles what made the descriptor readable, a slice at a time.
  void dispatch();
  // A walk or a look-up found this key, or found it absent.
  void lookedUp(U64 key, bool present);
  // The file was cut short; true when it has its length again, was mapped anew and begins as it did.
  bool mend();

 private:
  class KnownKeys;
  struct Telling;
  void openFile();
  void dispatchSlice();
  bool isCurrent() const;
  void follow();
  void complain(std::string const& what);
  bool deliver();
  bool deliverNext(U64 head);
  void tellUnfinished();
  void fellBehind(U64 head);
  void tellWhole();
  void tellOfTheVanished();
  void tell(U64 key);
  void learn(Telling const& told);
  void lookAhead(U64 head);
  std::optional<U64> readHead();

  std::string const path_;
  Shape const shape_;
  Sink& sink_;
  std::shared_ptr<Mapping> mapping_;
  std::unique_ptr<TableView> view_;
  std::unique_ptr<Watch> watch_;
  std::unique_ptr<KnownKeys> known_;
  // A key while its watchers are told of it, and what they found.
  struct Telling {
    U64 key;
    Telling* outer;  // a watcher may dispatch
    bool present = false;
    bool absent = false;
  };
  Telling* telling_ = nullptr;
  U64 position_ = 0;  // the next change to tell of
  bool damagedHead_ = false;
  bool writerWent_ = false;
  bool wholeOwed_ = false;   // those who vanished, and the whole-collection notification
  bool followOwed_ = false;  // the file at the path could not be opened
  std::string complaint_;    // why not
};

}  // namespace Shoal
