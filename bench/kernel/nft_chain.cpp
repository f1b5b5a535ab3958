// SPDX-License-Identifier: Apache-2.0
#include "bench/kernel/nft_chain.h"

#include <fmt/format.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

namespace Bench {
namespace {

std::string address(U32 a) {
  return fmt::format("{}.{}.{}.{}", a >> 24, a >> 16 & 0xFF, a >> 8 & 0xFF, a & 0xFF);
}

void addPrefix(std::string& line, char const* field, Acl::Ternary<U32> const& t) {
  if (t.mask != 0) line += fmt::format("ip {} {}/{} ", field, address(t.value), std::popcount(t.mask));
}

void addPorts(std::string& line, char const* field, Acl::Range const& r) {
  if (r.lo == r.hi)
    line += fmt::format("th {} {} ", field, r.lo);
  else if (r.lo != 0 || r.hi != 0xFFFF)
    line += fmt::format("th {} {}-{} ", field, r.lo, r.hi);
}

// In nft's words. Bytes 12 and 13 of the TCP header have the flags.
std::string lineOf(Acl::Rule const& r) {
  std::string line;
  addPrefix(line, "saddr", r.source);
  addPrefix(line, "daddr", r.destination);
  if (r.protocol.mask == 0xFF)
    line += fmt::format("ip protocol {} ", r.protocol.value);
  else if (r.protocol.mask != 0)
    line += fmt::format("ip protocol & {} == {} ", r.protocol.mask, r.protocol.value);
  addPorts(line, "sport", r.sourcePort);
  addPorts(line, "dport", r.destinationPort);
  if (r.flags.mask != 0) line += fmt::format("@th,96,16 & {} == {} ", r.flags.mask, r.flags.value);
  return line + "drop\n";
}

struct Rule {
  U64 handle = 0;
  std::vector<char> expressions;  // the attribute, whole
};

}  // namespace

// Raw messages: what a rule is made of is taken from the kernel's own list of rules.
class NftChain::Netlink {
 public:
  Netlink() : socket_(mnl_socket_open(NETLINK_NETFILTER)) {
    if (!socket_ || mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0)
      throw std::runtime_error(fmt::format("skipped: no netlink socket: {}", std::strerror(errno)));
  }
  ~Netlink() { mnl_socket_close(socket_); }
  Netlink(Netlink const&) = delete;
  Netlink& operator=(Netlink const&) = delete;

  void list() {
    rules.clear();
    nlmsghdr* const message = begin(NFT_MSG_GETRULE, NLM_F_DUMP);
    sent(message);
    receive();
  }

  // In one transaction; the rule that comes is added to the list.
  template <class Messages>
  void transact(Messages messages) {
    at_ = buffer_.data();
    control(NFNL_MSG_BATCH_BEGIN);
    messages();
    control(NFNL_MSG_BATCH_END);
    if (mnl_socket_sendto(socket_, buffer_.data(), static_cast<std::size_t>(at_ - buffer_.data())) < 0)
      throw std::runtime_error(std::strerror(errno));
    receive();
  }
  void remove(U64 handle) {
    nlmsghdr* const message = begin(NFT_MSG_DELRULE, 0);
    mnl_attr_put_u64(message, NFTA_RULE_HANDLE, htobe64(handle));
    at_ += NLMSG_ALIGN(message->nlmsg_len);
  }
  // In the place of rule `at`, or before it.
  void insert(Rule const& rule, bool replaces, U64 at) {
    int const flags = NLM_F_ECHO | NLM_F_ACK | (replaces ? NLM_F_REPLACE : NLM_F_CREATE);
    nlmsghdr* const message = begin(NFT_MSG_NEWRULE, flags);
    mnl_attr_put_u64(message, replaces ? NFTA_RULE_HANDLE : NFTA_RULE_POSITION, htobe64(at));
    std::memcpy(mnl_nlmsg_get_payload_tail(message), rule.expressions.data(), rule.expressions.size());
    message->nlmsg_len += static_cast<U32>(rule.expressions.size());
    at_ += NLMSG_ALIGN(message->nlmsg_len);
  }

  std::vector<Rule> rules;  // in the order in which the kernel told them

 private:
  static constexpr char const* table = "bench";
  static constexpr char const* chain = "linear";

  void sent(nlmsghdr const* message) {
    if (mnl_socket_sendto(socket_, message, message->nlmsg_len) < 0)
      throw std::runtime_error(std::strerror(errno));
  }
  nlmsghdr* header(U16 type, int flags, U8 family, U16 resource) {
    nlmsghdr* const message = mnl_nlmsg_put_header(at_);
    message->nlmsg_type = type;
    message->nlmsg_flags = static_cast<U16>(NLM_F_REQUEST | flags);
    message->nlmsg_seq = ++sequence_;
    auto* const netfilter = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    *netfilter = {family, NFNETLINK_V0, htobe16(resource)};
    return message;
  }
  void control(U16 type) { at_ += NLMSG_ALIGN(header(type, 0, AF_UNSPEC, NFNL_SUBSYS_NFTABLES)->nlmsg_len); }
  nlmsghdr* begin(U16 type, int flags) {
    if (flags == NLM_F_DUMP) at_ = buffer_.data();
    nlmsghdr* const message =
        header(static_cast<U16>(NFNL_SUBSYS_NFTABLES << 8 | type), flags, NFPROTO_IPV4, 0);
    mnl_attr_put_strz(message, NFTA_RULE_TABLE, table);
    mnl_attr_put_strz(message, NFTA_RULE_CHAIN, chain);
    return message;
  }
  void receive() {
    int status = MNL_CB_OK;
    while (status == MNL_CB_OK) {
      auto const bytes = mnl_socket_recvfrom(socket_, answer_.data(), answer_.size());
      if (bytes < 0) throw std::runtime_error(std::strerror(errno));
      status = mnl_cb_run(answer_.data(), static_cast<std::size_t>(bytes), 0, 0, take, this);
    }
    if (status == MNL_CB_ERROR) throw std::runtime_error(fmt::format("nftables: {}", std::strerror(errno)));
  }
  static int take(nlmsghdr const* message, void* self) {
    if (message->nlmsg_type != (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWRULE)) return MNL_CB_OK;
    Rule rule;
    auto const each = [](nlattr const* attribute, void* rule_) {
      auto& to = *static_cast<Rule*>(rule_);
      if (mnl_attr_get_type(attribute) == NFTA_RULE_HANDLE) to.handle = be64toh(mnl_attr_get_u64(attribute));
      auto const* const bytes = reinterpret_cast<char const*>(attribute);
      if (mnl_attr_get_type(attribute) == NFTA_RULE_EXPRESSIONS)
        to.expressions.assign(bytes, bytes + MNL_ALIGN(mnl_attr_get_len(attribute)));
      return MNL_CB_OK;
    };
    mnl_attr_parse(message, sizeof(nfgenmsg), each, &rule);
    static_cast<Netlink*>(self)->rules.push_back(std::move(rule));
    return MNL_CB_OK;
  }

  mnl_socket* const socket_;
  std::array<char, 16384> buffer_ = {};
  std::array<char, 65536> answer_ = {};
  char* at_ = buffer_.data();
  U32 sequence_ = 0;
};

NftChain::NftChain() : netlink_(std::make_unique<Netlink>()) {}

NftChain::~NftChain() = default;

void NftChain::load(std::vector<Acl::Rule> const& rules) {
  std::string text =
      "table ip bench\ndelete table ip bench\ntable ip bench {\nchain linear {\n"
      "type filter hook prerouting priority raw; policy drop;\n";
  for (Acl::Rule const& rule : rules) text += lineOf(rule);
  text += "}\n}\n";
  FILE* const nft = ::popen("nft -f - 2>/dev/null", "w");
  if (!nft) throw std::runtime_error("skipped: no process can be started");
  bool const isWritten = std::fwrite(text.data(), 1, text.size(), nft) == text.size();
  int const status = ::pclose(nft);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 127) throw std::runtime_error("skipped: nft is missing");
  if (status != 0 || !isWritten) throw std::runtime_error("nft refuses the rules");
}

void NftChain::replace(std::size_t at) {
  if (netlink_->rules.empty()) netlink_->list();
  Rule const rule = netlink_->rules[at];
  netlink_->transact([&] { netlink_->insert(rule, true, rule.handle); });
  netlink_->rules[at] = std::move(netlink_->rules.back());
  netlink_->rules.pop_back();
}

void NftChain::moveToFront(std::size_t at) {
  if (netlink_->rules.empty()) netlink_->list();
  auto& rules = netlink_->rules;
  Rule const rule = rules[at];
  netlink_->transact([&] {
    netlink_->remove(rule.handle);
    netlink_->insert(rule, false, rules.front().handle);
  });
  rules.erase(rules.begin() + static_cast<std::ptrdiff_t>(at));
  std::rotate(rules.begin(), rules.end() - 1, rules.end());
}

}  // namespace Bench
