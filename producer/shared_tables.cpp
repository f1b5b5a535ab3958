// SPDX-License-Identifier: Apache-2.0
#include "producer/shared_tables.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <optional>
#include <system_error>

#include "pallo/exception.h"
#include "shoal/error.h"
#include "shoal/file_wait.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"

namespace Vantrel {

class SharedTables::ConfigFile : public Shoal::WriterTable<EntryConfig> {
 public:
  using WriterTable::WriterTable;
};

// The status table before and after its file exists.
class SharedTables::LateStatus : public TableStatus {
 public:
  explicit LateStatus(std::string const& path) : Table(path), wait_(std::in_place, path), watcher_(*this) {
    mountIfReady();
  }

  EntryStatus entry(EntryKey const& key) const override { return file_ ? file_->entry(key) : EntryStatus(); }
  std::optional<Place> first() const override { return file_ ? file_->first() : std::nullopt; }
  std::optional<Place> next(Place const& place) const override {
    return file_ ? file_->next(place) : std::nullopt;
  }
  U64 size() const override { return file_ ? file_->size() : 0; }
  void entryIs(EntryStatus const&) override { refuse(); }
  void entryDel(EntryKey const&) override { refuse(); }

  bool mounted() const { return static_cast<bool>(file_); }
  int fd() { return file_ ? file_->fd() : wait_->fd(); }
  void dispatch() {
    if (file_) return file_->dispatch();
    wait_->dispatch();
    mountIfReady();
  }

 private:
  using File = Shoal::ReaderTable<EntryStatus>;
  // Passes on what the file tells.
  class Watcher : public TableStatus::Notifiee {
   public:
    explicit Watcher(LateStatus& owner) : owner_(owner) {}
    void onEntry(EntryKey const& key) override { owner_.notifyEntry(key); }
    void onEntryColl() override { owner_.notifyEntryColl(); }

   private:
    LateStatus& owner_;
  };

  [[noreturn]] static void refuse() { throw Pallo::NoPermissionException("write to read-only Shoal table"); }
  void mountIfReady() {
    if (!wait_->ready()) return;
    file_ = Ostra::make<File>(wait_->path());
    wait_.reset();
    watcher_.notifierIs(file_);
    watcher_.hasNotificationActiveIs(true);
  }

  std::optional<Shoal::FileWait> wait_;  // until there is a file
  Ostra::Ptr<File> file_;
  Watcher watcher_;
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
      status_(Ostra::make<LateStatus>(statusPath(dir))) {}

SharedTables::~SharedTables() = default;

Ostra::Ptr<TableConfig> SharedTables::config() const { return config_; }
Ostra::Ptr<TableStatus const> SharedTables::status() const { return status_; }
U64 SharedTables::changes() const { return config_->changes(); }
bool SharedTables::hasStatus() const { return status_->mounted(); }
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
