// SPDX-License-Identifier: Apache-2.0
// An LTTng-UST tracepoint of two values, as its headers want it declared: this file includes itself through
// them, several times.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER vantrel_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/trace/lttng_provider.h"

#if !defined(BENCH_TRACE_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_TRACE_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>

#include <cstdint>

LTTNG_UST_TRACEPOINT_EVENT(vantrel_bench, two_values,
                           LTTNG_UST_TP_ARGS(std::uint64_t, key, std::uint32_t, hdl),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_integer(std::uint64_t, key, key)
                                                   lttng_ust_field_integer(std::uint32_t, hdl, hdl)))

#endif

#include <lttng/tracepoint-event.h>
