// SPDX-License-Identifier: Apache-2.0
// Reads rule files in the ClassBench filter format, one rule a line, highest precedence first:
//
//   @SRC/LEN  DST/LEN  SPORT_LO : SPORT_HI  DPORT_LO : DPORT_HI  PROTO/MASK  FLAGS/MASK  [permit|deny|mark N]
//
// Blank and tab separate; empty lines and lines that start with # are passed over. Numbers are decimal, masks
// 0x. Bits that a prefix length or a mask does not look at are dropped.
//
// Errors: ParseError: file, line, column and what was expected there. Nothing is read partly.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "hw/acl/rule.h"

namespace Acl {

class ParseError : public std::runtime_error {
 public:
  ParseError(std::string const& file, std::size_t line, std::size_t column, std::string const& expected,
             std::string const& found);
  std::size_t line() const { return line_; }      // from 1
  std::size_t column() const { return column_; }  // from 1, in bytes

 private:
  std::size_t line_;
  std::size_t column_;
};

// `name` is the file's name in messages. `lines`: gets the number of each rule's line, from 1.
std::vector<Rule> parse(std::string_view text, std::string const& name,
                        std::vector<std::size_t>* lines = nullptr);
// Raises std::runtime_error for a file that cannot be read.
std::vector<Rule> parseFile(std::string const& path, std::vector<std::size_t>* lines = nullptr);

}  // namespace Acl
