// SPDX-License-Identifier: Apache-2.0
// Static probes (USDT) at the steps of an entry's life, for perf, bpftrace and debuggers: an instruction that
// does nothing each, until a tracer puts a breakpoint there. docs/probes.md lists them.
//
// Cost: none while nobody traces. The arguments must be values that are at hand: they are always computed.
#pragma once

#define SDT_USE_VARIADIC
#include <sys/sdt.h>

#define VANTREL_PROBE(name, ...) STAP_PROBEV(vantrel, name, __VA_ARGS__)
