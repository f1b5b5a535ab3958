// SPDX-License-Identifier: Apache-2.0
// A file mapped through one window of address space that is larger than the file will become, so that growth
// needs no new mapping and no pointer into it ever moves.
//
// Invariants: a read inside the window never ends the process. Where the file was cut short under it, it
//   reads zeroes, which no guard or checksum of a table takes for intact; cutShort() then says so.
// Ownership: owns the descriptor and the address space.
// Threading: any number of readers.
// Cost: a few system calls to make, none to read.
// Errors: FileException, one sentence that names the file.
#pragma once

#include <cstddef>
#include <string>

#include "pallo/guard.h"
#include "pallo/types.h"

namespace Shoal {

class VANTREL_API Mapping {
 public:
  enum class Access { read, write };

  // Opens an existing file; follows no link.
  Mapping(std::string path, Access access);
  // Takes over the descriptor of a file that `path` will name.
  Mapping(std::string path, int fd, Access access);
  ~Mapping();
  Mapping(Mapping const&) = delete;
  Mapping& operator=(Mapping const&) = delete;

  std::string const& path() const { return path_; }
  int fd() const { return fd_; }
  std::byte* base() const { return base_; }
  U64 window() const { return window_; }
  U64 fileBytes() const;
  // True once a read fell beyond the file's end; mend() maps the file anew when it has `bytes` bytes again.
  bool cutShort() const;
  bool mend(U64 bytes);
  // The file at the path is this one.
  bool isCurrent() const;
  // Asks the kernel to hold 2 MB, from a multiple of that on, in one page. False when it does not.
  static constexpr U64 hugePageBytes = 2U * 1024U * 1024U;
  bool hugePageIs(U64 offset);

 private:
  void map();
  bool mapWindow();
  bool mapFile();
  std::string path_;
  int fd_ = -1;
  Access access_;
  std::byte* base_ = nullptr;
  U64 window_ = 0;
  Pallo::GuardedWindow guard_;
};

// Opens a file without following a link; the FileException says what is wrong with it.
int openTableFile(std::string const& path, Mapping::Access access);

}  // namespace Shoal
