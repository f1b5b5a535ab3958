// SPDX-License-Identifier: Apache-2.0
#include "ostra/publish_wire.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

namespace Ostra::Wire {
namespace {
constexpr int deepestRequest = 8;
}

void LineBuffer::append(char const* bytes, std::size_t n) {
  if (begin_ > 0) {
    data_.erase(0, begin_);
    scanned_ -= begin_;
    begin_ = 0;
  }
  data_.append(bytes, n);
}

std::optional<std::string_view> LineBuffer::next() {
  std::size_t const end = data_.find('\n', scanned_);
  if (end == std::string::npos) {
    scanned_ = data_.size();
    return std::nullopt;
  }
  std::string_view const line(data_.data() + begin_, end - begin_);
  begin_ = scanned_ = end + 1;
  return line;
}

void LineBuffer::clear() {
  data_.clear();
  begin_ = scanned_ = 0;
}

void appendQuoted(std::string& out, std::string_view text) {
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

std::string line(Json const& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json toJson(Value const& value) {
  struct Maker {
    Json operator()(std::monostate) const { return nullptr; }
    Json operator()(bool v) const { return v; }
    Json operator()(U64 v) const { return v; }
    Json operator()(double v) const { return v; }
    Json operator()(std::string const& v) const { return v; }
  };
  return std::visit(Maker{}, value);
}

std::optional<Value> fromJson(Json const& json) {
  if (json.is_null()) return Value();
  if (json.is_boolean()) return Value(json.get<bool>());
  if (json.is_number_unsigned()) return Value(json.get<U64>());
  if (json.is_number_integer()) {
    auto const v = json.get<std::int64_t>();
    return v < 0 ? std::nullopt : std::optional<Value>(static_cast<U64>(v));
  }
  if (json.is_number_float()) return Value(json.get<double>());
  if (json.is_string()) return Value(json.get<std::string>());
  return std::nullopt;
}

bool nestsWithin(std::string_view line, int deepest) {
  int depth = 0;
  bool inText = false;
  for (std::size_t i = 0; i < line.size(); ++i) {
    char const c = line[i];
    if (inText) {
      if (c == '\\')
        ++i;
      else if (c == '"')
        inText = false;
    } else if (c == '"') {
      inText = true;
    } else if (c == '{' || c == '[') {
      if (++depth > deepest) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

Json parseObject(std::string_view line) {
  if (!nestsWithin(line, deepestRequest))
    throw std::runtime_error(fmt::format("a line nests at most {} levels deep", deepestRequest));
  Json json = Json::parse(line, nullptr, false);
  if (json.is_discarded())
    throw std::runtime_error("expected one JSON object a line, got something that is not JSON");
  if (!json.is_object()) throw std::runtime_error("expected a JSON object, got another JSON value");
  return json;
}

sockaddr_un address(std::string const& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof a.sun_path)
    throw std::runtime_error(fmt::format("socket path \"{}\": expected 1 to {} bytes, got {}", path,
                                         sizeof a.sun_path - 1, path.size()));
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

Pallo::Descriptor connectTo(std::string const& path) {
  sockaddr_un const a = address(path);
  Pallo::Descriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd && ::connect(fd.get(), reinterpret_cast<sockaddr const*>(&a), sizeof a) != 0) fd.reset();
  return fd;
}

}  // namespace Ostra::Wire
