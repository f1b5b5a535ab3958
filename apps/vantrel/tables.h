// SPDX-License-Identifier: Apache-2.0
// What the verbs share about the tables of a directory.
#pragma once

#include <string>

namespace VantrelCommand {

// Raises std::runtime_error, naming the file, when there is no table. For verbs that must not make one.
void requireTable(std::string const& path);

}  // namespace VantrelCommand
