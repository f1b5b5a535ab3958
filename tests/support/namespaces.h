// SPDX-License-Identifier: Apache-2.0
// Namespaces of a test's own.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>

namespace TestSupport {

// Moves the process to a network and mounts of its own, which nobody else sees. 0, or the error.
inline int ownNetworkAndMounts() {
  if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return errno;
  if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return 0;
  return errno == EINVAL ? 0 : errno;  // the root of a chroot is no mount, and not shared
}

}  // namespace TestSupport
