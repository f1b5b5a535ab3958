// SPDX-License-Identifier: Apache-2.0
#include "pallo/guard.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "pallo/exception.h"

namespace Pallo {
namespace {

struct Window {
  std::atomic<U64> base{0};
  std::atomic<U64> bytes{0};
  std::atomic<bool> writable{false};
  std::atomic<U64*> alarm{nullptr};
  std::atomic<U32> hits{0};
};
constexpr int maxWindows = 4096;
constexpr U64 writableStep = 256U * 1024U;
std::array<Window, maxWindows> windows;
std::atomic<int> windowsEver{0};
struct sigaction previousAction;

std::mutex& mutex() {
  static std::mutex one;
  return one;
}

// A reader's zero pages reach to the window's end, so that a long file cut short costs one fault; a writer's,
// which the kernel accounts for, cover a step.
bool layZeroPages(Window& window, U64 address) {
  bool const writable = window.writable.load();
  U64 const end = window.base.load() + window.bytes.load();
  U64 const from = address & ~U64{4095};
  U64 const bytes = writable ? std::min(writableStep, end - from) : end - from;
  long const flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_NORESERVE;
  long const protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
  window.hits.fetch_add(1);
  if (U64* const alarm = window.alarm.load()) __atomic_store_n(alarm, 0, __ATOMIC_RELAXED);
  return syscall(SYS_mmap, from, bytes, protection, flags, -1L, 0L) == static_cast<long>(from);
}

void passOn(int signal, siginfo_t* info, void* context) {
  if (previousAction.sa_flags & SA_SIGINFO)
    previousAction.sa_sigaction(signal, info, context);
  else if (previousAction.sa_handler != SIG_DFL && previousAction.sa_handler != SIG_IGN)
    previousAction.sa_handler(signal);
  else
    ::signal(SIGBUS, SIG_DFL);  // the instruction runs again and ends the process
}

void onSigbus(int signal, siginfo_t* info, void* context) {
  int const saved = errno;
  U64 const address = reinterpret_cast<U64>(info->si_addr);
  for (int i = 0; i < windowsEver.load(); ++i) {
    U64 const base = windows[static_cast<unsigned>(i)].base.load();
    if (base == 0 || address < base || address - base >= windows[static_cast<unsigned>(i)].bytes.load())
      continue;
    if (info->si_code == BUS_ADRERR && layZeroPages(windows[static_cast<unsigned>(i)], address)) {
      errno = saved;
      return;
    }
  }
  passOn(signal, info, context);
}

void installHandler() {
  struct sigaction current {};
  sigaction(SIGBUS, nullptr, &current);
  if (current.sa_flags & SA_SIGINFO && current.sa_sigaction == &onSigbus) return;
  previousAction = current;
  struct sigaction ours {};
  ours.sa_sigaction = &onSigbus;
  ours.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&ours.sa_mask);
  sigaction(SIGBUS, &ours, nullptr);
}

}  // namespace

void GuardedWindow::watch(void* base, U64 bytes, bool writable, U64* alarm) {
  std::lock_guard const lock(mutex());
  installHandler();
  auto const free =
      std::find_if(windows.begin(), windows.end(), [](Window const& w) { return w.base.load() == 0; });
  if (free == windows.end())
    throw Exception(
        fmt::format("this process has {} files mapped already, the most it can guard", maxWindows));
  free->bytes = bytes;
  free->writable = writable;
  free->alarm = alarm;
  free->hits = 0;
  free->base = reinterpret_cast<U64>(base);
  place_ = static_cast<int>(free - windows.begin());
  windowsEver = std::max(windowsEver.load(), place_ + 1);
}

void GuardedWindow::unwatch() {
  if (place_ < 0) return;
  std::lock_guard const lock(mutex());
  windows[static_cast<unsigned>(place_)].base = 0;
  place_ = -1;
}

bool GuardedWindow::hit() const {
  return windows[static_cast<unsigned>(place_)].hits.load(std::memory_order_relaxed) != 0;
}
void GuardedWindow::reset() { windows[static_cast<unsigned>(place_)].hits = 0; }

}  // namespace Pallo
