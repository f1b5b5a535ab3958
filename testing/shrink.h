// SPDX-License-Identifier: Apache-2.0
// Shrinks a failing scenario (delta debugging, A. Zeller, 1999): removes steps, in ever smaller pieces, as
// long as it still fails.
#pragma once

#include <functional>

#include "testing/scenario.h"

namespace Testing {

// `fails` must be true for `scenario`, and must not end the process for a part of it.
Scenario shrink(Scenario scenario, std::function<bool(Scenario const&)> const& fails);

// Runs a check in a child process. Returns true when it returned true or the child died: a part of a scenario
// may end the process.
bool failsApart(std::function<bool()> const& check);

// Writes the scenario to a file for `vantrel replay` and returns its path: in the directory that
// VANTREL_FAILURES names, else in the system's for temporary files.
std::string keep(Scenario const& scenario, std::string const& name);

}  // namespace Testing
