// SPDX-License-Identifier: Apache-2.0
// A forked process that runs one function, ended with its object, or with this process.
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>

namespace Bench {

class Child {
 public:
  explicit Child(std::function<void()> const& work) : pid_(fork()) {
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ > 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    try {
      work();
    } catch (std::exception const&) {
      _exit(1);
    }
    _exit(0);
  }
  ~Child() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(Child const&) = delete;
  Child& operator=(Child const&) = delete;
  pid_t pid() const { return pid_; }

 private:
  pid_t const pid_;
};

}  // namespace Bench
