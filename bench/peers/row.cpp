// SPDX-License-Identifier: Apache-2.0
#include "bench/peers/row.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace Bench {

using Vantrel::EntryConfig;
using Vantrel::TableKey;

void Row::take(U32 ti, U64 key) {
  if (keys_.at(ti) != 0) throw std::logic_error("the position is held");
  keys_[ti] = key;
}

void Row::add(EntryConfig const& e) {
  U64 const key = e.key().value();
  U32 const ti = e.tableIndex(TableKey(0));
  Entry const entry{key, e.prio(), e.pg(), e.opId().low()};
  take(ti, key);
  if (!places_.emplace(key, Place{ti, entry}).second) throw std::logic_error("the key is there already");
  if (checked_) order_[{entry.pg, ti}] = entry.prio;
  appeared(key);
  done(&entry, ti);
}

void Row::update(EntryConfig const& e) {
  Place& place = places_.at(e.key().value());
  place.entry.low = e.opId().low();
  done(nullptr, place.ti);
}

void Row::move(EntryConfig const& e) {
  U32 const ti = e.tableIndex(TableKey(0));
  Place& place = places_.at(e.key().value());
  take(ti, e.key().value());
  keys_[place.ti] = 0;
  if (checked_) {
    order_[{place.entry.pg, ti}] = place.entry.prio;
    order_.erase({place.entry.pg, place.ti});
  }
  place.ti = ti;
  place.entry.low = e.opId().low();
  done(&place.entry, ti);
}

void Row::remove(U64 key) {
  Place const place = places_.at(key);
  keys_[place.ti] = 0;
  places_.erase(key);
  if (checked_) order_.erase({place.entry.pg, place.ti});
  vanished(key);
  done(nullptr, place.ti);
}

void Row::done(Entry const* changed, U32 ti) {
  ++operations_;
  absences_ += absentNow_;
  gaps_ += absentNow_ != 0;
  mostAbsent_ = std::max(mostAbsent_, absentNow_);
  if (!checked_ || !changed) return;
  auto const here = order_.find({changed->pg, ti});
  auto const fits = [&](auto left, auto right) {
    return left->first.first != right->first.first || left->second <= right->second;
  };
  bool const good = (here == order_.begin() || fits(std::prev(here), here)) &&
                    (std::next(here) == order_.end() || fits(here, std::next(here)));
  if (!good) ++disorders_;
}

Row::Contents Row::contents() const {
  Contents all;
  for (auto const& [key, place] : places_) all[place.ti] = place.entry;
  return all;
}

void Row::guard(std::vector<bool> wanted, boost::unordered_flat_map<U64, Match> const& matchOf) {
  matchOf_ = &matchOf;
  guarded_ = std::move(wanted);
  present_.assign(guarded_.size(), 0);
  for (auto const& [key, place] : places_) ++present_[matchOf.at(key)];
  for (std::size_t m = 0; m < guarded_.size(); ++m)
    if (present_[m] == 0) guarded_[m] = false;
  absentNow_ = 0;
}

void Row::appeared(U64 key) {
  if (!matchOf_) return;
  Match const m = matchOf_->at(key);
  if (present_[m]++ == 0 && guarded_[m]) --absentNow_;
}

void Row::vanished(U64 key) {
  if (!matchOf_) return;
  Match const m = matchOf_->at(key);
  if (--present_[m] == 0 && guarded_[m]) ++absentNow_;
}

}  // namespace Bench
