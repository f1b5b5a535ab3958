// SPDX-License-Identifier: Apache-2.0
#include "producer/shared_tables.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <system_error>

#include "shoal/error.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"

namespace Vantrel {

class VANTREL_LOCAL SharedTables::ConfigFile : public Shoal::WriterTable<EntryConfig> {
 public:
  using WriterTable::WriterTable;
};
class VANTREL_LOCAL SharedTables::StatusFile : public Shoal::ReaderTable<EntryStatus> {
 public:
  using ReaderTable::ReaderTable;
};

namespace {

std::string const& made(std::string const& dir) {
  std::error_code error;
  std::filesystem::create_directories(dir, error);
  if (error)
    throw Shoal::FileException(Shoal::FileException::Reason::notAllowed,
                               fmt::format("cannot make the directory {}: {}", dir, error.message()));
  return dir;
}

int milliseconds(double seconds) {
  return static_cast<int>(std::ceil(std::clamp(seconds, 0.0, 3600.0) * 1000.0));
}

}  // namespace

SharedTables::SharedTables(std::string const& dir)
    : config_(Ostra::make<ConfigFile>(configPath(made(dir)))),
      status_(Ostra::make<StatusFile>(statusPath(dir), StatusFile::Presence::awaited)) {}

SharedTables::~SharedTables() = default;

Ostra::Ptr<TableConfig> SharedTables::config() const { return config_; }
Ostra::Ptr<TableStatus const> SharedTables::status() const { return status_; }
U64 SharedTables::changes() const { return config_->changes(); }
bool SharedTables::hasStatus() const { return status_->mounted(); }

std::string SharedTables::statusProblem() const {
  return status_->problem().empty() ? "" : status_->problem() + advice(status_->path());
}

std::string SharedTables::advice(std::string const& path) {
  if (::access(path.c_str(), R_OK) == 0 || errno != EACCES) return {};
  return "; agent and producers of several users need a group in common, which the directory belongs to and "
         "hands "
         "on (chmod g+s)";
}
int SharedTables::fd() const { return status_->fd(); }
void SharedTables::dispatch() { status_->dispatch(); }

bool SharedTables::wait(double seconds) {
  pollfd waiting{fd(), POLLIN, 0};
  int const ready = poll(&waiting, 1, milliseconds(seconds));
  if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  if (ready <= 0) return false;
  dispatch();
  return true;
}

}  // namespace Vantrel
