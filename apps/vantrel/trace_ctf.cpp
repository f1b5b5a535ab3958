// SPDX-License-Identifier: Apache-2.0
// Writes records as a CTF trace: a stream for each trace file, an event class for each message site, a field
// for each value.
#include <fmt/format.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "apps/vantrel/ctf_writer.h"
#include "apps/vantrel/trace_sinks.h"

namespace VantrelCommand {
namespace {

using Lumelog::Reader;
using Lumelog::Record;
using Lumelog::SiteInfo;

template <class T>
struct Put {
  void operator()(T* object) const { bt_ctf_object_put_ref(object); }
};
template <class T>
using Ref = std::unique_ptr<T, Put<T>>;

// Makes a label an identifier of CTF.
std::string identifier(std::string_view label) {
  std::string name;
  for (char c : label) {
    if (std::isalnum(static_cast<unsigned char>(c)))
      name += c;
    else if (!name.empty() && name.back() != '_')
      name += '_';
  }
  while (name.ends_with('_')) name.pop_back();
  return name.empty() || std::isdigit(static_cast<unsigned char>(name.front())) ? "value_" + name : name;
}

// Avoids the reserved words of TSDL, the language in which a CTF trace describes itself.
std::string unreserved(std::string const& name) {
  static std::set<std::string_view> const reserved{
      "align",  "callsite",       "char",      "clock",   "const",    "double",  "enum",   "env",    "event",
      "float",  "floating_point", "int",       "integer", "long",     "short",   "signed", "stream", "string",
      "struct", "trace",          "typealias", "typedef", "unsigned", "variant", "void"};
  return reserved.contains(name) ? name + "_value" : name;
}

// The field of "handling key:" is named key; if that is taken, " blocked by key:" is named blocked_by_key; if
// that is taken too, a number is appended.
std::string fieldName(std::string const& label, std::set<std::string>& taken) {
  std::string const whole = identifier(label);
  std::string const last = unreserved(identifier(std::string_view(whole).substr(whole.rfind('_') + 1)));
  if (taken.insert(last).second) return last;
  std::string unique = unreserved(whole);
  for (unsigned n = 2; !taken.insert(unique).second; ++n) unique = fmt::format("{}_{}", whole, n);
  return unique;
}

// Escapes an event's name: the library puts it between quotes as it is.
std::string eventName(std::string const& text) {
  std::string name;
  for (char c : text) {
    if (c == '"' || c == '\\') name += '\\';
    name += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
  }
  return name;
}

class Ctf : public TraceSink {
 public:
  explicit Ctf(std::string const& directory) : directory_(directory) {
    if (std::filesystem::exists(directory) && !std::filesystem::is_empty(directory))
      throw std::runtime_error(
          fmt::format("{} is not empty, expected a new directory for the CTF trace", directory));
    writer_.reset(bt_ctf_writer_create(directory.c_str()));
    check(writer_ != nullptr);
    clock_.reset(bt_ctf_clock_create("realtime"));
    check(clock_ && bt_ctf_writer_add_clock(writer_.get(), clock_.get()) == 0);
    streamClass_.reset(bt_ctf_stream_class_create("vantrel"));
    check(streamClass_ && bt_ctf_stream_class_set_clock(streamClass_.get(), clock_.get()) == 0);
  }
  ~Ctf() override {
    // The writer refers to them and goes last.
    events_.clear();
    streams_.clear();
  }

  void record(Reader const& reader, Record const& record) override {
    Event const& kind = event(*record.site, reader);
    Ref<bt_ctf_event> const event(bt_ctf_event_create(kind.eventClass.get()));
    check(event != nullptr);
    setNumber(event.get(), "level", record.site->level);
    setText(event.get(), "source", fmt::format("{}:{}", record.site->file, record.site->line));
    setNumber(event.get(), "process", reader.pid());
    for (std::size_t i = 0; i < record.values.size(); ++i) {
      Lumelog::Value const& value = record.values[i];
      value.type == 's' ? setText(event.get(), kind.fields[i], std::string(value.text))
                        : setNumber(event.get(), kind.fields[i], value.number);
    }
    // The clocks of different processes may differ a little, but in a CTF trace time must not run back.
    lastNs_ = std::max(lastNs_, record.realNs);
    check(bt_ctf_clock_set_time(clock_.get(), static_cast<std::int64_t>(lastNs_)) == 0);
    Stream& out = stream(reader);
    check(bt_ctf_stream_append_event(out.stream.get(), event.get()) == 0);
    if (++out.waiting == eventsAPacket) flush(out);
  }
  void pause() override {
    for (auto& [reader, out] : streams_)
      if (out.waiting) flush(out);
    bt_ctf_writer_flush_metadata(writer_.get());
  }

 private:
  static constexpr unsigned eventsAPacket = 4096;
  struct Event {
    Ref<bt_ctf_event_class> eventClass;
    std::vector<std::string> fields;  // of the values
  };
  struct Stream {
    Ref<bt_ctf_stream> stream;
    unsigned waiting = 0;  // events that are not flushed
  };

  void check(bool ok) const {
    if (!ok) throw std::runtime_error(fmt::format("cannot write a CTF trace to {}", directory_));
  }

  void flush(Stream& out) const {
    check(bt_ctf_stream_flush(out.stream.get()) == 0);
    out.waiting = 0;
  }

  Stream& stream(Reader const& reader) {
    Stream& out = streams_[&reader];
    if (!out.stream) out.stream.reset(bt_ctf_writer_create_stream(writer_.get(), streamClass_.get()));
    check(out.stream != nullptr);
    return out;
  }

  Event const& event(SiteInfo const& site, Reader const& reader) {
    auto const [at, isNew] = events_.try_emplace({&reader, site.id});
    if (isNew) at->second = makeEvent(site);
    return at->second;
  }

  Event makeEvent(SiteInfo const& site) const {
    Event kind{Ref<bt_ctf_event_class>(bt_ctf_event_class_create(eventName(site.text).c_str())), {}};
    check(kind.eventClass != nullptr);
    std::set<std::string> taken;
    auto add = [&](char type, std::string const& label) {
      std::string const name = fieldName(label, taken);
      Ref<bt_ctf_field_type> const fieldType(type == 's'
                                                 ? bt_ctf_field_type_string_create()
                                                 : bt_ctf_field_type_integer_create(type == 'q' ? 64 : 32));
      check(fieldType &&
            bt_ctf_event_class_add_field(kind.eventClass.get(), fieldType.get(), name.c_str()) == 0);
      return name;
    };
    add('i', "level");
    add('s', "source");
    add('i', "process");
    for (std::size_t i = 0; i < site.types.size(); ++i)
      kind.fields.push_back(add(site.types[i], i == 0 ? "id" : site.labels[i - 1]));
    check(bt_ctf_stream_class_add_event_class(streamClass_.get(), kind.eventClass.get()) == 0);
    return kind;
  }

  void setNumber(bt_ctf_event* event, std::string const& field, U64 value) const {
    Ref<bt_ctf_field> const payload(bt_ctf_event_get_payload(event, field.c_str()));
    check(payload && bt_ctf_field_integer_unsigned_set_value(payload.get(), value) == 0);
  }
  void setText(bt_ctf_event* event, std::string const& field, std::string const& value) const {
    Ref<bt_ctf_field> const payload(bt_ctf_event_get_payload(event, field.c_str()));
    check(payload && bt_ctf_field_string_set_value(payload.get(), value.c_str()) == 0);
  }

  std::string const directory_;
  Ref<bt_ctf_writer> writer_;
  Ref<bt_ctf_clock> clock_;
  Ref<bt_ctf_stream_class> streamClass_;
  std::map<std::pair<Reader const*, U32>, Event> events_;
  std::map<Reader const*, Stream> streams_;
  U64 lastNs_ = 0;
};

}  // namespace

std::unique_ptr<TraceSink> ctfSink(std::string const& directory) { return std::make_unique<Ctf>(directory); }

}  // namespace VantrelCommand
