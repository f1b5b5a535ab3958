// SPDX-License-Identifier: Apache-2.0
// A file mapped through one window of address space that is larger than the file will become, so that growth
// needs no new mapping and no pointer into it ever moves.
//
// Invariants: a read inside the window never ends the process. Where the file was truncated under it, it
//   reads zeroes, which no guard or checksum of a table takes for intact; cutShort() then says so.
// Ownership: owns the descriptor and the address space.
// Threading: any number of readers.
// Cost: a few system calls to make, none to read.
// Errors: FileException, one sentence that names the file.
#pragma once

#include <cstddef>
#include <string>

#include "pallo/descriptor.h"
#include "pallo/guard.h"
#include "pallo/types.h"

namespace Shoal {

enum class Access { read, write };

// Opens a file without following a link; the FileException says what is wrong with it.
Pallo::Descriptor openTableFile(std::string const& path, Access access);

class Mapping {
 public:
  // Opens an existing file.
  Mapping(std::string const& path, Access access) : Mapping(path, openTableFile(path, access), access) {}
  // Of a file that is open and that `path` names, or will.
  Mapping(std::string path, Pallo::Descriptor file, Access access);
  ~Mapping();
  Mapping(Mapping const&) = delete;
  Mapping& operator=(Mapping const&) = delete;

  std::string const& path() const { return path_; }
  int fd() const { return file_.get(); }
  std::byte* base() const { return base_; }
  U64 window() const { return window_; }
  U64 fileBytes() const;
  // True once a read fell beyond the file's end; mend() maps the file anew when it has `bytes` bytes again.
  bool cutShort() const { return guard_.hit(); }
  bool mend(U64 bytes);
  // The file at the path is this one.
  bool isCurrent() const { return Pallo::hasName(fd(), path_); }

 private:
  bool map(void* at, int more);

  std::string path_;
  Pallo::Descriptor file_;
  Access access_;
  std::byte* base_ = nullptr;
  U64 window_ = 0;
  Pallo::GuardedWindow guard_;
};

}  // namespace Shoal
