// SPDX-License-Identifier: Apache-2.0
#include "pallo/file_lock.h"

#include <fcntl.h>

#include <algorithm>

namespace Pallo::FileLock {
namespace {

flock64 bytes(short type, U64 begin, U64 end) {
  flock64 lock{};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = static_cast<off64_t>(begin);
  lock.l_len = static_cast<off64_t>(end - begin);
  return lock;
}

}  // namespace

bool take(int fd, U64 byte) {
  flock64 request = bytes(F_WRLCK, byte, byte + 1);
  return ::fcntl(fd, F_OFD_SETLK, &request) == 0;
}

void release(int fd, U64 byte) {
  flock64 request = bytes(F_UNLCK, byte, byte + 1);
  ::fcntl(fd, F_OFD_SETLK, &request);
}

// The kernel names some lock in the range, not the first: what lies before it is asked for again.
std::optional<U64> firstHeld(int fd, U64 begin, U64 end) {
  std::optional<U64> first;
  while (begin < end) {
    flock64 request = bytes(F_WRLCK, begin, end);
    if (::fcntl(fd, F_OFD_GETLK, &request) != 0 || request.l_type == F_UNLCK) break;
    first = std::max(begin, static_cast<U64>(request.l_start));
    end = *first;
  }
  return first;
}

}  // namespace Pallo::FileLock
