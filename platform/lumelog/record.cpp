// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <utility>

#include "lumelog/reader.h"

namespace Lumelog {
namespace {

bool endsWithKey(std::string_view label) {
  while (label.ends_with(' ')) label.remove_suffix(1);
  return label.ends_with("key:") || label.ends_with("key=");
}

}  // namespace

std::string Record::message() const {
  std::string text;
  for (std::size_t i = 0; i < site->labels.size(); ++i) {
    text += site->labels[i];
    if (i + 1 == site->labels.size()) break;
    Value const& value = values[i + 1];
    text += value.type == 's' ? std::string(value.text) : std::to_string(value.number);
  }
  return text;
}

bool Record::mentionsKey(U64 key) const {
  for (std::size_t i = 1; i < values.size(); ++i)
    if (values[i].type != 's' && values[i].number == key && endsWithKey(site->labels[i - 1])) return true;
  return false;
}

bool Damage::any() const { return !lines().empty(); }

std::vector<std::string> Damage::lines() const {
  std::vector<std::string> result;
  auto say = [&](U64 count, std::string_view text) {
    if (count) result.push_back(fmt::format("{} {}", count, text));
  };
  if (header) result.push_back("the header is damaged, its copy at the end served");
  say(missingBytes, "bytes are missing at the end");
  say(siteBytes, "bytes of the call sites are damaged");
  say(subBuffers, "sub-buffers are damaged");
  say(recordBytes, "bytes of records are damaged");
  say(unknownSites, "records belong to a call site that is not there");
  say(overrun, "sub-buffers were overrun by the writer before they were read");
  say(dropped, "records were dropped by the writer");
  say(restarts, "truncations; what was not read until then is lost");
  return result;
}

// A file that has nothing more now is asked again only when all are at that point: asking costs system calls.
Reader const* Merge::next(Record& record) {
  Source* best = nullptr;
  for (Source& source : sources_) {
    if (!std::exchange(source.asked, true)) source.has = source.reader->next(source.head);
    if (source.has && (!best || source.head.realNs < best->head.realNs)) best = &source;
  }
  if (best) {
    best->asked = false;
    std::swap(record, best->head);
    return best->reader.get();
  }
  for (Source& source : sources_) source.asked = false;
  return nullptr;
}

}  // namespace Lumelog
