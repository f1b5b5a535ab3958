// SPDX-License-Identifier: Apache-2.0
#include "producer/geometry.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace Vantrel {
namespace {

[[noreturn]] void broken(std::string const& path, std::string const& why) {
  throw std::runtime_error(fmt::format("{}: {}; start the agent again, it writes the file anew", path, why));
}

// One line is a name, a blank and a value.
void lineIs(Geometry& geometry, std::string const& path, std::string const& name, std::string const& value) {
  if (name == "engine") return;  // maxPartitions says it
  U32* const field = name == "size"            ? &geometry.size
                     : name == "prioGrpShift"  ? &geometry.prioGrpShift
                     : name == "maxPartitions" ? &geometry.maxPartitions
                                               : nullptr;
  if (!field) return;  // of a later version
  char* end = nullptr;
  errno = 0;
  unsigned long const number = std::strtoul(value.c_str(), &end, 10);
  if (*end != '\0' || value.empty() || errno != 0 || number > 0xFFFFFFFFUL)
    broken(path, fmt::format("expected a number behind \"{}\", found \"{}\"", name, value));
  *field = static_cast<U32>(number);
}

}  // namespace

Mapping Geometry::mapping() const {
  return maxPartitions == 0 ? Mapping::fast(prioGrpShift) : Mapping::algorithmic(maxPartitions);
}

std::optional<Geometry> Geometry::read(std::string const& dir) {
  std::string const file = path(dir);
  std::ifstream in(file);
  if (!in) {
    if (!std::filesystem::exists(file)) return std::nullopt;
    throw std::runtime_error(
        fmt::format("{} cannot be read: {}", file, std::generic_category().message(errno)));
  }
  Geometry geometry{0, Mapping::defaultShift, 0};
  for (std::string name, value; in >> name >> value;) lineIs(geometry, file, name, value);
  if (geometry.size == 0 || geometry.prioGrpShift > Mapping::mostShift || geometry.maxPartitions > 65536)
    broken(file, "it does not say how many positions there are");
  return geometry;
}

void Geometry::write(std::string const& dir) const {
  std::string const file = path(dir);
  std::string const unfinished = fmt::format("{}.{}", file, ::getpid());
  std::ofstream out(unfinished);
  out << fmt::format("size {}\nengine {}\nprioGrpShift {}\nmaxPartitions {}\n", size, engine(), prioGrpShift,
                     maxPartitions);
  out.close();
  if (out && std::rename(unfinished.c_str(), file.c_str()) == 0) return;
  std::string const why = std::generic_category().message(errno);
  std::remove(unfinished.c_str());
  throw std::runtime_error(fmt::format("{} cannot be written: {}", file, why));
}

}  // namespace Vantrel
