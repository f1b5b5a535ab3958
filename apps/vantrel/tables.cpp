// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/tables.h"

#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>

namespace VantrelCommand {

void requireTable(std::string const& path) {
  if (!std::filesystem::exists(path)) throw std::runtime_error(fmt::format("there is no table {}", path));
}

}  // namespace VantrelCommand
