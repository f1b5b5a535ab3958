// SPDX-License-Identifier: Apache-2.0
#include "shoal/inspect.h"

#include <fmt/format.h>

#include <cstring>
#include <unordered_map>

#include "pallo/exception.h"
#include "shoal/salvage.h"
#include "shoal/table_view.h"
#include "shoal/table_writer.h"

namespace Shoal {

using namespace Format;

namespace {

class Inspector {
 public:
  explicit Inspector(TableView& view) : view_(view), image_(view.imageWords()) {}

  Inspection run() {
    try {
      found_.buckets = view_.buckets();
      found_.chunks = view_.chunks();
      for (U64 bucket = 0; bucket < found_.buckets; ++bucket) inspectBucket(bucket);
      inspectCounts();
      inspectRest();
    } catch (Pallo::CorruptionDetectedException const& error) {
      damage(error.what());
    }
    return std::move(found_);
  }

 private:
  // Enough to see what is wrong with a file, whatever its size.
  static constexpr std::size_t maxFindings = 1000;
  static void note(std::vector<std::string>& list, std::string text) {
    if (list.size() < maxFindings) list.push_back(std::move(text));
  }
  void damage(std::string text) { note(found_.damage, std::move(text)); }
  void unfinished(std::string text) { note(found_.unfinished, std::move(text)); }

  void inspectBucket(U64 bucket) {
    std::atomic<U64>* line = view_.line(bucket);
    if (!line) return damage(fmt::format("bucket {}: its chunk of the index is not to be found", bucket));
    for (U64 depth = 0;; ++depth) {
      found_.longestChain = std::max(found_.longestChain, depth + 1);
      for (unsigned i = 0; i < entriesPerLine; ++i) inspectEntry(bucket, depth, i, line[i].load());
      auto const unit = linkUnit(line[linkInLine].load(), bucket, depth);
      if (unit && *unit == 0) return;
      line = unit ? view_.overflowLine(*unit) : nullptr;
      if (!line || depth > found_.chunks * linesPerChunk)
        return damage(fmt::format("bucket {}: the link of line {} is damaged", bucket, depth));
      ++found_.overflowLines;
    }
  }

  void inspectEntry(U64 bucket, U64 depth, unsigned at, U64 entry) {
    if (entry == 0) return;
    std::string const where = fmt::format("bucket {}, line {}, entry {}", bucket, depth, at);
    if (!entryIntact(entry) || !view_.slotInside(entryUnit(entry)))
      return damage(fmt::format("{}: the entry {:016x} is damaged", where, entry));
    U64 state;
    switch (Slot::copy(view_.slot(entryUnit(entry)), view_.room(), image_.data(), state)) {
      case Slot::Copy::overtaken:
        return unfinished(fmt::format("{}: its slot is being written", where));
      case Slot::Copy::freed:
        return unfinished(fmt::format("{}: its record was removed, the entry is still here", where));
      case Slot::Copy::damaged:
        return damage(
            fmt::format("{}: the record at offset {} is damaged", where, entryUnit(entry) * unitBytes));
      case Slot::Copy::whole:
        return inspectRecord(where, bucket, depth, entry);
    }
  }

  void inspectRecord(std::string const& where, U64 bucket, U64 depth, U64 entry) {
    U64 const key = image_[0];
    U64 const hash = view_.hash(key);
    if (tag(hash) != entryTag(entry))
      return damage(fmt::format("{}: the entry's tag is not that of key {}", where, key));
    if (bucketOf(hash, found_.buckets) != bucket) return misplaced(where, bucket, key);
    if (auto const [at, fresh] = slots_.emplace(entryUnit(entry), key); !fresh)
      damage(fmt::format("{}: its slot is also that of key {}", where, at->second));
    ++found_.records;
    found_.linesRead += depth + 1;
  }

  void misplaced(std::string const& where, U64 bucket, U64 key) {
    U64 const last = found_.buckets - 1;
    if (found_.buckets > firstBuckets && bucket == last - std::bit_floor(last))
      return unfinished(fmt::format("{}: key {} has moved on, its old entry is still here", where, key));
    damage(fmt::format("{}: key {} belongs elsewhere", where, key));
  }

  void inspectCounts() {
    U64 const counted = view_.size();
    bool const underWay = view_.changedKey(view_.head()).has_value();
    if (underWay) unfinished("a change is under way that is not announced yet");
    if (counted == found_.records || !found_.damage.empty()) return;
    std::string const text = fmt::format("{} records counted, {} found", counted, found_.records);
    bool const byOne = counted + 1 == found_.records || counted == found_.records + 1;
    underWay&& byOne ? unfinished(text) : damage(text);
  }

  // What no entry of the index leads to.
  void inspectRest() {
    Header copy{};
    std::memcpy(&copy, view_.mapping().base() + headerCopyAt, sizeof copy);
    if (!isSound(copy)) damage("the copy of the header is damaged");
    auto const underWay = view_.changedKey(view_.head());
    for (Salvaged::Slot const& record : salvage(view_.mapping(), view_.header()).records)
      if (!slots_.contains(record.unit) && record.generation <= 2 * view_.head() && record.key != underWay)
        damage(fmt::format("the record at offset {}, of key {}, has no entry", record.unit * unitBytes,
                           record.key));
  }

  TableView& view_;
  std::vector<U64> image_;
  Inspection found_;
  std::unordered_map<U64, U64> slots_;  // unit to key
};

}  // namespace

TableInfo tableInfo(std::string const& path) {
  TableView const view(std::make_shared<Mapping>(path, Access::read));
  Header const& h = view.header();
  return {std::string(typeName(h)),
          h.recordVersion,
          h.version,
          h.imageBytes,
          h.slotBytes,
          h.ringEntries,
          h.madeAt,
          view.size(),
          view.mapping().fileBytes(),
          view.buckets(),
          view.chunks(),
          view.head()};
}

Inspection inspect(std::string const& path) {
  TableView view(std::make_shared<Mapping>(path, Access::read));
  return Inspector(view).run();
}

Repair repair(std::string const& path) {
  Salvaged found = TableWriter::rebuild(path);
  return {found.records.size(), std::move(found.damage)};
}

}  // namespace Shoal
