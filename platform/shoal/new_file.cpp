// SPDX-License-Identifier: Apache-2.0
#include "shoal/new_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "pallo/file_lock.h"
#include "shoal/error.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace Shoal {

using namespace Format;

namespace {

[[noreturn]] void failToMake(std::string const& path, std::string_view why) {
  throw FileException(FileException::Reason::notAllowed, fmt::format("{}: cannot be made: {}", path, why));
}

// The process's number space, so that another one's numbers are not taken for its own.
U64 numberSpace() {
  struct stat status {};
  return stat("/proc/self/ns/pid", &status) == 0 ? status.st_ino & 0xFFFF'FFFFU : 0;
}

void fillRandomly(void* at, std::size_t bytes) {
  if (getrandom(at, bytes, 0) != static_cast<ssize_t>(bytes))
    throw Pallo::Exception("no random numbers to be had for a new table");
}

// An empty table: the header, and one chunk of index of which the first buckets are in use.
void writeEmptyTable(std::byte* base, Header const& header, U64 changes) {
  auto const put = [&](U64 offset, U64 value) { std::memcpy(base + offset, &value, sizeof value); };
  for (U64 bucket = 0; bucket < firstBuckets; ++bucket)
    put(header.chunkStart + bucket * unitBytes + linkInLine * 8, link(0, bucket, 0));
  U64 const directory = indexDirectoryAt(header.ringEntries);
  put(directory, guard(0, directory));
  put(bucketsAt, guard(firstBuckets, bucketsAt));
  put(chunksAt, guard(1, chunksAt));
  put(countAt, guard(0, countAt));
  put(headAt, guard(changes, headAt));
  for (U64 const at : {U64{0}, headerCopyAt}) std::memcpy(base + at, &header, sizeof header);
}

}  // namespace

Header newHeader(Shape const& shape, U32 ringEntries) {
  Header header{};
  header.magic = magic;
  header.version = Format::version;
  header.recordVersion = shape.version;
  shape.typeName.copy(header.typeName, sizeof header.typeName - 1);
  header.imageBytes = static_cast<U32>(shape.imageBytes);
  header.tailAt = shape.tailAt;
  header.slotBytes = static_cast<U32>(slotBytes(shape.imageBytes));
  header.ringEntries = std::clamp<U32>(std::bit_ceil(ringEntries), 16, 1U << 20);
  header.chunkStart = static_cast<U32>(chunkStart(header.ringEntries));
  fillRandomly(&header.tableId, sizeof header.tableId);
  return renewed(header);
}

Header renewed(Header header) {
  fillRandomly(header.hash, sizeof header.hash);
  header.madeAt = static_cast<U64>(time(nullptr));
  header.checksum = XXH3_64bits(&header, offsetof(Header, checksum));
  return header;
}

void lockForWriting(std::string const& path, int file) {
  if (Pallo::FileLock::take(file, writerAt)) return;
  if (errno != EAGAIN && errno != EACCES)
    throw FileException(FileException::Reason::notAllowed,
                        fmt::format("{}: cannot be locked: {}", path, std::strerror(errno)));
  U64 holder = 0;
  bool const isSeen = pread(file, &holder, sizeof holder, writerAt) == sizeof holder &&
                      holder >> 32 == numberSpace() && numberSpace() != 0;
  int const pid = isSeen ? static_cast<int>(holder) : 0;
  std::string const who =
      pid > 0 ? fmt::format("process {}", pid) : std::string("a process that is not visible from here");
  throw WriterLockedException(
      fmt::format("{}: {} is writing this table, and a table has one writer", path, who), pid);
}

void nameHolder(std::string const& path, int file) {
  U64 const holder = static_cast<U64>(getpid()) | numberSpace() << 32;
  if (pwrite(file, &holder, sizeof holder, writerAt) != sizeof holder) failToMake(path, std::strerror(errno));
}

bool giveAccess(int file, mode_t mode, gid_t group) {
  struct stat now {};
  bool const given = (fstat(file, &now) == 0 && now.st_gid == group) || fchown(file, -1U, group) == 0;
  return fchmod(file, given ? mode : mode & ~mode_t{0070}) == 0;
}

void allocate(int file, std::string const& path, U64 offset, U64 bytes) {
  struct stat before {};
  fstat(file, &before);
  int error;
  do error = posix_fallocate(file, static_cast<off_t>(offset), static_cast<off_t>(bytes));
  while (error == EINTR);
  if (error == 0) return;
  if (ftruncate(file, before.st_size) != 0) error = errno;
  throw NoSpaceException(
      fmt::format("{}: the table cannot grow, and is as it was: {}", path, std::strerror(error)));
}

NewFile::NewFile(std::string path, Header const& header, U64 changes)
    : path_(std::move(path)), fresh_(path_ + ".new") {
  open();
  try {
    write(header, changes);
  } catch (...) {
    ::unlink(fresh_.c_str());
    throw;
  }
}

void NewFile::write(Header const& header, U64 changes) {
  U64 const bytes = header.chunkStart + chunkBytes;
  if (ftruncate(fd(), 0) != 0) failToMake(path_, std::strerror(errno));
  allocate(fd(), path_, 0, bytes);
  void* const base = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd(), 0);
  if (base == MAP_FAILED) failToMake(path_, std::strerror(errno));
  writeEmptyTable(static_cast<std::byte*>(base), header, changes);
  munmap(base, bytes);
  nameHolder(path_, fd());
}

// Whoever made it last may have moved it to its place between the opening and the locking.
void NewFile::open() {
  for (;;) {
    file_ = Pallo::Descriptor(
        ::open(fresh_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0660));
    if (!file_) failToMake(path_, std::strerror(errno));
    struct stat here {};
    fstat(fd(), &here);
    if (!S_ISREG(here.st_mode) || here.st_uid != geteuid() || here.st_nlink > 1)
      failToMake(path_, fmt::format("{} is in the way, which another made", fresh_));
    lockForWriting(path_, fd());
    if (Pallo::hasName(fd(), fresh_)) return;
  }
}

void NewFile::keepAccessOf(int old) {
  struct stat status {};
  if (fstat(old, &status) != 0 || !giveAccess(fd(), status.st_mode & 0777, status.st_gid))
    failToMake(path_, std::strerror(errno));
}

NewFile::~NewFile() {
  if (file_) ::unlink(fresh_.c_str());
}

std::shared_ptr<Mapping> NewFile::publish(bool replace) {
  unsigned const how = replace ? 0U : RENAME_NOREPLACE;
  if (::renameat2(AT_FDCWD, fresh_.c_str(), AT_FDCWD, path_.c_str(), how) == 0)
    return std::make_shared<Mapping>(path_, std::move(file_), Access::write);
  if (errno != EEXIST) failToMake(path_, std::strerror(errno));
  return nullptr;
}

}  // namespace Shoal
