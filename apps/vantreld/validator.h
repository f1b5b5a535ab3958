// SPDX-License-Identifier: Apache-2.0
// What is wrong with a record that would stop the engine. A producer that keeps its rules never writes one; a
// broken producer must not take the agent down: the record is reported and reads as empty.
#pragma once

#include <optional>
#include <string>

#include "apps/vantreld/options.h"
#include "vantrel/vantrel.h"

namespace Vantreld {

std::optional<std::string> fault(Vantrel::EntryConfig const& record, Options const& options,
                                 Vantrel::FastVantrelImpl const& engine);

}  // namespace Vantreld
