// SPDX-License-Identifier: Apache-2.0
// A picture of the hardware's row for a terminal: positions from left to right, one line and colour for each
// priority group, a bar as high as the priority.
//
//   group 0  ▁▁▁▂▂·▂▃▃▃▄▄▄▅▅▅▆·▆▇▇██
//
// Where the order holds, the bars of a line never fall. When there are more positions than columns, a cell
// shows the greatest priority of several; a dot means that all of them are free.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pallo/types.h"

namespace Demo {

struct Placed {
  U32 ti;
  U16 pg;
  U32 prio;
};

// `columns` limits a line's width. `colours` adds a terminal's escape sequences.
std::string picture(std::vector<Placed> row, std::size_t columns, bool colours);

// Whether inside each group no priority decreases along the positions.
bool inOrder(std::vector<Placed> row);

}  // namespace Demo
