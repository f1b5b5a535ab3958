// SPDX-License-Identifier: Apache-2.0
// What the benchmark programs have in common: a main() on Google Benchmark that runs what a program has
// registered, sides in turn, and prints one table, or one JSON document. A program is one group of `make
// bench`; it links bench_report, as vantrel_bench() does, and has no main() of its own.
//
//   BENCHMARK(add<Engine>)->Name("add ascending/ours")->Arg(1000)->Arg(1000000);
//   BENCHMARK(add<BareIndexes>)->Name("add ascending/floor")->Arg(1000)->Arg(1000000);
//   bool const titled = Bench::titleIs("The road of one key", "nanoseconds a key");
//
// The contract:
//
//   names      CASE/SIDE/SIZE. CASE is free text without a slash; SIDE is `ours`, `floor` (the work that
//              cannot be avoided, alone) or `peer` (what somebody would use instead); SIZE is Google
//              Benchmark's argument, or one more part of the name. Sides of one case and size share a line.
//   figure     the user counter `ns` if there is one, else the real time of an iteration in nanoseconds. Set
//              `ns` when an iteration handles many keys, or when the part to measure is timed inside.
//   columns    every other counter (allocs, bytes, ...) becomes a column, one for each side that sets it.
//   lines      a counter `also:TEXT` becomes a line of its own, "CASE, TEXT", with the same sides and
//              ratios. Its unit is what TEXT says (`also:p99`, `also:hardware operations`).
//   median     a line is run in `--repetitions` rounds (9), in each of which every side has its turn, in
//              random order. What is shown is the median of the rounds.
//   ratios     ours/floor: how far from what is possible. peer/ours: how far ahead. The median of the rounds'
//              own ratios: what drifts from one round to the next meets all sides of it.
//   growth     ours at this size over ours at 10,000, in lines of larger sizes.
//   trouble    SkipWithError("skipped: WHY") is a note below the table; any other error is one too and ends
//              the program with status 1.
//   setting up ->Iterations(n) is welcome where an iteration is long; leave repetitions and minimal times to
//              the command line, or `--brief` cannot be brief.
//
// Flags of every program: --json, --brief (one short run at the smallest size of each case: does it still
// work?), --filter=REGEX (of names), --repetitions=N; what begins with --benchmark_ goes through.
//
// Threading: none; benchmarks that fork do so themselves.
// Cost: a case's set-up is paid again in every repetition.
#pragma once

#include <functional>
#include <string>

namespace Bench {

// The table's title, and what its figures are. Called while the program's globals are made. Returns true.
bool titleIs(std::string title, std::string unit);

// Called after the last benchmark: for what the benchmarks share, processes for one.
void atEnd(std::function<void()> work);

// The program runs to be seen working, not to be believed: shorten what is not a matter of size.
bool brief();

}  // namespace Bench
