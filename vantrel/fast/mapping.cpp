// SPDX-License-Identifier: Apache-2.0
// Mapping: a priority group and a table index become one 32-bit precedence index, whose numeric order is the
// hardware's precedence order inside a group.
//
//   TCAM, shift 19:                 pti = [ pg : 13 | ti : 19 ]              lti(pti) = ti
//   algorithmic, shift 16, M parts: ti  = offset * M + partition
//                                   pti = [ partition | offset : 16 ]        lti(pti) = ti
//
// Positions outside the mapping are assertions: the producer keeps inside it.
#include "vantrel/fast/asserts.h"
#include "vantrel/fast/fast_vantrel_atcam_impl.h"

namespace Vantrel {
namespace {

// Shifts of 32 and more are well-defined on 64 bits; the result is cut to 32.
U64 shiftLeft(U64 value, U32 shift) { return shift < 64 ? value << shift : 0; }
U64 shiftRight(U64 value, U32 shift) { return shift < 64 ? value >> shift : 0; }
U32 lowMask(U32 bits) { return static_cast<U32>(shiftLeft(1, bits) - 1); }

}  // namespace

U32 FastVantrelImpl::pti(U16 pg, U32 ti) const {
  U32 const s = prioGrpShift();
  FAST_ASSERT_AS(shiftRight(ti, s) == 0, "ti < ( 1UL << prioGrpShift() )");
  FAST_ASSERT_AS(shiftRight(pg, 32 - s) == 0, "pg < ( 1UL << ( 32 - prioGrpShift() ) )");
  return static_cast<U32>(shiftLeft(pg, s)) | ti;
}

U32 FastVantrelImpl::lti(U32 pti) const { return pti & lowMask(prioGrpShift()); }

U32 FastVantrelAtcamImpl::pti(U16 pg, U32 ti) const {
  U32 const offset = ti / maxPartitions();
  U32 const partition = ti % maxPartitions();
  FAST_ASSERT(pg == partition);
  FAST_ASSERT_AS(offset <= 0xFFFF, "offset < ( 1UL << 16 )");
  return offset | static_cast<U32>(shiftLeft(partition, prioGrpShift()));
}

U32 FastVantrelAtcamImpl::lti(U32 pti) const {
  U32 const s = prioGrpShift();
  return (pti & lowMask(s)) * maxPartitions() + static_cast<U32>(shiftRight(pti, s));
}

}  // namespace Vantrel
