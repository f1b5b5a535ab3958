// SPDX-License-Identifier: Apache-2.0
#include "shoal/presence.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "pallo/file_lock.h"
#include "shoal/error.h"
#include "shoal/new_file.h"

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

bool isForWantOfMeans(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

}  // namespace

// Whoever may read the table may enter the directory, and set flags and ring.
struct Sidecar::Access {
  explicit Access(int table) {
    struct stat const status = statusOf(table);
    bool const groupReads = status.st_mode & S_IRGRP;
    bool const othersRead = status.st_mode & S_IROTH;
    group = status.st_gid;
    directory = 0700 | (groupReads ? 0050 : 0) | (othersRead ? 0005 : 0);
    file = 0600 | (groupReads ? 0060 : 0) | (othersRead ? 0006 : 0);
  }
  gid_t group;
  mode_t directory;
  mode_t file;
};

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

bool Sidecar::isOwn() const { return statusOf(directory_.get()).st_uid == geteuid(); }

Sidecar Sidecar::open(std::string const& tablePath, int table) {
  Sidecar sidecar(tablePath + ".watch");
  sidecar.checkOwner(table);
  return sidecar;
}

Sidecar Sidecar::make(std::string const& tablePath, int table) {
  std::string const path = tablePath + ".watch";
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) makeNew(path, table);
  Sidecar sidecar(path);
  sidecar.checkOwner(table);
  if (sidecar.isOwn()) sidecar.complete(table);
  return sidecar;
}

// Whoever makes it holds the table's writer lock. One who was killed left what the next one completes.
void Sidecar::makeNew(std::string const& path, int table) {
  std::string const fresh = path + ".new";
  if (::mkdir(fresh.c_str(), 0700) != 0 && errno != EEXIST) failErrno(path, "cannot be made");
  Sidecar const sidecar(fresh);
  if (!sidecar.isOwn()) fail(fresh, "is in the way, which another made");
  sidecar.complete(table);
  if (::rename(fresh.c_str(), path.c_str()) != 0) failErrno(path, "cannot be made");
}

// The page is made after the FIFOs, and the directory is opened to others last.
void Sidecar::complete(int table) const {
  Access const access(table);
  if (isComplete(access)) return;
  refuseAnothersFiles();
  for (unsigned slot = 0; slot < slots; ++slot) {
    std::string const name = std::to_string(slot);
    bool const made = ::mkfifoat(directory_.get(), name.c_str(), 0600) == 0 || errno == EEXIST;
    auto const fifo = made ? openFifo(slot, O_RDWR) : Pallo::Descriptor();
    if (!fifo && errno == 0) fail(path_ + "/" + name, "is not a FIFO of the directory's owner");
    if (!fifo) failErrno(path_ + "/" + name, "cannot be made");
    admit(fifo.get(), access.file, access.group);
  }
  auto const page = openPage(O_CREAT);
  admit(page.get(), access.file, access.group);
  errno = posix_fallocate(page.get(), 0, Flags::bytes);
  if (errno != 0) failErrno(path_ + "/slots", "cannot be made");
  admit(directory_.get(), access.directory, access.group);
}

bool Sidecar::isComplete(Access const& access) const {
  auto const isThere = [this](std::string const& name, mode_t type, struct stat& status) {
    return fstatat(directory_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           (status.st_mode & S_IFMT) == type;
  };
  struct stat const directory = statusOf(directory_.get());
  if (directory.st_gid != access.group || (directory.st_mode & 07777) != access.directory) return false;
  struct stat status {};
  if (!isThere("slots", S_IFREG, status) || status.st_size != Flags::bytes) return false;
  for (unsigned slot = 0; slot < slots; ++slot)
    if (!isThere(std::to_string(slot), S_IFIFO, status)) return false;
  return true;
}

// A directory that holds something else is not one that a writer began: whoever may rename it moved it here.
void Sidecar::refuseAnothersFiles() const {
  if (Pallo::Descriptor(::openat(directory_.get(), "slots", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)))
    return;
  std::unique_ptr<DIR, int (*)(DIR*)> const names(
      fdopendir(::openat(directory_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)), closedir);
  if (!names) failErrno(path_, "cannot be read");
  while (dirent const* const item = readdir(names.get())) {
    std::string_view const name = item->d_name;
    bool const isNumber = name.find_first_not_of("0123456789") == name.npos;
    if (name != "." && name != ".." && name != "slots" && !isNumber)
      fail(path_, fmt::format("holds {}, which is no table's; move it out of the way", name));
  }
}

// Lets the group in that may read the table, whatever this process's own is.
void Sidecar::admit(int file, mode_t mode, gid_t group) const {
  if (!giveAccess(file, mode, group)) failErrno(path_, "cannot be opened to readers");
}

Pallo::Descriptor Sidecar::openPage(int more) const {
  std::string const name = path_ + "/slots";
  Pallo::Descriptor file(
      ::openat(directory_.get(), "slots", O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | more, 0600));
  if (!file) failErrno(name, "cannot be opened");
  struct stat const status = statusOf(file.get());
  if (!S_ISREG(status.st_mode)) fail(name, "is not a regular file");
  if (status.st_uid != statusOf(directory_.get()).st_uid)
    fail(name, fmt::format("belongs to user {}, expected the directory's owner", status.st_uid));
  return file;
}

Pallo::Descriptor Sidecar::openSlots() const {
  auto file = openPage(0);
  if (statusOf(file.get()).st_size < off_t{Flags::bytes})
    fail(path_ + "/slots", "is cut short; the table's next change mends it");
  return file;
}

Pallo::Descriptor Sidecar::openFifo(unsigned slot, int mode) const {
  Pallo::Descriptor file(
      ::openat(directory_.get(), std::to_string(slot).c_str(), mode | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file) return file;
  struct stat const status = statusOf(file.get());
  if (S_ISFIFO(status.st_mode) && status.st_uid == statusOf(directory_.get()).st_uid) return file;
  errno = 0;
  return {};
}

Flags::Flags(Pallo::Descriptor file) : file_(std::move(file)) {
  void* const base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0);
  if (base == MAP_FAILED) failErrno("a table's page of flags", "cannot be mapped");
  words_ = static_cast<std::atomic<U32>*>(base);
  try {
    guard_.watch(base, bytes, true);
  } catch (...) {
    munmap(base, bytes);
    throw;
  }
}

Flags::~Flags() {
  guard_.unwatch();
  munmap(words_, bytes);
}

bool Flags::restore() {
  if (posix_fallocate(file_.get(), 0, bytes) != 0) return false;
  guard_.reset();
  return mmap(words_, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, file_.get(), 0) == words_;
}

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

// The truncation of the page took the flags with it: everybody is woken, at each change until there is space
// for the page. Opened for reading too, so that a FIFO whose watcher died raises no SIGPIPE. A watcher that
// there is no descriptor for is looked for again at the next change.
void Doorbells::findWatchers() {
  bool const cut = flags_.registrations().load(std::memory_order_seq_cst) == 0;
  if (cut && flags_.restore()) flags_.registrations().store(seen_ + 1 == 0 ? 1 : seen_ + 1);
  seen_ = flags_.registrations().load(std::memory_order_seq_cst);
  if (seen_ == 0) seen_ = -1U;
  std::vector<Watcher> there;
  bool lacksMeans = false;
  for (U64 slot = 0;; ++slot) {
    auto const held = Pallo::FileLock::firstHeld(flags_.fd(), slot, Sidecar::slots);
    if (!held) break;
    slot = *held;
    auto const known = std::ranges::find(watchers_, slot, &Watcher::slot);
    auto fifo = known != watchers_.end() ? std::move(known->fifo)
                                         : sidecar_.openFifo(static_cast<unsigned>(slot), O_RDWR);
    if (fifo)
      there.push_back({static_cast<unsigned>(slot), std::move(fifo)});
    else if (isForWantOfMeans(errno))
      lacksMeans = true;
  }
  if (lacksMeans) --seen_;
  watchers_ = std::move(there);
  if (cut)
    for (Watcher const& watcher : watchers_) wake(watcher);
}

Registration::Registration(std::string const& tablePath, int table)
    : sidecar_(Sidecar::open(tablePath, table)), flags_(sidecar_.openSlots()) {
  takeSlot();
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

// A slot without a FIFO is left alone.
void Registration::takeSlot() {
  for (; slot_ < Sidecar::slots; ++slot_) {
    if (Pallo::FileLock::take(flags_.fd(), slot_)) {
      fifo_ = sidecar_.openFifo(slot_, O_RDONLY);
      if (fifo_) return;
      int const error = errno;
      Pallo::FileLock::release(flags_.fd(), slot_);
      errno = error;
      if (isForWantOfMeans(error)) failErrno(sidecar_.path(), "a FIFO cannot be opened");
    } else if (errno != EAGAIN && errno != EACCES) {
      failErrno(sidecar_.path() + "/slots", "cannot be locked");
    }
  }
  fail(sidecar_.path(),
       fmt::format("each of the table's {} watchers' slots is taken, or lacks its FIFO", Sidecar::slots));
}

bool Registration::isLost() const {
  return flags_.isLost() || !sidecar_.isCurrent() || !sidecar_.isCurrent("slots", flags_.fd()) ||
         !sidecar_.isCurrent(std::to_string(slot_), fifo_.get());
}

// As much as a FIFO holds, and no more, so that nobody who fills it holds the watcher up.
void Registration::drain() const {
  char bytes[4096];
  for (int i = 0; i < 16 && read(fifo_.get(), bytes, sizeof bytes) == sizeof bytes; ++i) continue;
}

}  // namespace Shoal
