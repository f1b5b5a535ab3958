// SPDX-License-Identifier: Apache-2.0
#include "tests/support/freed.h"

#include <malloc.h>

#include <cstdlib>
#include <new>
#include <utility>
#include <vector>

namespace {

struct Guarded {
  void const* within;
  std::function<void()> whenFreed;
};

std::vector<Guarded>& guarded() {
  static auto* const blocks = new std::vector<Guarded>;  // outlives every static that is freed
  return *blocks;
}
bool guarding = false;

// Apart from what it frees itself.
void tell(std::byte const* begin, std::byte const* end) {
  std::less<void const*> const before;
  for (std::size_t i = 0; i < guarded().size(); ++i) {
    if (before(guarded()[i].within, begin) || !before(guarded()[i].within, end)) continue;
    auto const whenFreed = std::move(guarded()[i].whenFreed);
    guarded().erase(guarded().begin() + static_cast<std::ptrdiff_t>(i--));
    whenFreed();
  }
  guarding = !guarded().empty();
}

void release(void* memory) noexcept {
  if (memory && std::exchange(guarding, false)) {
    auto const* const begin = static_cast<std::byte const*>(memory);
    tell(begin, begin + malloc_usable_size(memory));
  }
  std::free(memory);
}

}  // namespace

namespace TestSupport {

void onFree(void const* within, std::function<void()> whenFreed) {
  guarding = false;
  guarded().push_back({within, std::move(whenFreed)});
  guarding = true;
}

}  // namespace TestSupport

void* operator new(std::size_t size) {
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return std::malloc(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t) noexcept { release(memory); }
void operator delete(void* memory, std::nothrow_t const&) noexcept { release(memory); }
