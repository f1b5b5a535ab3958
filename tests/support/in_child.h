// SPDX-License-Identifier: Apache-2.0
// Work that is done in a process of its own, for what a process has only once or what ends it.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

namespace TestSupport {

// Its exit status or, negative, the signal that ended it.
inline int inChild(std::function<void()> const& work, pid_t* pid = nullptr) {
  pid_t const child = fork();
  if (child == 0) {
    work();
    fflush(nullptr);
    _exit(0);
  }
  if (pid) *pid = child;
  int status;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace TestSupport
