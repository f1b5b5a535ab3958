// SPDX-License-Identifier: Apache-2.0
// Presence: who watches a table, who of them sleeps, and how the writer wakes them.
//
//   FILE.watch/slots      | asleep 0 | asleep 1 | ... | asleep 255 |      | registrations |     a mapped page
//   FILE.watch/0 ... 255  a FIFO for each slot
//
//   watcher                                        writer
//   locks a byte of `slots`: that is its slot      announces a change in the table
//   registrations + 1                              registrations changed? look which bytes are locked
//   asleep = 1                                     asleep? then asleep = 0, and a byte into the slot's FIFO
//   last look at the table, then poll the FIFO
//
// The change is announced before registrations and flags are read, and a watcher registers and says that it
// sleeps before its last look: one of the two sees the other. (testing/shoal/wake.pml is the model.) A
// watcher that died has no lock any more. A writer that died has closed the FIFOs, which its watchers see as
// a hang-up.
//
// What it does not do: withstand those who may open what is in the directory, the members of the table's
// group most often. One who overwrites the flags or reads a FIFO that is not his delays a wake-up until the
// watcher's next look, which Watch takes once a second.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "pallo/descriptor.h"
#include "pallo/guard.h"
#include "pallo/types.h"

namespace Shoal {

// The directory FILE.watch.
//
// Invariants: it and all in it belong to one user, who is the table's owner, root, or this process's; nobody
//   else may write it. So nobody acts on what another put there: watchers make nothing, and a writer only in
//   a directory of its own. It is made beside its place and moved there when it is complete. No link is
//   followed, and owner and mode are changed through descriptors, never by name. Whoever may read the table
//   may open what is inside.
// Cost: making it, some 1800 system calls; finding it complete, 256.
// Errors: FileException.
class Sidecar {
 public:
  static constexpr unsigned slots = 256;

  // The writer's: made, or completed where something is missing. `table` is the table's file.
  static Sidecar make(std::string const& tablePath, int table);
  // A watcher's.
  static Sidecar open(std::string const& tablePath, int table);

  std::string const& path() const { return path_; }
  // The page of flags.
  Pallo::Descriptor openSlots() const;
  // A slot's FIFO. Empty when it cannot be opened; errno says why, 0 that something else is in its place.
  Pallo::Descriptor openFifo(unsigned slot, int mode) const;
  // The directory at the path is this one, and what is inside under this name is this file.
  bool isCurrent() const { return Pallo::hasName(directory_.get(), path_); }
  bool isCurrent(std::string const& name, int file) const {
    return Pallo::hasName(file, name, directory_.get());
  }

 private:
  struct Access;  // whom the table lets read
  explicit Sidecar(std::string path);
  static void makeNew(std::string const& path, int table);
  void checkOwner(int table) const;
  bool isOwn() const;
  void complete(int table) const;
  bool isComplete(Access const& access) const;
  void refuseAnothersFiles() const;
  void admit(int file, mode_t mode, gid_t group) const;
  Pallo::Descriptor openPage(int more) const;

  std::string path_;
  Pallo::Descriptor directory_;
};

// The page of flags, mapped. Others may write anything into it, or truncate the file.
//
// Threading: one thread; other processes at the same time.
class Flags {
 public:
  static constexpr U64 bytes = 4096;

  explicit Flags(Pallo::Descriptor file);
  ~Flags();
  Flags(Flags const&) = delete;
  Flags& operator=(Flags const&) = delete;

  int fd() const { return file_.get(); }
  std::atomic<U32>& asleep(unsigned slot) const { return words_[slot]; }
  // Never 0, unless the file was truncated.
  std::atomic<U32>& registrations() const { return words_[bytes / sizeof(U32) - 1]; }
  // The page is no longer the file's.
  bool isLost() const { return guard_.hit(); }
  // Gives the file its length back, and maps it again. False when there is no space for it.
  bool restore();

 private:
  Pallo::Descriptor file_;
  std::atomic<U32>* words_;
  Pallo::GuardedWindow guard_;
};

// The writer's side.
//
// Invariants: nothing is sent to a watcher that does not sleep. Nothing a watcher does makes the writer wait.
// Cost: a change that wakes nobody costs one load, and one for each watcher. A watcher costs a descriptor.
class Doorbells {
 public:
  explicit Doorbells(Sidecar sidecar);

  // After a change was announced: wakes those who sleep.
  void ring();
  U64 rung() const { return rung_; }

 private:
  struct Watcher {
    unsigned slot;
    Pallo::Descriptor fifo;
  };
  void findWatchers();
  void wake(Watcher const& watcher);

  Sidecar const sidecar_;
  Flags flags_;
  std::vector<Watcher> watchers_;
  U32 seen_ = 0;  // registrations, when the locks were looked at
  U64 rung_ = 0;
};

// A watcher's side: its slot.
//
// Errors: FileException when there is no slot to be had now; Pallo::Exception when nothing more can be
//   mapped.
class Registration {
 public:
  Registration(std::string const& tablePath, int table);
  ~Registration();
  Registration(Registration const&) = delete;
  Registration& operator=(Registration const&) = delete;

  // Readable, or hung up, when there may be something to do.
  int fd() const { return fifo_.get(); }
  // Takes what made it readable.
  void drain() const;
  void asleepIs(bool asleep) { flags_.asleep(slot_).store(asleep, std::memory_order_seq_cst); }
  // Nobody will wake this watcher here: the page was truncated, or the directory, the page, or the FIFO is
  // another by now.
  bool isLost() const;
  bool isPageLost() const { return flags_.isLost(); }

 private:
  void takeSlot();

  Sidecar const sidecar_;
  Flags flags_;
  unsigned slot_ = 0;
  Pallo::Descriptor fifo_;
};

}  // namespace Shoal
