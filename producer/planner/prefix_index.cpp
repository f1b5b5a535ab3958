// SPDX-License-Identifier: Apache-2.0
#include "producer/planner/prefix_index.h"

namespace Planning {

U32 PrefixIndex::newNode(Prefix const& prefix) {
  U32 node = static_cast<U32>(nodes_.size());
  if (unused_.empty())
    nodes_.emplace_back();
  else {
    node = unused_.back();
    unused_.pop_back();
  }
  nodes_[node].prefix = prefix;
  return node;
}

// The child that the prefix is at or under, made if there is none. Splits the path where it leaves it.
U32 PrefixIndex::childFor(U32 at, Prefix const& prefix) {
  bool const side = prefix.bit(nodes_[at].prefix.length);
  U32 const child = nodes_[at].child[side];
  if (child == 0) {
    U32 const made = newNode(prefix);
    return nodes_[at].child[side] = made;
  }
  unsigned const common = nodes_[child].prefix.common(prefix);
  if (common == nodes_[child].prefix.length) return child;
  U32 const fork = newNode(prefix.cut(common));
  nodes_[fork].child[nodes_[child].prefix.bit(common)] = child;
  nodes_[fork].below = nodes_[child].below;
  nodes_[child].own.each([&](U32 slot) { nodes_[fork].below.add(slot); });
  return nodes_[at].child[side] = fork;
}

void PrefixIndex::add(Prefix const& prefix, U32 slot) {
  U32 at = 0;
  while (nodes_[at].prefix.length != prefix.length) {
    nodes_[at].below.add(slot);
    at = childFor(at, prefix);
  }
  nodes_[at].own.add(slot);
}

void PrefixIndex::remove(Prefix const& prefix, U32 slot) {
  std::vector<U32> path{0};
  while (nodes_[path.back()].prefix.length != prefix.length) {
    nodes_[path.back()].below.remove(slot);
    path.push_back(nodes_[path.back()].child[prefix.bit(nodes_[path.back()].prefix.length)]);
  }
  nodes_[path.back()].own.remove(slot);
  for (std::size_t i = path.size() - 1; i > 0; --i) {
    Node const& node = nodes_[path[i]];
    if (node.own.empty() && node.below.empty()) drop(path[i], path[i - 1]);
  }
}

void PrefixIndex::drop(U32 node, U32 parent) {
  nodes_[parent].child[nodes_[node].prefix.bit(nodes_[parent].prefix.length)] = 0;
  nodes_[node] = {};
  unused_.push_back(node);
}

void PrefixIndex::meeting(Prefix const& prefix, Bits& bits) const {
  U32 at = 0;
  while (nodes_[at].prefix.length < prefix.length) {
    nodes_[at].own.addTo(bits);
    at = nodes_[at].child[prefix.bit(nodes_[at].prefix.length)];
    if (at == 0 || !nodes_[at].prefix.meets(prefix)) return;
  }
  nodes_[at].own.addTo(bits);
  nodes_[at].below.addTo(bits);
}

}  // namespace Planning
