// SPDX-License-Identifier: Apache-2.0
#include "bench/planner/sets.h"

#include <algorithm>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <unordered_set>

#include "apps/vantrel/acl/match.h"
#include "apps/vantrel/acl/parse.h"

namespace Bench {
namespace {

U32 maskOf(unsigned length) { return length == 0 ? 0 : ~U32{0} << (32 - length); }

class Generator {
 public:
  Generator(std::string kind, std::size_t rules) : kind_(std::move(kind)) {
    std::size_t const networks = std::max<std::size_t>(16, rules / 50);
    for (std::size_t i = 0; i < networks; ++i) networks_.push_back(static_cast<U32>(random_()));
  }
  Acl::Rule rule() {
    Acl::Rule r;
    r.source = prefix();
    r.destination = prefix();
    if (below(20) != 0) r.protocol = {static_cast<U8>(below(3) == 0 ? 17 : 6), 0xFF};
    if (kind_ == "ipc" && below(2) == 0) return r;
    r.destinationPort = port();
    if (below(8) == 0) r.sourcePort = port();
    return r;
  }

 private:
  U32 below(U32 n) { return static_cast<U32>(random_() % n); }
  Acl::Ternary<U32> prefix() {
    U32 const open = kind_ == "fw" ? 4 : kind_ == "ipc" ? 40 : 60;  // one in so many is any address
    unsigned length = kind_ == "ipc" ? 16 + 4 * below(5) : 24 + below(9);
    if (below(16) == 0) length = 8 + below(16);
    if (below(open) == 0) length = 0;
    U32 const network = networks_[below(static_cast<U32>(networks_.size()))];
    U32 const address = (network & maskOf(16)) | (below(1U << 16) & ~maskOf(16));
    return {address & maskOf(length), maskOf(length)};
  }
  Acl::Range port() {
    if (below(4) == 0) return {};
    if (below(6) == 0) return {1024, 65535};
    U16 const port = static_cast<U16>(below(200) + 1);
    return {port, port};
  }

  std::string const kind_;
  std::mt19937 random_{1};
  std::vector<U32> networks_;
};

// Rules that leave more open come later, as people write them.
std::vector<Acl::Rule> generated(std::string const& kind, std::size_t count) {
  Generator generator(kind, count);
  std::unordered_set<Acl::Rule> seen;
  std::vector<Acl::Rule> rules;
  while (rules.size() < count)
    if (Acl::Rule const rule = generator.rule(); seen.insert(rule).second) rules.push_back(rule);
  std::ranges::stable_sort(rules, std::ranges::greater(), [](Acl::Rule const& r) {
    return std::popcount(r.source.mask) + std::popcount(r.destination.mask);
  });
  return rules;
}

std::vector<Acl::Rule> fromFile(std::string const& name) {
  std::string const path = std::string(VANTREL_SOURCE_DIR) + "/../shared/data/acl/" + name + ".rules";
  if (!std::filesystem::exists(path))
    throw std::runtime_error("skipped: no " + name + ".rules in ../shared/data/acl");
  std::unordered_set<Acl::Rule> seen;
  std::vector<Acl::Rule> rules;
  for (Acl::Rule rule : Acl::parseFile(path)) {
    rule.action = {};
    if (seen.insert(rule).second) rules.push_back(rule);
  }
  return rules;
}

}  // namespace

Rules ruleSet(std::string const& name) {
  std::size_t const blank = name.find(' ');
  Rules rules;
  for (Acl::Rule const& rule : blank == std::string::npos
                                   ? fromFile(name)
                                   : generated(name.substr(0, blank), std::stoul(name.substr(blank + 1))))
    rules.push_back(Acl::matchOf(rule));
  return rules;
}

}  // namespace Bench
