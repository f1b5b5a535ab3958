// SPDX-License-Identifier: Apache-2.0
// A child process of a test, with its output in files. It is killed with the object.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace TestSupport {

inline std::string contents(std::string const& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

// True as soon as `condition` is; false after `seconds`.
inline bool eventually(std::function<bool()> const& condition, double seconds = 30) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

class Process {
 public:
  // Runs argv[0]; stdout goes to `out` and stderr to `err`.
  Process(std::vector<std::string> argv, std::string out, std::string err)
      : out_(std::move(out)), err_(std::move(err)) {
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork");
    if (pid_ == 0) become(argv);
  }
  ~Process() {
    if (!running_) return;
    kill(pid_, SIGKILL);
    wait();
  }
  Process(Process const&) = delete;
  Process& operator=(Process const&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const { kill(pid_, number); }
  // The exit status, 128 + the signal when one ended it.
  int wait() {
    int status = 0;
    waitpid(pid_, &status, 0);
    running_ = false;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }
  std::string out() const { return contents(out_); }
  std::string err() const { return contents(err_); }
  // Processor time that its first thread used so far, seconds.
  double cpuSeconds() const {
    std::istringstream stat(contents("/proc/" + std::to_string(pid_) + "/schedstat"));
    double nanoseconds = 0;
    stat >> nanoseconds;
    return nanoseconds * 1e-9;
  }
  // Resident memory, KiB.
  long residentKib() const {
    std::istringstream statm(contents("/proc/" + std::to_string(pid_) + "/statm"));
    long total = 0, resident = 0;
    statm >> total >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
  }

 private:
  [[noreturn]] void become(std::vector<std::string>& argv) const {
    redirect(out_, 1);
    redirect(err_, 2);
    std::vector<char*> raw;
    for (std::string& a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    execv(raw[0], raw.data());
    _exit(127);
  }
  static void redirect(std::string const& path, int to) {
    int const fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, to);
    close(fd);
  }
  pid_t pid_ = -1;
  bool running_ = true;
  std::string const out_, err_;
};

}  // namespace TestSupport
