// SPDX-License-Identifier: Apache-2.0
// The directory beside a table (FILE.watch) where its writer's lock, its bell and its watchers' files lie.
//
//   writer        empty; the writer holds a lock on it, which the kernel drops with the process
//   bell          one page; a watcher adds one to its first word when it has come
//   <name>.page   one page of a watcher; its first word is 1 while the watcher sleeps
//   <name>.sock   where the writer hands that watcher the event to wake it with
//
// Ownership: owns the directory's descriptor.
// Errors: FileException.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "pallo/types.h"

namespace Shoal {

// One page shared with a file of the directory. Others may write anything into it, or cut the file short.
class SharedPage {
 public:
  explicit SharedPage(int fd);  // takes the descriptor
  ~SharedPage();
  SharedPage(SharedPage const&) = delete;
  SharedPage& operator=(SharedPage const&) = delete;
  std::atomic<U32>& word() const;

 private:
  struct Guarded;
  std::unique_ptr<Guarded> guarded_;
};

class SideDirectory {
 public:
  // Opens the directory of the table at `tablePath`, or makes it. World access is for tables that have it.
  SideDirectory(std::string tablePath, bool worldAccess);
  ~SideDirectory();
  SideDirectory(SideDirectory const&) = delete;
  SideDirectory& operator=(SideDirectory const&) = delete;

  std::string const& path() const { return path_; }
  int fd() const { return fd_; }
  // The directory at the path is another than this one, which has gone.
  bool isAnother() const;
  // A path of at most a few dozen characters, as a socket's address wants it.
  std::string shortPath(std::string const& name) const;
  std::unique_ptr<SharedPage> bell() const;
  // A page file of this name, made or found.
  std::unique_ptr<SharedPage> page(std::string const& name, bool make) const;
  // May be written by whoever may write the directory, whatever the umask.
  int fileMode() const;

 private:
  std::string path_;
  int fd_ = -1;
};

// The right to write a table, until it is destroyed or the process ends, however it ends.
class WriterLock {
 public:
  // Throws WriterLockedException when another has it.
  WriterLock(SideDirectory const& directory, std::string const& tablePath);
  ~WriterLock();
  WriterLock(WriterLock const&) = delete;
  WriterLock& operator=(WriterLock const&) = delete;

 private:
  int fd_ = -1;
  U64 device_ = 0;
  U64 inode_ = 0;
};

}  // namespace Shoal
