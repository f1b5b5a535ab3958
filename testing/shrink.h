// SPDX-License-Identifier: Apache-2.0
// Makes a failing scenario small: steps are taken out, in ever smaller pieces, as long as it still fails.
#pragma once

#include <functional>

#include "testing/scenario.h"

namespace Testing {

// `fails` must be true of `scenario`, and must not end the process on what is left of it.
Scenario shrink(Scenario scenario, std::function<bool(Scenario const&)> const& fails);

// Runs a check in a child process: true when it returned true or the child died. What was taken out of a
// scenario may make the rest one that ends the process.
bool failsApart(std::function<bool()> const& check);

// Writes the scenario where `vantrel replay` can run it, and returns the path: in the directory that
// VANTREL_FAILURES names, else in the system's for temporary files.
std::string keep(Scenario const& scenario, std::string const& name);

}  // namespace Testing
