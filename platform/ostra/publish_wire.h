// SPDX-License-Identifier: Apache-2.0
// What both ends of the management socket share: lines cut from a stream, values as JSON, and the socket's
// address.
//
// Errors: std::runtime_error for an address that cannot be.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "ostra/type_info.h"
#include "pallo/descriptor.h"

namespace Ostra::Wire {

using Json = nlohmann::ordered_json;

// Cuts a stream of bytes into lines. Holds at most one unfinished line and what was appended last.
class LineBuffer {
 public:
  explicit LineBuffer(std::size_t longest) : longest_(longest) {}

  void append(char const* bytes, std::size_t n);
  // The next complete line without its end, or nothing yet. It stays in place until the next call of either.
  std::optional<std::string_view> next();
  // The unfinished line is longer than any line may be.
  bool overlong() const { return data_.size() - begin_ > longest_; }
  bool hasLine() const { return data_.find('\n', scanned_) != std::string::npos; }
  void clear();

 private:
  std::size_t longest_;
  std::string data_;
  std::size_t begin_ = 0;    // of the next line
  std::size_t scanned_ = 0;  // no line ends before this
};

// As JSON text. A double that JSON cannot say (infinite, not a number) becomes null.
void append(std::string& out, Value const& value);
void appendQuoted(std::string& out, std::string_view text);
// A line's text; what is not UTF-8 in it is replaced.
std::string line(Json const& json);

Json toJson(Value const& value);
// Nothing for arrays, objects and negative integers, which no attribute takes.
std::optional<Value> fromJson(Json const& json);

// Whether brackets outside texts nest at most `deepest` levels.
bool nestsWithin(std::string_view line, int deepest);
// The object that a line holds. Throws std::runtime_error that says what is wrong with the line.
Json parseObject(std::string_view line);

sockaddr_un address(std::string const& path);
// A connected, non-blocking socket, or none with errno set.
Pallo::Descriptor connectTo(std::string const& path);

}  // namespace Ostra::Wire
