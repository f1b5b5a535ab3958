// SPDX-License-Identifier: Apache-2.0
#include "testing/rewrite.h"

#include <algorithm>
#include <numeric>

namespace Testing {
namespace {

void extend(std::vector<Member> const& members, U32 positions, Placement& placement,
            std::vector<Placement>& out) {
  if (placement.size() == members.size()) {
    if (consistent(members, placement)) out.push_back(placement);
    return;
  }
  for (U32 ti = 0; ti < positions; ++ti) {
    if (std::find(placement.begin(), placement.end(), ti) != placement.end()) continue;
    placement.push_back(ti);
    extend(members, positions, placement, out);
    placement.pop_back();
  }
}

}  // namespace

bool consistent(std::vector<Member> const& members, Placement const& placement) {
  for (std::size_t a = 0; a < members.size(); ++a)
    for (std::size_t b = 0; b < members.size(); ++b) {
      bool const ordered = members[a].pg != members[b].pg || placement[a] >= placement[b] ||
                           members[a].prio <= members[b].prio;
      if (!ordered) return false;
    }
  return true;
}

std::vector<Placement> placements(std::vector<Member> const& members, U32 positions) {
  std::vector<Placement> out;
  Placement placement;
  extend(members, positions, placement, out);
  return out;
}

Placement randomPlacement(std::vector<Member> const& members, U32 positions, std::mt19937_64& random) {
  std::vector<U32> pool(positions);
  std::iota(pool.begin(), pool.end(), 0);
  std::shuffle(pool.begin(), pool.end(), random);
  Placement placement(pool.begin(), pool.begin() + static_cast<std::ptrdiff_t>(members.size()));
  // What is out of order in a group is exchanged until nothing is.
  for (bool again = true; again;) {
    again = false;
    for (std::size_t a = 0; a < members.size(); ++a)
      for (std::size_t b = 0; b < members.size(); ++b)
        if (members[a].pg == members[b].pg && members[a].prio < members[b].prio &&
            placement[a] > placement[b]) {
          std::swap(placement[a], placement[b]);
          again = true;
        }
  }
  return placement;
}

std::vector<Step> writes(std::vector<Member> const& members, Placement const& placement,
                         std::vector<U32> const& order, U64& newest) {
  std::vector<Step> steps;
  for (U32 i : order)
    steps.push_back(
        put(record(i + 1, newest += 0x10000, i + 1, members[i].pg, members[i].prio, placement[i])));
  return steps;
}

bool arrived(Model const& model, Placement const& placement) {
  for (ModelRecord const& r : model.records())
    if (r.at != placement[r.key - 1]) return false;
  return model.records().size() == placement.size();
}

bool arrives(Differ& differ, std::vector<Step> const& steps, Placement const& target) {
  differ.empty();
  for (Step const& step : steps) differ.run(step);
  return arrived(differ.model(), target);
}

std::vector<U32> firstOrder(std::size_t members) {
  std::vector<U32> order(members);
  std::iota(order.begin(), order.end(), 0);
  return order;
}

std::vector<Step> joined(std::vector<Step> first, std::vector<Step> const& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

std::vector<std::vector<Member>> casts(U32 keys) {
  std::vector<std::vector<Member>> all;
  U32 const kinds = 2 * keys;
  U64 count = 1;
  for (U32 i = 0; i < keys; ++i) count *= kinds;
  for (U64 n = 0; n < count; ++n) {
    std::vector<Member> members;
    U64 digits = n;
    for (U32 i = 0; i < keys; ++i, digits /= kinds)
      members.push_back({static_cast<U16>(digits % kinds / keys), static_cast<U32>(digits % kinds % keys)});
    bool const canonical = std::is_sorted(
        members.begin(), members.end(),
        [](Member const& a, Member const& b) { return a.pg != b.pg ? a.pg < b.pg : a.prio < b.prio; });
    if (canonical) all.push_back(members);
  }
  return all;
}

}  // namespace Testing
