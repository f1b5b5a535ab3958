// SPDX-License-Identifier: Apache-2.0
#include "producer/acknowledgements.h"

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <utility>

#include "pallo/exception.h"

namespace Vantrel {

EntryStatus readStatus(TableStatus const& table, EntryKey key) {
  try {
    return table.entry(key);
  } catch (Pallo::CorruptionDetectedException const& damage) {
    table.corruptionDetected(damage.what());
    return {};
  }
}

class VANTREL_LOCAL Acknowledgements::Watcher : public TableStatus::Notifiee {
 public:
  struct Awaited {
    OpId opId;
    Shoal::Change earlier;  // of the status that stood there before, and does not count
  };

  void onEntry(EntryKey const& key) override { look(key); }
  void onEntryColl() override {
    std::vector<EntryKey> waiting;
    for (auto const& [key, awaited] : awaited_) waiting.emplace_back(key);
    for (EntryKey const key : waiting) look(key);
  }

  void look(EntryKey key) {
    auto const at = awaited_.find(key.value());
    if (at == awaited_.end() || !isAcknowledged(key, at->second)) return;
    awaited_.erase(at);
    if (handler_) handler_(key);
  }

  // The change is asked for first: what is read after it is of this change, or of a later one.
  bool isAcknowledged(EntryKey key, Awaited const& awaited) const {
    if (awaited.earlier != Shoal::Change{} && changeOf(key).value_or(awaited.earlier) == awaited.earlier)
      return false;
    return readStatus(*notifier(), key).opId() == awaited.opId;
  }

  // Nothing when the status cannot be read, which is reported to the table.
  std::optional<Shoal::Change> changeOf(EntryKey key) const {
    try {
      return notifier()->changeOf(key);
    } catch (Pallo::CorruptionDetectedException const& damage) {
      notifier()->corruptionDetected(damage.what());
      return std::nullopt;
    }
  }

  boost::unordered_flat_map<U64, Awaited> awaited_;
  std::function<void(EntryKey)> handler_;
};

Acknowledgements::Acknowledgements(Ostra::Ptr<TableStatus const> status)
    : watcher_(std::make_unique<Watcher>()) {
  watcher_->notifierIs(std::move(status));
  watcher_->synchronizedIs(true);  // nothing is awaited yet
  watcher_->hasNotificationActiveIs(true);
}

Acknowledgements::~Acknowledgements() = default;

void Acknowledgements::await(EntryKey key, OpId opId) {
  watcher_->awaited_[key.value()] = {opId, {}};
  watcher_->look(key);
}

void Acknowledgements::awaitDelete(EntryKey key) {
  watcher_->awaited_[key.value()] = {OpId::deleteAcknowledge(),
                                     watcher_->changeOf(key).value_or(Shoal::Change{})};
}

void Acknowledgements::forget(EntryKey key) { watcher_->awaited_.erase(key.value()); }

U64 Acknowledgements::outstanding() const { return watcher_->awaited_.size(); }

std::optional<OpId> Acknowledgements::awaited(EntryKey key) const {
  auto const at = watcher_->awaited_.find(key.value());
  if (at == watcher_->awaited_.end()) return std::nullopt;
  return at->second.opId;
}

std::vector<EntryKey> Acknowledgements::keys() const {
  std::vector<EntryKey> keys;
  for (auto const& [key, awaited] : watcher_->awaited_) keys.emplace_back(key);
  std::ranges::sort(keys);
  return keys;
}

void Acknowledgements::onAcknowledgedIs(std::function<void(EntryKey)> handler) {
  watcher_->handler_ = std::move(handler);
}

}  // namespace Vantrel
