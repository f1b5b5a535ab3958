// SPDX-License-Identifier: Apache-2.0
// Notices when a block of memory is freed. A test program that uses it links freed.cpp, which takes the
// place of operator new and delete.
#pragma once

#include <functional>

namespace TestSupport {

// `whenFreed` is called once, when the block that holds `within` is given back.
void onFree(void const* within, std::function<void()> whenFreed);

}  // namespace TestSupport
