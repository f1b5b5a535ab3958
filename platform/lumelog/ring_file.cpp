// SPDX-License-Identifier: Apache-2.0
#include "lumelog/ring_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Lumelog {

using namespace Format;

void RingFile::makeWhole(Anchor const& now) {
  bool const gone = ringsAreGone();
  // A sub-buffer that was cut in two goes as a whole: half a record would have wrong values.
  U64 const left = gone ? 0 : size() / subBufferBytes * subBufferBytes;
  // Nobody truncated it: the disk fails. That is not mended by trying at once.
  if (std::exchange(whole_, false) && left == fixed_.fileBytes)
    throw std::runtime_error("its pages cannot be written");
  resize(left);
  reserve();
  if (base_) ++live_.truncations;
  map();
  if (gone) startOver(now);
  writeHeaders();
  whole_ = true;
}

U64 RingFile::size() const {
  struct stat status {};
  return ::fstat(fd_.get(), &status) == 0 ? static_cast<U64>(status.st_size) : 0;
}

// The ring buffers lie behind the call sites. A header that is not ours: the file was cut, and grown again.
bool RingFile::ringsAreGone() const {
  FixedHeader there;
  return size() < fixed_.siteOffset + fixed_.siteBytes ||
         ::pread(fd_.get(), &there, sizeof there, 0) != sizeof there ||
         std::memcmp(&there, &fixed_, sizeof there) != 0;
}

void RingFile::resize(U64 bytes) const {
  if (::ftruncate(fd_.get(), static_cast<off_t>(bytes)) != 0)
    throw std::system_error(errno, std::generic_category());
}

// When there is too little, the file is as long as before.
void RingFile::reserve() const {
  U64 const before = size();
  int error;
  do error = ::posix_fallocate(fd_.get(), 0, static_cast<off_t>(fixed_.fileBytes));
  while (error == EINTR);
  if (error == 0) return;
  resize(before);
  throw std::system_error(error, std::generic_category());
}

void RingFile::map() {
  void* const base = ::mmap(nullptr, fixed_.fileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
  if (base == MAP_FAILED) throw std::system_error(errno, std::generic_category());
  unmap();
  base_ = static_cast<std::byte*>(base);
  guard_.watch(base_, fixed_.fileBytes, true, alarm_);
}

void RingFile::unmap() {
  guard_.unwatch();
  if (base_) ::munmap(base_, fixed_.fileBytes);
}

void RingFile::startOver(Anchor const& now) {
  sequence_.fill(0);
  live_.anchors = 0;
  fixed_.openTicks = now.ticks;
  fixed_.openNs = now.ns;
  fixed_.openRealNs = now.realNs;
  fixed_.check = headerCheck(fixed_);
}

// The fixed header at the start comes last: whoever sees it finds what it speaks of.
void RingFile::writeHeaders() {
  std::memcpy(base_ + fixed_.fileBytes - headerBytes, &fixed_, sizeof fixed_);
  if (!sites_.empty()) std::memcpy(base_ + fixed_.siteOffset, sites_.data(), sites_.size());
  std::memcpy(&live(), &live_, sizeof live_);
  std::atomic_thread_fence(std::memory_order_release);
  std::memcpy(base_, &fixed_, sizeof fixed_);
}

// Whoever reads meanwhile, or after a crash in between, sees no sequence and leaves the sub-buffer out.
SubBufferHeader* RingFile::begin(std::size_t level) {
  Ring const& ring = fixed_.ring[level];
  U64 const index = sequence_[level] % (ring.bytes / subBufferBytes);
  auto* const there = reinterpret_cast<SubBufferHeader*>(base_ + ring.offset + index * subBufferBytes);
  std::atomic_ref(there->sequence).store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  Anchor const& now = live_.anchor[live_.anchors % 2];
  SubBufferHeader const header{++sequence_[level], now.ticks, now.ns, 0, 0};
  there->ticks = header.ticks;
  there->ns = header.ns;
  std::atomic_ref(there->used).store(0, std::memory_order_relaxed);
  there->check = subBufferCheck(header);
  std::atomic_ref(there->sequence).store(header.sequence, std::memory_order_release);
  return there;
}

// The older anchor is overwritten first and counts only when it is whole.
void RingFile::anchor(Anchor const& now) {
  if (live().anchors != live_.anchors) *alarm_ = 0;  // cut, and grown again by somebody else
  U64 const next = ++live_.anchors;
  live().anchor[next % 2] = live_.anchor[next % 2] = now;
  std::atomic_ref(live().anchors).store(next, std::memory_order_release);
}

bool RingFile::append(std::vector<std::byte> const& site) {
  if (sites_.size() + site.size() > fixed_.siteBytes) {
    countDropped();
    return false;
  }
  std::size_t const at = sites_.size();
  sites_.insert(sites_.end(), site.begin(), site.end());
  live_.siteUsed = sites_.size();
  if (!whole_) return true;
  std::memcpy(base_ + fixed_.siteOffset + at, site.data(), site.size());
  std::atomic_ref(live().siteUsed).store(live_.siteUsed, std::memory_order_release);
  return true;
}

void RingFile::countDropped() {
  ++live_.dropped;
  if (whole_) live().dropped = live_.dropped;
}

}  // namespace Lumelog
