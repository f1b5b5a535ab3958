// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "ostra/clock.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

namespace Vantreld {
namespace {

using Vantrel::EntryConfig;
using Vantrel::EntryKey;
using Vantrel::OpId;

// The text, family by family.
class Writer {
 public:
  void family(char const* name, char const* type, char const* help) {
    text_ += fmt::format("# TYPE vantrel_{} {}\n# HELP vantrel_{} {}\n", name, type, name, help);
  }
  template <class Value>
  void sample(std::string const& name, Value value) {
    text_ += fmt::format("vantrel_{} {}\n", name, value);
  }
  template <class Value>
  void gauge(char const* name, char const* help, Value value) {
    family(name, "gauge", help);
    sample(name, value);
  }
  void counter(char const* name, char const* help, U64 value) {
    family(name, "counter", help);
    sample(fmt::format("{}_total", name), value);
  }
  std::string end() { return std::move(text_) + "# EOF\n"; }

 private:
  std::string text_;
};

}  // namespace

void Metrics::time(EntryKey const& key) {
  for (std::size_t i = 0; i < timedCount_; ++i)
    if (timed_[i].key == key) return;
  EntryConfig const entry = peekEntry(*from_.config, key);
  if (entry == EntryConfig()) return;
  timed_[timedCount_++] = {key, entry.isDel() ? OpId::deleteAcknowledge() : entry.opId(), Ostra::now()};
}

void Metrics::look() {
  if (timedCount_ == 0) return;
  double const now = Ostra::now();
  for (std::size_t i = 0; i < timedCount_;) {
    Timed const& timed = timed_[i];
    bool const done = from_.status->entry(timed.key).opId() >= timed.awaited;
    if (!done && now - timed.since < givenUpAfter) {
      ++i;
      continue;
    }
    took(now - timed.since);
    timed_[i] = timed_[--timedCount_];
  }
}

void Metrics::took(double seconds) {
  auto const bucket = std::ranges::lower_bound(bounds, seconds) - bounds.begin();
  ++buckets_[static_cast<std::size_t>(bucket)];
  sum_ += seconds;
}

std::string Metrics::text() const {
  Writer out;
  Hw::Executor::Calls const& calls = from_.executor->calls();
  out.family("agent", "info", "What serves the table.");
  out.sample(
      fmt::format("agent_info{{engine=\"{}\",state=\"{}\"}}", from_.agent->engine(), from_.agent->state()),
      1);
  out.gauge("start_time_seconds", "When the agent was started, seconds since 1970.", from_.agent->started());
  out.gauge("positions", "Positions in hardware.", from_.agent->size());
  out.family("entries", "gauge", "Entries by state; one entry can be in several.");
  auto const entries = [&](char const* state, U64 n) {
    out.sample(fmt::format("entries{{state=\"{}\"}}", state), n);
  };
  entries("in_table", from_.config->size());
  entries("programmed", calls.adopted + calls.adds - calls.deletes - calls.deadlockDeletes);
  entries("waiting", from_.engine->numPending());
  entries("overdue", from_.waiting->overdueCount());
  entries("retrying", from_.retrying());
  entries("refused_by_hardware", from_.executor->failed().size());
  entries("refused_record", from_.validator->refusedCount());
  out.family("operations", "counter", "Calls that the engine made, by kind.");
  auto const operations = [&](char const* kind, U64 n) {
    out.sample(fmt::format("operations_total{{kind=\"{}\"}}", kind), n);
  };
  operations("adopt", calls.adopted);
  operations("add", calls.adds);
  operations("update", calls.updates);
  operations("move", calls.moves);
  operations("delete", calls.deletes);
  operations("delete_to_break_ring", calls.deadlockDeletes);
  operations("flush", calls.flushes);
  out.counter("hardware_retries", "Calls that the hardware had to be asked again for.",
              from_.executor->retries());
  out.gauge("hardware_behind", "Calls that the hardware has not completed.", from_.executor->behind());
  out.gauge("acknowledgements_unwritten", "Acknowledgements for which there is no space.",
            from_.executor->unwritten());
  out.family("rings_broken", "counter", "Rings of entries that waited for each other.");
  out.sample("rings_broken_total{kind=\"any\"}", from_.engine->deadlockCount());
  out.sample("rings_broken_total{kind=\"mixed\"}", from_.engine->numMixedRings());
  out.gauge("oldest_wait_seconds", "How long the oldest waiting entry waits.", from_.waiting->oldest());
  out.counter("damaged_records", "Damage found in the configuration table.", from_.config->corruptions());
  out.counter("loop_slices", "Turns of the loop that were cut short to serve others.", slices_);
  out.family("acknowledgement_seconds", "histogram",
             "From a key's notification to its acknowledgement, of some keys.");
  U64 count = 0;
  for (std::size_t i = 0; i < bounds.size(); ++i)
    out.sample(fmt::format("acknowledgement_seconds_bucket{{le=\"{}\"}}", bounds[i]), count += buckets_[i]);
  count += buckets_.back();
  out.sample("acknowledgement_seconds_bucket{le=\"+Inf\"}", count);
  out.sample("acknowledgement_seconds_count", count);
  out.sample("acknowledgement_seconds_sum", sum_);
  return out.end();
}

std::string Metrics::writeTo(std::string const& path) const {
  std::string const unfinished = path + ".new";
  std::ofstream out(unfinished);
  out << text();
  out.close();
  if (out && std::rename(unfinished.c_str(), path.c_str()) == 0) return "";
  return fmt::format("{} cannot be written: {}", path, std::generic_category().message(errno));
}

Ostra::TypeInfo const& Metrics::staticType() {
  static Ostra::TypeInfo const type =
      Ostra::TypeInfo::of<Metrics>("Vantreld::Metrics").attribute("text", &Metrics::text);
  return type;
}

}  // namespace Vantreld
