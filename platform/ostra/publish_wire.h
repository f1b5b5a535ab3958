// SPDX-License-Identifier: Apache-2.0
// The lines of the management socket, which both ends read and write (docs/formats/management-socket.md).
//
// Invariants: a line is parsed once, into a Message; nothing else looks at its text.
// Cost: parsing is one pass over the line, and stops at what nests too deep.
// Errors: std::runtime_error that says what is wrong with a line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ostra/type_info.h"

namespace Ostra::Wire {

// What a line says under one name. An array that is neither a list nor pairs, or too long, is Mixed.
struct Field {
  enum class Kind { Absent, Scalar, Negative, List, Pairs, Mixed, Object };
  Kind kind = Kind::Absent;
  Value value;               // Scalar; Negative: a negative integer's digits, which no attribute takes
  std::vector<Value> items;  // List: scalars; Pairs: both scalars of each; at most 1024. Mixed: none

  bool given() const { return kind != Kind::Absent; }
  // Null when it is not a text.
  std::string const* text() const {
    return kind == Kind::Scalar ? std::get_if<std::string>(&value) : nullptr;
  }
};

// One line, either way. Fields that are not the protocol's are passed over; of two of a name the last counts.
struct Message {
  Field verb, type, operation, arguments;      // requests
  Field tag, entity, attribute, key, value;    // both
  Field answer, error, result, members, more;  // answers
  Field event, keys;                           // events
};
Message parse(std::string_view line);

// Writes a line, one field after the other.
class LineWriter {
 public:
  LineWriter& text(std::string_view name, std::string_view text);
  LineWriter& value(std::string_view name, Value const& value);
  LineWriter& values(std::string_view name, std::vector<Value> const& values);
  LineWriter& json(std::string_view name, std::string_view json);
  // As it came, if it is a scalar.
  LineWriter& tag(Field const& tag);
  std::string line() { return std::move(out_ += "}\n"); }
  // The beginning of several lines, without their end.
  std::string opening() { return std::move(out_); }

 private:
  void name(std::string_view name);
  std::string out_ = "{";
};

// As JSON text. A double that JSON cannot say (infinite, not a number) becomes null, and what is not UTF-8 in
// a text is replaced.
void append(std::string& out, Value const& value);
void append(std::string& out, std::vector<Value> const& values);
void append(std::string& out, Members const& members);
void appendQuoted(std::string& out, std::string_view text);

}  // namespace Ostra::Wire
