// SPDX-License-Identifier: Apache-2.0
// Road: one way from a producer's write to the acknowledgement that it sees, with another process at the far
// end that "programs" what was written.
//
// Invariants: write() does not wait for the acknowledgement; each write is acknowledged once.
// Ownership: the processes at the far end are the road's, started by it and ended with it.
// Threading: one thread on this side.
// Errors: std::runtime_error when the far end cannot be started, has gone, or is silent for ten seconds;
//   Missing when it is not installed.
#pragma once

#include <sys/types.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "pallo/types.h"

namespace Bench {

class Missing : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class Change { update, move };

// One processor for both ends, or one each: on a machine of few processors the scheduler does either, and the
// two are different measurements. What is neither end, a server, goes where it likes beside them.
enum class Place { together, apart };

class Road {
 public:
  static constexpr U64 dataWords = 4;      // match and action of an entry
  static constexpr U64 most = 1U << 18;    // entries of a road, and so keys 1 to `most`
  static constexpr int patience = 10'000;  // milliseconds of silence

  virtual ~Road() = default;
  // Asks for another data word, or the free position beside the old one.
  virtual void write(U64 key, Change change) = 0;
  // Sleeps until at least one write is acknowledged that was not before; how many.
  virtual U64 await() = 0;
  // Puts this process, the far end and its servers onto their processors; Missing when there are too few.
  void placeIs(Place place) const;

 protected:
  virtual std::vector<pid_t> farEnd() const = 0;
  virtual std::vector<pid_t> servers() const { return {}; }
};

// An agent on shared tables; `tracing` with its trace file.
std::unique_ptr<Road> vantrelRoad(U64 entries, bool tracing);
// Two processes, shared memory, and the same wake-up.
std::unique_ptr<Road> bareRoad(U64 entries);
// A Redis server on a Unix socket between the two: hash write and publish; the far end, subscribed, reads the
// hash, writes its status and publishes.
std::unique_ptr<Road> redisRoad(U64 entries);

}  // namespace Bench
