// SPDX-License-Identifier: Apache-2.0
// The engines' pti and lti, by core/mapping.h. A position or a group outside the mapping fails an assertion:
// the producer must keep inside.
#include "vantrel/core/mapping.h"

#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_atcam_impl.h"

namespace Vantrel {

U32 FastVantrelImpl::pti(U16 pg, U32 ti) const {
  TcamMapping const mapping{prioGrpShift()};
  FAST_ASSERT_AS(mapping.hasPosition(ti), "ti < ( 1UL << prioGrpShift() )");
  FAST_ASSERT_AS(mapping.hasGroup(pg), "pg < ( 1UL << ( 32 - prioGrpShift() ) )");
  return mapping.pti(pg, ti);
}

U32 FastVantrelImpl::lti(U32 pti) const { return TcamMapping{prioGrpShift()}.lti(pti); }

U32 FastVantrelAtcamImpl::pti(U16 pg, U32 ti) const {
  AlgorithmicMapping const mapping{maxPartitions(), prioGrpShift()};
  FAST_ASSERT_AS(pg == mapping.partition(ti), "pg == partition");
  FAST_ASSERT_AS(mapping.hasOffset(ti), "offset < ( 1UL << 16 )");
  return mapping.pti(ti);
}

U32 FastVantrelAtcamImpl::lti(U32 pti) const {
  return AlgorithmicMapping{maxPartitions(), prioGrpShift()}.lti(pti);
}

}  // namespace Vantrel
