// SPDX-License-Identifier: Apache-2.0
// Linked into the tests of the coverage build alone: a process that an assertion ends counts what it ran too.
#include <csignal>

extern "C" void __gcov_dump();

namespace {

void countAndGo(int) { __gcov_dump(); }  // abort() ends the process when the handler returns

[[maybe_unused]] auto const before = std::signal(SIGABRT, countAndGo);

}  // namespace
