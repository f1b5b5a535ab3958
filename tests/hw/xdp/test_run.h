// SPDX-License-Identifier: Apache-2.0
// A table in the kernel that is attached nowhere: packets come by test runs.
#pragma once

#include <bpf/bpf.h>

#include <optional>
#include <stdexcept>
#include <string>

#include "hw/xdp/tcam.h"
#include "tests/hw/xdp/packets.h"

namespace XdpTest {

using Hw::XdpHook;
using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;

constexpr U32 xdpPass = 2, tcOk = 0;

inline EntryConfig entryOf(U64 key, Acl::Rule const& rule, U32 ti, U64 version = 1,
                           std::optional<U32> priority = {}) {
  EntryConfig e(EntryKey(key), OpId(version << 16), static_cast<U32>(key), 0, priority.value_or(ti));
  e.tableIndexIs(Vantrel::TableKey(0), ti);
  U32 word = 0;
  for (U64 const w : Acl::encode(rule)) e.dataIs(Vantrel::DataKey(word++), w);
  return e;
}

// Sends the frame so many times through the program. Returns the verdict of the last time.
inline U32 run(int program, Bytes const& frame, U32 times = 1) {
  bpf_test_run_opts how = {};
  how.sz = sizeof how;
  how.data_in = frame.data();
  how.data_size_in = static_cast<U32>(frame.size());
  how.repeat = static_cast<int>(times);
  if (int const error = bpf_prog_test_run_opts(program, &how); error != 0)
    throw std::runtime_error("a test run failed: " + std::to_string(error));
  return how.retval;
}

// Why no table can be made on this machine; empty when one can. What the kernel's verifier refuses is no
// reason: that is Permission denied.
inline std::string missing() {
  try {
    Hw::XdpTcam const tcam("hardware", {.positions = 64});
    return "";
  } catch (std::runtime_error const& e) {
    std::string const why = e.what();
    return why.find("Operation not permitted") != std::string::npos ? why : "";
  }
}

// The mark that the packet has behind the program.
inline U32 markOf(int program, Bytes const& frame) {
  __sk_buff context = {};
  bpf_test_run_opts how = {};
  how.sz = sizeof how;
  how.data_in = frame.data();
  how.data_size_in = static_cast<U32>(frame.size());
  how.ctx_in = how.ctx_out = &context;
  how.ctx_size_in = how.ctx_size_out = sizeof context;
  if (int const error = bpf_prog_test_run_opts(program, &how); error != 0)
    throw std::runtime_error("a test run failed: " + std::to_string(error));
  return context.mark;
}

inline bool passes(Hw::XdpTcam& tcam, XdpHook hook, Bytes const& frame) {
  return run(tcam.program().fd(), frame) == (hook == XdpHook::Tc ? tcOk : xdpPass);
}

}  // namespace XdpTest
