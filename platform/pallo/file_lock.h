// SPDX-License-Identifier: Apache-2.0
// FileLock: locks on single bytes of a file, by which one process knows that another is alive.
//
// Invariants: a lock belongs to the open file description that took it, and ends when the last descriptor of
//   that is closed: by its owner, or by the kernel when the process dies, however it dies. A forked child
//   holds the description too. Two descriptions of one process exclude each other like those of two.
// Threading: any.
// Cost: one system call.
#pragma once

#include <optional>

#include "pallo/types.h"

namespace Pallo::FileLock {

// Takes the byte's lock; the descriptor must be open for writing. Returns false when another has it, and when
// the file system has no locks (errno says which: EAGAIN or EACCES means another).
bool take(int fd, U64 byte);
// Gives it back before the descriptor is closed.
void release(int fd, U64 byte);
// The first byte from `begin` up to but not including `end` that another description has locked.
std::optional<U64> firstHeld(int fd, U64 begin, U64 end);
inline bool isHeld(int fd, U64 byte) { return firstHeld(fd, byte, byte + 1).has_value(); }

}  // namespace Pallo::FileLock
