// SPDX-License-Identifier: Apache-2.0
// A tracing session of LTTng-UST with a daemon of its own, in the directory of a caller: neither a session
// that the system has, nor root's rights, nor a kernel module are touched.
//
// Errors: figures that cannot be had come as a text that says why.
#pragma once

#include <string>
#include <variant>

namespace TraceBench {

// What a passage of an enabled tracepoint with two values costs, in nanoseconds, recording into memory alone
// and overwriting the oldest; or why that cannot be said.
std::variant<double, std::string> lttngNanoseconds(std::string const& directory);

}  // namespace TraceBench
