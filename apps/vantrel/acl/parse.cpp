// SPDX-License-Identifier: Apache-2.0
#include "apps/vantrel/acl/parse.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace Acl {
namespace {

std::string shown(std::string_view rest) {
  if (rest.empty()) return "the end of the line";
  std::string_view const word = rest.substr(0, std::min<std::size_t>(rest.find_first_of(" \t\r"), 24));
  std::string text;
  for (char const c : word.empty() ? rest.substr(0, 1) : word)
    text += std::isprint(static_cast<unsigned char>(c))
                ? std::string(1, c)
                : fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  return fmt::format("\"{}\"", text);
}

// One line and the place in it.
class Line {
 public:
  Line(std::string_view text, std::string const& file, std::size_t number)
      : text_(text), file_(file), number_(number) {}

  Rule rule() {
    Rule r;
    literal('@', "'@' before the source address");
    r.source = prefix("source");
    gap("a blank between the addresses");
    r.destination = prefix("destination");
    gap("a blank before the source ports");
    r.sourcePort = range("source port");
    gap("a blank before the destination ports");
    r.destinationPort = range("destination port");
    gap("a blank before the protocol");
    r.protocol = ternary<U8>("protocol");
    gap("a blank before the flags");
    r.flags = ternary<U16>("flags");
    blanks();
    if (!rest().empty()) r.action = action();
    blanks();
    if (!rest().empty()) fail("the end of the line");
    return r;
  }

 private:
  std::string_view rest() const { return text_.substr(at_); }
  [[noreturn]] void fail(std::string const& expected) { failAt(at_, expected); }
  [[noreturn]] void failAt(std::size_t at, std::string const& expected) {
    throw ParseError(file_, number_, at + 1, expected, shown(text_.substr(at)));
  }

  bool blanks() {
    std::size_t const before = at_;
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t')) ++at_;
    return at_ != before;
  }
  void gap(char const* expected) {
    if (!blanks()) fail(expected);
  }
  void literal(char c, char const* expected) {
    if (at_ == text_.size() || text_[at_] != c) fail(expected);
    ++at_;
  }

  // A number of the given base from `least` to `most`; `expected` says so.
  U64 number(int base, U64 least, U64 most, std::string const& expected) {
    std::size_t const start = at_;
    U64 value = 0;
    char const* const begin = text_.data() + at_;
    auto const [end, error] = std::from_chars(begin, text_.data() + text_.size(), value, base);
    if (error != std::errc() || value < least || value > most) failAt(start, expected);
    at_ += static_cast<std::size_t>(end - begin);
    return value;
  }

  Ternary<U32> prefix(char const* which) {
    U32 address = 0;
    for (int i = 0; i < 4; ++i) {
      if (i) literal('.', "'.' inside the address");
      address =
          address << 8 | static_cast<U32>(number(
                             10, 0, 255, fmt::format("a number from 0 to 255 in the {} address", which)));
    }
    literal('/', "'/' and a prefix length");
    U64 const length = number(10, 0, 32, fmt::format("a {} prefix length from 0 to 32", which));
    U32 const mask = length == 0 ? 0 : ~U32{0} << (32 - length);
    return {address & mask, mask};
  }

  Range range(char const* which) {
    Range r;
    r.lo = static_cast<U16>(number(10, 0, 0xFFFF, fmt::format("a {} from 0 to 65535", which)));
    blanks();
    literal(':', "':' between the ports");
    blanks();
    r.hi = static_cast<U16>(number(10, r.lo, 0xFFFF, fmt::format("a {} from {} to 65535", which, r.lo)));
    return r;
  }

  template <class T>
  T hex(std::string const& expected) {
    if (!rest().starts_with("0x") && !rest().starts_with("0X")) fail(expected);
    at_ += 2;
    std::size_t const digits = at_;
    T const value = static_cast<T>(number(16, 0, static_cast<T>(~T{0}), expected));
    if (at_ - digits > 2 * sizeof(T)) failAt(digits, expected);
    return value;
  }
  template <class T>
  Ternary<T> ternary(char const* which) {
    int const digits = 2 * sizeof(T);
    T const value = hex<T>(fmt::format("the {} as 0x and up to {} hexadecimal digits", which, digits));
    literal('/', "'/' and a mask");
    T const mask = hex<T>(fmt::format("the {} mask as 0x and up to {} hexadecimal digits", which, digits));
    return {static_cast<T>(value & mask), mask};
  }

  bool word(std::string_view w) {
    std::string_view const here = rest();
    if (!here.starts_with(w)) return false;
    if (here.size() > w.size() && here[w.size()] != ' ' && here[w.size()] != '\t') return false;
    at_ += w.size();
    return true;
  }
  Action action() {
    if (word("permit")) return {ActionKind::Permit, 0};
    if (word("deny")) return {ActionKind::Deny, 0};
    if (!word("mark")) fail("permit, deny, mark N or the end of the line");
    gap("a blank before the mark");
    return {ActionKind::Mark, static_cast<U32>(number(10, 0, 0xFFFFFFFF, "a mark from 0 to 4294967295"))};
  }

  std::string_view text_;
  std::string const& file_;
  std::size_t number_;
  std::size_t at_ = 0;
};

bool passedOver(std::string_view line) {
  std::size_t const first = line.find_first_not_of(" \t");
  return first == std::string_view::npos || line[first] == '#';
}

}  // namespace

ParseError::ParseError(std::string const& file, std::size_t line, std::size_t column,
                       std::string const& expected, std::string const& found)
    : std::runtime_error(fmt::format("{}:{}:{}: expected {}, found {}", file, line, column, expected, found)),
      line_(line),
      column_(column) {}

std::vector<Rule> parse(std::string_view text, std::string const& name, std::vector<std::size_t>* lines) {
  std::vector<Rule> rules;
  for (std::size_t number = 1; !text.empty(); ++number) {
    std::size_t const end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (passedOver(line)) continue;
    rules.push_back(Line(line, name, number).rule());
    if (lines) lines->push_back(number);
  }
  return rules;
}

std::vector<Rule> parseFile(std::string const& path, std::vector<std::size_t>* lines) {
  if (std::filesystem::is_directory(path))
    throw std::runtime_error(path + " is a directory, expected a rule file");
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw std::runtime_error(fmt::format("cannot read the rule file {}: {}", path, std::strerror(errno)));
  std::string const text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return parse(text, path, lines);
}

}  // namespace Acl
