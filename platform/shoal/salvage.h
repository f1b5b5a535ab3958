// SPDX-License-Identifier: Apache-2.0
// Salvage: what is in a table by the word of its slots alone, whatever became of the index.
//
// Invariants: changes nothing. A record is found when its slot is intact and was not freed; of several of one
//   key, the newest.
// Cost: one pass over the file; 24 bytes a record.
#pragma once

#include <string>
#include <vector>

#include "shoal/format.h"
#include "shoal/mapping.h"

namespace Shoal {

struct Salvaged {
  struct Slot {
    U64 key;
    U64 generation;
    U64 unit;
  };
  std::vector<Slot> records;
  std::vector<Slot> damaged;        // not intact; the key may be what is damaged
  std::vector<std::string> damage;  // in sentences: slots, or a whole chunk or more
  U64 newest = 0;                   // the greatest number of a change that wrote a record
};

Salvaged salvage(Mapping const& mapping, Format::Header const& header);

}  // namespace Shoal
