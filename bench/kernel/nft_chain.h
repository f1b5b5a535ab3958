// SPDX-License-Identifier: Apache-2.0
// NftChain: rules as a chain of nftables in order of precedence, where packets enter the IPv4 stack: rules
// need not ask for the protocol there, as they would at an interface's ingress.
//
// Invariants: each rule drops what it matches, and so does the chain what none matches: a packet costs the
//   rules that it passes and nothing behind them.
// Ownership: a netlink socket. The chain lives until its network namespace goes.
// Threading: one thread.
// Errors: std::runtime_error that begins with "skipped: " where nftables is missing, and one with the
//   kernel's word for what it refuses.
#pragma once

#include <memory>
#include <vector>

#include "hw/acl/rule.h"

namespace Bench {

class NftChain {
 public:
  NftChain();
  ~NftChain();

  // What is in the chain goes, the rules come, in one transaction of `nft -f`.
  void load(std::vector<Acl::Rule> const& rules);
  // One rule by a copy of itself, in one transaction.
  void replace(std::size_t at);
  // One rule goes and comes again before the first one, in one transaction.
  void moveToFront(std::size_t at);

 private:
  class Netlink;
  std::unique_ptr<Netlink> netlink_;
};

}  // namespace Bench
