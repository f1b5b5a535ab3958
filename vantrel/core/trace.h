// SPDX-License-Identifier: Apache-2.0
// The two trace channels of the library and its assertions, by the names that the rest of the code uses.
//
//   VANTREL_TRACE(vantrelFastImplTrace(), 8, "found ", key);          facility trace: text
//   VANTREL_RECORD(9, lgId(), "handling key:", key, " hdl:", hdl);    ring-buffer record: binary values
//
// A record starts with the engine's trace identifier, then text and values take turns. Records are dropped
// while the trace file is not open.
//
// Invariants: the trace file is opened at most once a process, however many engines there are. A failed
//   assertion is its last record.
// Ownership: the trace file belongs to the process and stays open to its end.
// Threading: the agent's thread.
// Cost: either channel switched off is one predictable branch.
// Errors: what cannot be opened is said once on stderr; the engine runs on without.
#pragma once

#include "lumelog/lumelog.h"
#include "ostra/trace.h"
#include "pallo/assert.h"

namespace Vantrel {

namespace Detail {
extern VANTREL_API Ostra::TraceHandle smTrace;
extern VANTREL_API Ostra::TraceHandle implTrace;
extern VANTREL_API Ostra::TraceHandle fastImplTrace;
}  // namespace Detail

// The facility handles, one a class family. They are initialized at compile time and register on first use,
// so that testing a level needs no initialization guard.
inline Ostra::TraceHandle& vantrelSmTrace() { return Detail::smTrace; }
inline Ostra::TraceHandle& vantrelImplTrace() { return Detail::implTrace; }
inline Ostra::TraceHandle& vantrelFastImplTrace() { return Detail::fastImplTrace; }

// The process's trace file; null until initLg has opened it.
extern VANTREL_API Lumelog::Log* lg;

// Opens the process's trace file "Quarry-mbb" unless it is open or LUMELOG_DISABLE is set. It lies in
// LUMELOGDIR, else under its per-process name in the directory that the agent gave Lumelog, else in the
// current one.
VANTREL_API void initLg();

// How many trace files of dead processes are kept, the newest ones, when the trace file is opened; 8 by
// default. Setting it while the file is open removes the others at once.
VANTREL_API U32 traceKeep();
VANTREL_API void traceKeepIs(U32 keep);

// While a key is handled, its records share one timestamp. Code that takes time calls momentPassed(), and the
// next record reads the clock again; momentStands() cancels that.
inline void momentPassed() {
  if (lg) lg->momentPassed();
}
inline void momentStands() {
  if (lg) lg->momentStands();
}

// Changes the facility levels at run time: sets TRACE to `settings` and reads the environment again.
VANTREL_API void traceSettingIs(char const* settings);

}  // namespace Vantrel

#define VANTREL_TRACE(handle, level, ...) OSTRA_TRACE(handle, level, __VA_ARGS__)

// A handler's entry: full signature, model file, line, operation.
#define VANTREL_TRACE_ENTRY(handle, level, model, operation) \
  OSTRA_TRACE(handle, level, __PRETTY_FUNCTION__, " ", model, ":", __LINE__, " ", operation)

#define VANTREL_RECORD(level, lgId, ...) LUMELOG_RECORD(::Vantrel::lg, level, lgId, __VA_ARGS__)
