// SPDX-License-Identifier: Apache-2.0
#include "shoal/presence.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "pallo/file_lock.h"
#include "shoal/error.h"

namespace Shoal {
namespace {

[[noreturn]] void fail(std::string const& path, std::string_view what) {
  throw FileException(FileException::Reason::unwatchable, fmt::format("{}: {}", path, what));
}
[[noreturn]] void failErrno(std::string const& path, std::string_view what) {
  fail(path, fmt::format("{}: {}", what, std::strerror(errno)));
}

struct stat statusOf(int fd) {
  struct stat status {};
  fstat(fd, &status);
  return status;
}

// What whoever may read the table may do with the directory, and with what is in it.
mode_t directoryMode(int table) {
  mode_t const mode = statusOf(table).st_mode;
  return 0700 | (mode & S_IRGRP ? 0050 : 0) | (mode & S_IROTH ? 0005 : 0);
}
mode_t fileMode(int table) {
  mode_t const mode = statusOf(table).st_mode;
  return 0600 | (mode & S_IRGRP ? 0060 : 0) | (mode & S_IROTH ? 0006 : 0);
}

bool isForWantOfMeans(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

}  // namespace

// ---- The directory

Sidecar::Sidecar(std::string path)
    : path_(std::move(path)),
      directory_(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)) {
  if (directory_) return;
  if (errno == ENOENT)
    throw FileException(FileException::Reason::missing, fmt::format("{}: there is no such directory", path_));
  failErrno(path_, "cannot be opened");
}

void Sidecar::checkOwner(int table) const {
  struct stat const status = statusOf(directory_.get());
  bool const isTrusted =
      status.st_uid == statusOf(table).st_uid || status.st_uid == 0 || status.st_uid == geteuid();
  if (!isTrusted)
    fail(path_, fmt::format("belongs to user {}, expected the table's owner; remove it", status.st_uid));
  if ((status.st_mode & 0022) != 0)
    fail(path_, "may be written by others than its owner; remove it, and the next writer makes it anew");
}

Sidecar Sidecar::open(std::string const& tablePath, int table) {
  Sidecar sidecar(tablePath + ".watch");
  sidecar.checkOwner(table);
  return sidecar;
}

// Until it is complete, nobody else may enter a directory that is made here.
Sidecar Sidecar::make(std::string const& tablePath, int table) {
  std::string const path = tablePath + ".watch";
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) failErrno(path, "cannot be made");
  Sidecar sidecar(path);
  sidecar.checkOwner(table);
  if (statusOf(sidecar.directory_.get()).st_uid == geteuid()) sidecar.complete(table);
  return sidecar;
}

// In a directory that this user alone may write, a name leads where this user put it. The group is the table's,
// whatever this process's own is. The page comes last: where it is whole, so is the rest.
void Sidecar::complete(int table) const {
  int const directory = directory_.get();
  Pallo::Descriptor page(::openat(directory, "slots", O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (page && statusOf(page.get()).st_size == Flags::bytes) return;
  gid_t const group = statusOf(table).st_gid;
  auto const must = [&](bool done, std::string const& name) {
    if (!done) failErrno(path_ + name, "cannot be made");
  };
  auto const adopt = [&](std::string const& name) {
    must(fchownat(directory, name.c_str(), -1U, group, AT_SYMLINK_NOFOLLOW) == 0 &&
             fchmodat(directory, name.c_str(), fileMode(table), 0) == 0,
         "/" + name);
  };
  for (unsigned slot = 0; slot < slots; ++slot) {
    std::string const name = std::to_string(slot);
    must(::mkfifoat(directory, name.c_str(), 0600) == 0 || errno == EEXIST, "/" + name);
    adopt(name);
  }
  if (!page) page = Pallo::Descriptor(::openat(directory, "slots", O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  must(static_cast<bool>(page), "/slots");
  adopt("slots");
  errno = posix_fallocate(page.get(), 0, Flags::bytes);
  must(errno == 0, "/slots");
  must(fchown(directory, -1U, group) == 0 && fchmod(directory, directoryMode(table)) == 0, "");
}

Pallo::Descriptor Sidecar::openSlots() const {
  Pallo::Descriptor file(::openat(directory_.get(), "slots", O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) failErrno(path_ + "/slots", "cannot be opened");
  if (!S_ISREG(statusOf(file.get()).st_mode)) fail(path_ + "/slots", "is not a regular file");
  return file;
}

Pallo::Descriptor Sidecar::openFifo(unsigned slot, int mode) const {
  std::string const name = std::to_string(slot);
  Pallo::Descriptor file(
      ::openat(directory_.get(), name.c_str(), mode | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (file && S_ISFIFO(statusOf(file.get()).st_mode)) return file;
  if (!file) failErrno(path_ + "/" + name, "cannot be opened");
  fail(path_ + "/" + name, "is not a FIFO");
}

bool Sidecar::isCurrent() const {
  struct stat there {};
  struct stat const here = statusOf(directory_.get());
  return lstat(path_.c_str(), &there) == 0 && here.st_ino == there.st_ino && here.st_dev == there.st_dev;
}

// ---- The page of flags

Flags::Flags(Pallo::Descriptor file) : file_(std::move(file)) {
  void* const base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (base == MAP_FAILED) failErrno("a table's page of flags", "cannot be mapped");
  words_ = static_cast<std::atomic<U32>*>(base);
  guard_.watch(base, bytes, true);
}

Flags::~Flags() {
  guard_.unwatch();
  munmap(words_, bytes);
}

void Flags::restore() {
  if (posix_fallocate(file_.get(), 0, bytes) != 0) return;
  guard_.reset();
  mmap(words_, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file_.get(), 0);
}

// ---- The writer

// Whoever watched the table's last writer is woken: there may be something that it did not come to announce.
Doorbells::Doorbells(Sidecar sidecar) : sidecar_(std::move(sidecar)), flags_(sidecar_.openSlots()) {
  findWatchers();
  for (Watcher const& watcher : watchers_) wake(watcher);
}

void Doorbells::ring() {
  if (flags_.registrations().load(std::memory_order_seq_cst) != seen_) [[unlikely]]
    findWatchers();
  for (Watcher const& watcher : watchers_)
    if (flags_.asleep(watcher.slot).load(std::memory_order_seq_cst) != 0) [[unlikely]]
      wake(watcher);
}

void Doorbells::wake(Watcher const& watcher) {
  flags_.asleep(watcher.slot).store(0, std::memory_order_relaxed);
  rung_ += write(watcher.fifo.get(), "w", 1) == 1;
}

// The truncation of the page took the flags with it: everybody is woken. Opened for reading too, so that a FIFO
// whose watcher died raises no SIGPIPE. A watcher that there is no descriptor for is looked for again at the next
// change.
void Doorbells::findWatchers() {
  bool const cut = flags_.registrations().load(std::memory_order_seq_cst) == 0;
  if (cut) {
    flags_.restore();
    flags_.registrations().store(seen_ + 1 == 0 ? 1 : seen_ + 1);
  }
  seen_ = flags_.registrations().load(std::memory_order_seq_cst);
  std::vector<Watcher> there;
  for (U64 slot = 0;; ++slot) {
    auto const held = Pallo::FileLock::firstHeld(flags_.fd(), slot, Sidecar::slots);
    if (!held) break;
    slot = *held;
    auto const known = std::ranges::find(watchers_, slot, &Watcher::slot);
    try {
      there.push_back({static_cast<unsigned>(slot),
                       known != watchers_.end() ? std::move(known->fifo)
                                                : sidecar_.openFifo(static_cast<unsigned>(slot), O_RDWR)});
    } catch (FileException const&) {
      if (isForWantOfMeans(errno)) --seen_;
    }
  }
  watchers_ = std::move(there);
  if (cut)
    for (Watcher const& watcher : watchers_) wake(watcher);
}

// ---- A watcher

Registration::Registration(std::string const& tablePath, int table)
    : sidecar_(Sidecar::open(tablePath, table)),
      flags_(sidecar_.openSlots()),
      slot_(takeSlot()),
      fifo_(sidecar_.openFifo(slot_, O_RDONLY)) {
  drain();
  flags_.asleep(slot_).store(0);
  // Never 0, which stands for a page that was truncated.
  if (flags_.registrations().fetch_add(1, std::memory_order_seq_cst) + 1 == 0)
    flags_.registrations().fetch_add(1, std::memory_order_seq_cst);
}

Registration::~Registration() {
  flags_.asleep(slot_).store(0);
  Pallo::FileLock::release(flags_.fd(), slot_);
  flags_.registrations().fetch_add(1, std::memory_order_seq_cst);
}

unsigned Registration::takeSlot() const {
  for (unsigned slot = 0; slot < Sidecar::slots; ++slot)
    if (Pallo::FileLock::take(flags_.fd(), slot)) return slot;
  throw FileException(FileException::Reason::unwatchable,
                      fmt::format("each of the table's {} watchers' slots is taken", Sidecar::slots));
}

void Registration::drain() const {
  char bytes[64];
  while (read(fifo_.get(), bytes, sizeof bytes) == sizeof bytes) continue;
}

}  // namespace Shoal
