// SPDX-License-Identifier: Apache-2.0
// A picture of the hardware's row for a terminal: positions from left to
// right, a line a priority group in a colour of its own, a bar as high as the priority.
//
//   group 0  ▁▁▁▂▂·▂▃▃▃▄▄▄▅▅▅▆·▆▇▇██
//
// Where the order holds, the bars of a line never fall. A cell stands for as many positions as must share it;
// it shows the greatest priority among them, a dot when all of them are free.
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

// `columns`: how wide a line may be. `colours`: for a terminal.
std::string picture(std::vector<Placed> row, std::size_t columns, bool colours);

// Inside each group, no priority decreases along the positions.
bool inOrder(std::vector<Placed> row);

}  // namespace Demo
