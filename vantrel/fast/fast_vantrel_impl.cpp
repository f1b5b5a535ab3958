// SPDX-License-Identifier: Apache-2.0
// Construction, simple queries, and what of both fast engines can be reached by name.
#include "vantrel/fast/fast_vantrel_impl.h"

#include <string>

#include "ostra/exception.h"
#include "ostra/type_info.h"
#include "vantrel/core/mapping.h"
#include "vantrel/core/trace.h"
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_atcam_impl.h"
#include "vantrel/fast/mixed_rings.h"
#include "vantrel/fast/state.h"

namespace Vantrel {

FastVantrelImpl::FastVantrelImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
                                 Ostra::Ptr<DebugConfig const> debugConfig,
                                 Ostra::Ptr<DebugStatus> debugStatus, Ostra::Ptr<VantrelHelper> helper,
                                 U32 lgId)
    : VantrelImpl(std::move(name), std::move(tableConfig), std::move(debugConfig), std::move(debugStatus),
                  std::move(helper), lgId),
      mixedRings_(std::make_unique<MixedRings>(*this)) {
  FastVantrelImpl::handleInitialized();
  prefetchIs([](VantrelImpl const& engine, EntryKey const& key) {
    static_cast<FastVantrelImpl const&>(engine).state()->prefetch(key);
  });
}

FastVantrelImpl::~FastVantrelImpl() {
  cleanupOnce();
  notifieeList().clear();
}

FastVantrelAtcamImpl::FastVantrelAtcamImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
                                           Ostra::Ptr<DebugConfig const> debugConfig,
                                           Ostra::Ptr<DebugStatus> debugStatus,
                                           Ostra::Ptr<VantrelHelper> helper, U32 lgId, U32 maxPartitions)
    : FastVantrelImpl(std::move(name), std::move(tableConfig), std::move(debugConfig), std::move(debugStatus),
                      std::move(helper), lgId),
      maxPartitions_(maxPartitions) {
  prioGrpShiftIs(AlgorithmicMapping::defaultShift);
}

FastVantrelAtcamImpl::~FastVantrelAtcamImpl() { cleanupOnce(); }

void FastVantrelImpl::handleInitialized() {
  VANTREL_TRACE(vantrelFastImplTrace(), 8, __func__);
  if (!state()) {
    stateIs(new FastState);
    state()->lgIdIs(lgId());
  }
  initializedIs(true);
}

void FastVantrelImpl::roomForKeysIs(U64 keys) { state()->roomIs(keys); }

OpId FastVantrelImpl::currentOpId(EntryKey const& key) const {
  CState_s const* const c = state()->cachedRecord(key);
  return c ? c->opId : OpId();
}

U32 FastVantrelImpl::numPending() const { return initialized() ? state()->pending.count() : 0; }

U32 FastVantrelImpl::numDeadlock() const { return deadlockCount(); }

// A precedence index has 32 bits; the position cannot have more.
void FastVantrelImpl::checkedPrioGrpShiftIs(U32 v) {
  if (v > Mapping::mostShift)
    throw Ostra::AttributeException("prioGrpShift: expected a number of bits from 0 to 32, got " +
                                    std::to_string(v));
  prioGrpShiftIs(v);
}

namespace {

std::string positionsWouldBeLost(FastVantrelImpl const& engine) {
  if (engine.state()->positions.current.empty() && engine.state()->pending.empty()) return {};
  return "entries are programmed or waiting under the present mapping";
}

std::string stateWouldBeLost(FastVantrelImpl const&) {
  return "it is all that the engine knows of its entries";
}

}  // namespace

// pti and lti have no name: a position outside the mapping fails an assertion, and an operator's typing error
// would end the agent. Nor has isConflicting, which takes a record and leaves a claim.
Ostra::TypeInfo const& FastVantrelImpl::staticType() {
  using F = FastVantrelImpl;
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<F>("Vantrel::FastVantrelImpl", &VantrelImpl::staticType())
          .attribute("prioGrpShift", &F::prioGrpShift, &F::checkedPrioGrpShiftIs)
          .refusedBecause(&positionsWouldBeLost)
          .reference("state", &F::state)
          .refusedBecause(&stateWouldBeLost)
          .attribute("deadlockCount", &F::deadlockCount, &F::deadlockCountIs)
          .operation("deadlockCountInc", &F::deadlockCountInc)
          .attribute("breakMixedRings", &F::breakMixedRings, &F::breakMixedRingsIs)
          .attribute("numMixedRings", &F::numMixedRings)
          .operation("processDeleteHelper", &F::processDeleteHelper)
          .operation("doCleanup", &F::doCleanup);
  return type;
}

Ostra::TypeInfo const& FastVantrelAtcamImpl::staticType() {
  static Ostra::TypeInfo const type = Ostra::TypeInfo::of<FastVantrelAtcamImpl>(
                                          "Vantrel::FastVantrelAtcamImpl", &FastVantrelImpl::staticType())
                                          .attribute("maxPartitions", &FastVantrelAtcamImpl::maxPartitions);
  return type;
}

}  // namespace Vantrel
