// SPDX-License-Identifier: Apache-2.0
// FastVantrelAtcamImpl: the engine for algorithmic TCAMs, whose table index interleaves partitions: with M
// partitions, ti = offset * M + partition. A partition is a priority group; precedence is partition first,
// offset second.
//
//   two partitions, four offsets, ti in the boxes:
//     partition 0  | 0 | 2 | 4 | 6 |     pti = partition << prioGrpShift | offset
//     partition 1  | 1 | 3 | 5 | 7 |
//
// Invariants, Ownership, Threading, Cost, Errors: those of FastVantrelImpl. The clean-up runs in this class's
//   destructor, and only there.
#pragma once

#include "vantrel/fast/fast_vantrel_impl.h"

namespace Vantrel {

class VANTREL_API FastVantrelAtcamImpl : public FastVantrelImpl {
 public:
  // `maxPartitions` is the number of partitions interleaved; zero is not guarded against.
  FastVantrelAtcamImpl(std::string name, Ostra::Ptr<TableConfig const> tableConfig,
                       Ostra::Ptr<DebugConfig const> debugConfig, Ostra::Ptr<DebugStatus> debugStatus,
                       Ostra::Ptr<VantrelHelper> helper, U32 lgId, U32 maxPartitions);
  // The clean-up needs this class's pti: it runs here, not in the base.
  ~FastVantrelAtcamImpl() override;

  U32 pti(U16 pg, U32 ti) const override;
  U32 lti(U32 pti) const override;

  U32 maxPartitions() const { return maxPartitions_; }

  static Ostra::TypeInfo const& staticType();
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

 private:
  U32 const maxPartitions_;
};

}  // namespace Vantrel
