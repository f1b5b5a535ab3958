// SPDX-License-Identifier: Apache-2.0
// Lumelog: a memory-mapped ring a level in one file. A record is a timestamp, a message site and its values in binary.
//
//   LUMELOG_RECORD(log, 9, 1u, "handling key:", key, " hdl:", hdl);
//
// The first value is the writer's identifier; then literals and values take turns. Type codes: "i" a 32-bit value, "q" a
// 64-bit value, "s" a string.
//
// Threading: Single: one thread, plain stores.
// Cost: a few stores and no system call a record; a null log is one predictable branch.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "pallo/types.h"

namespace Lumelog {

constexpr std::size_t levels = 10;

enum class Threading { Single = 0 };

struct Options {
  std::array<U32, levels> kib{};  // size of each level's ring
  std::size_t maxString = 80;     // longer strings are cut
  Threading threading = Threading::Single;
};

// One message in the source: registered with the file when it is first written.
struct Site {
  U8 level;
  char const* file;
  int line;
  U32 id = 0;  // 0: not registered yet
};

// Called with every record as it is written: the text with %i, %q, %s where values stand (the identifier's place is
// before the text), and all values as numbers, identifier first.
using Tap = std::function<void(std::string_view text, std::span<U64 const> values)>;

class VANTREL_API Log {
 public:
  template <class... Parts>
  void record(Site& site, U32 identifier, Parts const&... parts);
  void tapIs(Tap tap);
};

// The directory of a log whose name is relative, when LUMELOGDIR is not set. The current directory at first.
VANTREL_API void directoryIs(std::string path);

// Opens a log; "%d" in the name stands for the process number. Null when it cannot be opened, said once on stderr.
VANTREL_API Log* open(std::string const& name, Options const& options);

}  // namespace Lumelog

#define LUMELOG_RECORD(log, level_, identifier, ...)                   \
  do {                                                                 \
    if ((log) != nullptr) {                                            \
      static ::Lumelog::Site site_{level_, __FILE__, __LINE__, 0};     \
      (log)->record(site_, identifier, __VA_ARGS__);                   \
    }                                                                  \
  } while (false)
