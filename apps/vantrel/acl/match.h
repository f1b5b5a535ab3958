// SPDX-License-Identifier: Apache-2.0
// What the planner has to know of a rule.
#pragma once

#include "hw/acl/rule.h"
#include "producer/planner/match.h"

namespace Acl {

// Two rules overlap exactly when their matches do.
Planning::Match matchOf(Rule const& rule);

}  // namespace Acl
