// SPDX-License-Identifier: Apache-2.0
// Lines of the management socket. The parser of the JSON library tells this file what it meets, one token
// after the other, and nothing but the protocol's own fields is kept: a line that is all nonsense costs one
// pass and no memory. What a field's value means is for whoever sent for it.
#include "ostra/publish_wire.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace Ostra::Wire {
namespace {

using Json = nlohmann::ordered_json;

constexpr int deepest = 8;
constexpr std::size_t mostItems = 1024;  // a message must not cost many times what its line has

constexpr std::pair<std::string_view, Field Message::*> fields[] = {{"verb", &Message::verb},
                                                                    {"entity", &Message::entity},
                                                                    {"attribute", &Message::attribute},
                                                                    {"operation", &Message::operation},
                                                                    {"arguments", &Message::arguments},
                                                                    {"type", &Message::type},
                                                                    {"key", &Message::key},
                                                                    {"value", &Message::value},
                                                                    {"tag", &Message::tag},
                                                                    {"event", &Message::event},
                                                                    {"members", &Message::members},
                                                                    {"keys", &Message::keys},
                                                                    {"answer", &Message::answer},
                                                                    {"error", &Message::error},
                                                                    {"result", &Message::result},
                                                                    {"more", &Message::more}};

// Hears of a line's tokens, and ends the parsing by returning false.
class MessageBuilder {
 public:
  using Kind = Field::Kind;

  Message message;
  bool tooDeep = false;
  bool isObject = false;

  bool null() { return scalar(Value()); }
  bool boolean(bool v) { return scalar(v); }
  bool number_unsigned(U64 v) { return scalar(v); }
  bool number_integer(std::int64_t v) {
    return v < 0 ? scalar(std::to_string(v), Kind::Negative) : scalar(static_cast<U64>(v));
  }
  bool number_float(double v, std::string const&) { return scalar(v); }
  bool string(std::string& v) { return scalar(std::move(v)); }
  bool binary(Json::binary_t&) { return false; }  // JSON text has none
  bool start_object(std::size_t) { return open(Kind::Object); }
  bool start_array(std::size_t) { return open(Kind::List); }
  bool end_object() { return --depth_, true; }
  bool end_array() {
    if (--depth_ == 2 && field_ && field_->kind == Kind::Pairs && field_->items.size() != pairBegan_ + 2)
      mixed();
    return true;
  }
  bool key(std::string const& name) {
    if (depth_ != 1) return true;
    auto const at = std::ranges::find(fields, name, [](auto const& f) { return f.first; });
    field_ = at == std::end(fields) ? nullptr : &(message.*at->second);
    return true;
  }
  bool parse_error(std::size_t, std::string const&, std::exception const&) { return false; }

 private:
  // A scalar is the field, an item of its list, or half a pair of it.
  bool scalar(Value v, Kind kind = Kind::Scalar) {
    if (!field_) return true;
    if (depth_ == 1)
      *field_ = {kind, std::move(v), {}};
    else if (kind == Kind::Scalar && field_->kind == (depth_ == 2 ? Kind::List : Kind::Pairs) &&
             field_->items.size() < mostItems)
      field_->items.push_back(std::move(v));
    else
      mixed();
    return true;
  }
  // The line itself, a field, a pair of a field's list, or what the protocol has not.
  bool open(Kind kind) {
    if (depth_ == deepest) return tooDeep = true, false;
    if (depth_ == 0) {
      isObject = kind == Kind::Object;
    } else if (field_ && depth_ == 1) {
      *field_ = {kind, {}, {}};
    } else if (field_) {
      bool const first = field_->kind == Kind::List && field_->items.empty();
      bool const pair = depth_ == 2 && kind == Kind::List && (first || field_->kind == Kind::Pairs);
      pair ? void(field_->kind = Kind::Pairs) : mixed();
      pairBegan_ = field_->items.size();
    }
    ++depth_;
    return true;
  }
  void mixed() {
    if (field_->kind != Kind::Object) *field_ = {Kind::Mixed, {}, {}};
  }

  int depth_ = 0;
  Field* field_ = nullptr;  // null: one that is not the protocol's
  std::size_t pairBegan_ = 0;
};

}  // namespace

Message parse(std::string_view line) {
  MessageBuilder builder;
  bool const isJson = Json::sax_parse(line.begin(), line.end(), &builder);
  if (builder.tooDeep) throw std::runtime_error(fmt::format("a line nests at most {} levels deep", deepest));
  if (!isJson) throw std::runtime_error("expected one JSON object a line, got something that is not JSON");
  if (!builder.isObject) throw std::runtime_error("expected a JSON object, got another JSON value");
  return std::move(builder.message);
}

void LineWriter::name(std::string_view name) {
  out_ += out_.size() == 1 ? "\"" : ",\"";
  (out_ += name) += "\":";
}
LineWriter& LineWriter::text(std::string_view name, std::string_view text) {
  this->name(name);
  appendQuoted(out_, text);
  return *this;
}
LineWriter& LineWriter::value(std::string_view name, Value const& value) {
  this->name(name);
  append(out_, value);
  return *this;
}
LineWriter& LineWriter::values(std::string_view name, std::vector<Value> const& values) {
  this->name(name);
  append(out_, values);
  return *this;
}
LineWriter& LineWriter::json(std::string_view name, std::string_view json) {
  this->name(name);
  out_ += json;
  return *this;
}
LineWriter& LineWriter::tag(Field const& tag) {
  if (tag.kind == Field::Kind::Negative) return json("tag", std::get<std::string>(tag.value));
  return tag.kind == Field::Kind::Scalar ? value("tag", tag.value) : *this;
}

void appendQuoted(std::string& out, std::string_view text) {
  auto const plain = [](char c) { return c >= ' ' && c < 0x7f && c != '"' && c != '\\'; };
  if (std::ranges::all_of(text, plain))
    ((out += '"') += text) += '"';
  else
    out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void append(std::string& out, Value const& value) {
  struct Printer {
    std::string& out;
    void operator()(std::monostate) const { out += "null"; }
    void operator()(bool v) const { out += v ? "true" : "false"; }
    void operator()(U64 v) const {
      fmt::format_int const digits(v);
      out.append(digits.data(), digits.size());
    }
    void operator()(double v) const { out += std::isfinite(v) ? Json(v).dump() : "null"; }
    void operator()(std::string const& v) const { appendQuoted(out, v); }
  };
  std::visit(Printer{out}, value);
}

void append(std::string& out, std::vector<Value> const& values) {
  out += '[';
  for (Value const& value : values) {
    if (out.back() != '[') out += ',';
    append(out, value);
  }
  out += ']';
}

void append(std::string& out, Members const& members) {
  out += '[';
  for (auto const& [key, value] : members) {
    out += out.back() == '[' ? "[" : ",[";
    append(out, key);
    out += ',';
    append(out, value);
    out += ']';
  }
  out += ']';
}

}  // namespace Ostra::Wire
