// SPDX-License-Identifier: Apache-2.0
// A trace file of any bytes: the reader ends, stays inside its bounds, and each record it delivers is whole.
//
// The first byte chooses: the bytes are the file; or they fill a small file of one ring, whose checks are put
// right, so that what lies behind the checks is reached.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <vector>

#include "lumelog/format.h"
#include "lumelog/reader.h"
#include "pallo/exception.h"

namespace {

using namespace Lumelog::Format;

constexpr std::size_t sitesAt = headerBytes, sitesRoom = 512, ringAt = sitesAt + sitesRoom, subBuffers = 3;

template <class T>
T get(std::vector<std::byte> const& bytes, std::size_t at) {
  T value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

template <class T>
void put(std::vector<std::byte>& bytes, std::size_t at, T const& value) {
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

void rightHeader(std::vector<std::byte>& bytes) {
  FixedHeader header{};
  std::memcpy(header.magic, magic, sizeof magic);
  header.version = version;
  header.byteOrder = byteOrder;
  header.subBufferBytes = subBufferBytes;
  header.fileBytes = bytes.size();
  header.ticksPerSecond = 1000;
  header.siteOffset = sitesAt;
  header.siteBytes = sitesRoom;
  header.ring[9] = {ringAt, subBuffers * subBufferBytes};
  header.check = headerCheck(header);
  put(bytes, 0, header);
}

void rightSites(std::vector<std::byte>& bytes) {
  for (std::size_t at = sitesAt; at + sizeof(SiteHeader) <= ringAt;) {
    auto site = get<SiteHeader>(bytes, at);
    if (site.bytes < sizeof site || site.bytes > ringAt - at || site.bytes % 8) return;
    site.check = 0;
    put(bytes, at, site);
    site.check = fnv(std::span(bytes).subspan(at, site.bytes));
    put(bytes, at, site);
    at += site.bytes;
  }
}

void rightRecords(std::vector<std::byte>& bytes, std::size_t at, std::size_t end) {
  while (at + sizeof(RecordHeader) <= end) {
    auto record = get<RecordHeader>(bytes, at);
    if (record.bytes < sizeof record || record.bytes > end - at) return;
    record.check = recordCheck(record.ticks, record.site, record.bytes);
    put(bytes, at, record);
    at += record.bytes;
  }
}

void rightSubBuffers(std::vector<std::byte>& bytes) {
  for (std::size_t i = 0; i < subBuffers; ++i) {
    std::size_t const at = ringAt + i * subBufferBytes;
    auto header = get<SubBufferHeader>(bytes, at);
    header.check = subBufferCheck(header);
    put(bytes, at, header);
    rightRecords(bytes, at + sizeof header, at + subBufferBytes);
  }
}

std::vector<std::byte> file(std::span<std::byte const> data) {
  std::vector<std::byte> bytes(data.begin(), data.end());
  if (data.empty() || (data.front() & std::byte{1}) == std::byte{0}) return bytes;
  bytes.assign(ringAt + subBuffers * subBufferBytes, std::byte{0});
  data = data.subspan(1);
  // The live header, then sites and sub-buffers, of which the input may give the beginnings only.
  std::size_t const live = std::min(data.size(), sizeof(LiveHeader));
  std::copy_n(data.begin(), live, bytes.begin() + offsetof(FileHeader, live));
  data = data.subspan(live);
  std::copy_n(data.begin(), std::min(data.size(), bytes.size() - sitesAt), bytes.begin() + sitesAt);
  rightHeader(bytes);
  rightSites(bytes);
  rightSubBuffers(bytes);
  return bytes;
}

void readAll(std::string const& path) {
  try {
    Lumelog::Reader reader(path);
    for (Lumelog::Record record; reader.next(record);) {
      if (record.values.size() != record.site->types.size() || record.bytes > subBufferBytes) std::abort();
      if (record.message().size() > 4 * subBufferBytes) std::abort();
      record.mentionsKey(1);
    }
    reader.damage().lines();
  } catch (Pallo::Exception const&) {
    // Said to be no trace file.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
  std::vector<std::byte> const bytes = file(std::as_bytes(std::span(data, size)));
  static int const fd = memfd_create("trace", MFD_CLOEXEC);
  if (fd < 0 || ftruncate(fd, 0) != 0 ||
      pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    std::abort();
  readAll("/proc/self/fd/" + std::to_string(fd));
  return 0;
}
