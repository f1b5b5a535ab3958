// SPDX-License-Identifier: Apache-2.0
// What an agent includes; nothing else is needed to drive the engine.
//
//   engine = make<FastVantrelImpl>(name, tableConfig, debugConfig, debugStatus, hardwareClient, traceId)
//   frontEnd = vantrelSmFactory({.tableConfig = ..., .tableStatus = ..., .vantrelImpl = engine, ...})
//
// From then on the agent's loop must call dispatch() of the table and of the wheel when their file
// descriptors are readable; they notify the front end.
#pragma once

#include "keel/timerfd_wheel.h"
#include "ostra/exception.h"
#include "pallo/exception.h"
#include "shoal/local_table.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"
#include "vantrel/engine/debug_entities.h"
#include "vantrel/engine/vantrel_helper.h"
#include "vantrel/fast/fast_vantrel_atcam_impl.h"
#include "vantrel/fast/fast_vantrel_impl.h"
#include "vantrel/sm/flush_status.h"
#include "vantrel/sm/vantrel_sm.h"
