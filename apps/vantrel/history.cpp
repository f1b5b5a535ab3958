// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/history.h"

#include <fmt/format.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>

#include "lumelog/reader.h"
#include "pallo/exception.h"

namespace VantrelCommand {
namespace {

using Lumelog::Record;

// How the text of a record begins, and what it means. Records that only say that work began are left out.
struct Meaning {
  char const* begins;
  char const* words;
};
constexpr Meaning meanings[] = {
    {"Failed to program dependant", "what it depends on could not be programmed; it is tried again later"},
    {"found deadlock", "was in a ring of entries that wait for each other; it is taken out to break it"},
    {"found mixed ring", "was in a ring of entries that wait for each other; it is taken out to break it"},
    {"adding key", "what it waited for has changed: it is queued to be tried again"},
    {"pending key", "is tried again"},
    {"deleting entry", "is deleted from the hardware"},
    {"pending only delAck", "only waited; its delete is acknowledged"},
    {"never added delAck", "was never in hardware; its delete is acknowledged"},
    {"never added delStatus", "was never in hardware; its status is removed"},
    {"noopAck", "differs in nothing that the hardware holds; it is acknowledged"},
    {"update key", "is written in place"},
    {"add key", "is added to the hardware"},
    {"mov key", "is moved in the hardware"},
    {"new entry", "is seen by the agent for the first time"},
    {"conflicting key", "cannot take its position now: it waits"},
    {"key:", "would be out of order with a neighbour: it waits"},
};

std::optional<std::string> wordsOf(Record const& record) {
  std::string const message = record.message();
  for (Meaning const& meaning : meanings)
    if (message.starts_with(meaning.begins)) return fmt::format("{} ({})", meaning.words, message);
  return std::nullopt;
}

// Of the directory's files, that of the agent that wrote last.
std::optional<std::string> newestTrace(std::string const& dir) {
  std::optional<std::string> newest;
  std::filesystem::file_time_type when;
  std::error_code error;
  for (auto const& file : std::filesystem::directory_iterator(dir, error)) {
    if (file.path().extension() != ".lg") continue;
    auto const written = file.last_write_time(error);
    if (error || (newest && written <= when)) continue;
    newest = file.path();
    when = written;
  }
  return newest;
}

void take(History& history, Record const& record) {
  auto words = wordsOf(record);
  if (!words) return;
  history.tries += words->starts_with("is tried again");
  history.events.push_back({record.realNs, std::move(*words)});
  if (history.events.size() <= History::most) return;
  history.events.erase(history.events.begin());
  ++history.left;
}

// A record is about the key that it names first.
bool isAbout(Record const& record, U64 key) {
  return record.mentionsKey(key) && record.values.size() > 1 && record.values[1].number == key;
}

}  // namespace

History historyOf(std::string const& dir, Vantrel::EntryKey key, double seconds) {
  History history;
  auto const file = newestTrace(dir);
  if (!file) {
    history.problem = "there is no trace file in " + dir;
    return history;
  }
  U64 const now = static_cast<U64>(std::time(nullptr)) * 1000000000U;
  U64 const since = now - static_cast<U64>(seconds * 1e9);
  try {
    Lumelog::Reader reader(*file);
    for (Record record; reader.next(record);)
      if (record.realNs >= since && isAbout(record, key.value())) take(history, record);
  } catch (Pallo::Exception const& e) {
    history.problem = e.what();
  }
  return history;
}

}  // namespace VantrelCommand
