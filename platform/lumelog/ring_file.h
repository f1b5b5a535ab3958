// SPDX-License-Identifier: Apache-2.0
// RingFile: the mapped trace file as its writer has it: headers, call sites and the ring buffers' positions.
//
// A file may be truncated while it is mapped, as logrotate's copytruncate does. An access behind its end then
// falls on pages of this process alone and zeroes the alarm. makeWhole() reserves the space again, in place.
// Where the cut left the call sites, it left ring buffers too, and sequences go on. Otherwise, and in a new
// file, all ring buffers are empty: the file starts over with sequences from 1 and a new moment of opening,
// by which a reader that follows knows.
//
// Invariants: what is written reaches the file that was opened, or none: its name is never looked at again. A
//   call site keeps its number.
// Ownership: of the descriptor and the mapping.
// Threading: that of its log.
// Cost: reserving the space; a copy of the call sites in memory.
// Errors: makeWhole() throws what derives from std::exception, and may be tried again.
#pragma once

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

#include "lumelog/format.h"
#include "pallo/descriptor.h"
#include "pallo/guard.h"

namespace Lumelog {

class RingFile {
 public:
  // A header without check and moment of opening.
  RingFile(Pallo::Descriptor fd, Format::FixedHeader const& header, U64* alarm)
      : fd_(std::move(fd)), fixed_(header), alarm_(alarm) {}
  ~RingFile() { unmap(); }

  void makeWhole(Format::Anchor const& now);
  // Made whole, as far as is known; without it, only call sites and dropped records are taken.
  bool whole() const { return whole_; }
  // The file is shorter than it was made.
  bool truncated() const { return size() < fixed_.fileBytes; }
  // What was written up to there is in it.
  bool reaches(std::byte const* mapped) const {
    return !ringsAreGone() && size() >= static_cast<U64>(mapped - base_);
  }

  bool keeps(std::size_t level) const { return fixed_.ring[level].bytes != 0; }
  // A ring buffer's next sub-buffer, begun at the newest anchor. Only for a level that is kept.
  Format::SubBufferHeader* begin(std::size_t level);
  void anchor(Format::Anchor const& now);
  // False when there is no room for the call site.
  bool append(std::vector<std::byte> const& site);
  void countDropped();

 private:
  U64 size() const;
  bool ringsAreGone() const;
  void resize(U64 bytes) const;
  void reserve() const;
  void map();
  void unmap();
  void startOver(Format::Anchor const& now);
  void writeHeaders();
  Format::LiveHeader& live() const { return reinterpret_cast<Format::FileHeader*>(base_)->live; }

  Pallo::Descriptor const fd_;
  Format::FixedHeader fixed_;
  Format::LiveHeader live_{};
  std::vector<std::byte> sites_;                // all that were appended
  std::array<U64, Format::levels> sequence_{};  // of each level's newest sub-buffer
  U64* const alarm_;
  std::byte* base_ = nullptr;  // of the mapping
  Pallo::GuardedWindow guard_;
  bool whole_ = false;
};

}  // namespace Lumelog
