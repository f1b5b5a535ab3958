// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <cstring>

#include "lumelog/parse.h"
#include "lumelog/reader.h"

namespace Lumelog {
namespace {

// Text up to the next value; `text` becomes what follows the value, `type` its code, 0 at the end of the
// text.
std::string takeLabel(std::string_view& text, char& type) {
  std::string label;
  type = 0;
  while (!text.empty() && type == 0) {
    char const c = text.front();
    text.remove_prefix(1);
    if (c == '%' && !text.empty()) {
      if (text.front() == '%')
        label += '%';
      else
        type = text.front();
      text.remove_prefix(1);
    } else {
      label += c;
    }
  }
  return label;
}

bool endsWithKey(std::string_view label) {
  while (label.ends_with(' ')) label.remove_suffix(1);
  return label.ends_with("key:") || label.ends_with("key=");
}

std::string escaped(std::string const& text) {
  std::string result;
  for (char c : text) result.append(c == '%' ? 2 : 1, c);
  return result;
}

}  // namespace

namespace Parse {

std::optional<SiteInfo> site(Format::SiteHeader const& header, char const* text) {
  SiteInfo info{header.id, header.level, {}, header.line, std::string(text, header.typeBytes), {}};
  text += header.typeBytes;
  info.file.assign(text + header.textBytes, header.fileBytes);
  if (info.level >= Format::levels || !info.types.starts_with('i')) return std::nullopt;
  std::string_view rest(text, header.textBytes);
  for (std::size_t i = 1;; ++i) {
    char type;
    info.labels.push_back(takeLabel(rest, type));
    bool const last = i == info.types.size();
    if (last != (type == 0) || (!last && type != info.types[i])) return std::nullopt;
    if (last) return info;
  }
}

bool values(std::string_view types, std::span<std::byte const> record, std::vector<Value>* values) {
  std::size_t at = sizeof(Format::RecordHeader);
  for (char type : types) {
    Value value{type, 0, {}};
    U16 length = 0;
    std::size_t const bytes = type == 'q' ? 8 : type == 'i' ? 4 : 2;
    if (record.size() - at < bytes) return false;
    std::memcpy(type == 's' ? static_cast<void*>(&length) : &value.number, record.data() + at, bytes);
    at += bytes;
    if (record.size() - at < length) return false;
    value.text = {reinterpret_cast<char const*>(record.data() + at), length};
    at += length;
    if (values) values->push_back(value);
  }
  return Format::align8(at) == record.size();
}

}  // namespace Parse

std::string SiteInfo::format() const {
  std::string text;
  for (std::size_t i = 0; i < labels.size(); ++i) {
    text += escaped(labels[i]);
    if (i + 1 < labels.size()) (text += '%') += types[i + 1];
  }
  return text;
}

std::string Record::message() const {
  std::string text;
  for (std::size_t i = 0; i < site->labels.size(); ++i) {
    text += site->labels[i];
    if (i + 1 == site->labels.size()) break;
    Value const& value = values[i + 1];
    if (value.type == 's')
      text += value.text;
    else
      fmt::format_to(std::back_inserter(text), "{}", value.number);
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
  return result;
}

// A file that has nothing more now is asked again only when all are at that point: asking costs system calls.
Reader const* Merge::next(Record& record) {
  Source* best = nullptr;
  for (Source& source : sources_) {
    if (source.head == Source::Head::Unknown)
      source.head = source.reader->peek(source.realNs) ? Source::Head::Known : Source::Head::None;
    if (source.head == Source::Head::Known && (!best || source.realNs < best->realNs)) best = &source;
  }
  if (!best) {
    for (Source& source : sources_) source.head = Source::Head::Unknown;
    return nullptr;
  }
  best->head = Source::Head::Unknown;
  return best->reader->next(record) ? best->reader.get() : nullptr;
}

}  // namespace Lumelog
