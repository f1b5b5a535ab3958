// SPDX-License-Identifier: Apache-2.0
// The record pool, and the list of states.
//
// The pool grows by blocks of 2, 6, 18, ... records until 131072 a step. Blocks are never returned: a
// record's address stays good for the life of the process.
//
//   blocks: [ a b ] [ c d e f g h ]      clen = 9: eight records made, plus one
//   cfree:  h g f | ...                  cread = 3: the next three allocations take f, g, h in this order
//
// It clears nothing: a record is handed out as it was left, and the caller must fill every field.
#include "vantrel/fast/state.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <vector>

#include "vantrel/fast/asserts.h"

namespace Vantrel {
namespace {

constexpr U32 maxGrowth = 131072;

struct Pool {
  U32 cread = 0;  // records free
  U32 clen = 1;   // records ever made, plus one
  // The first cread of them are free. One to spare: a record that is freed twice fails the assertion in
  // give() instead of being written past the end.
  std::vector<CState_s*> cfree = std::vector<CState_s*>(clen + 1);
  std::vector<void*> blocks;       // keeps every block in a leak checker's sight
  std::vector<FastState*> states;  // and every state
};

Pool& pool() {
  static Pool* const instance = new Pool;  // outlives every engine, static ones included
  return *instance;
}

void give(CState_s* c) {
  Pool& p = pool();
  p.cfree[p.cread] = c;
  ++p.cread;
  U32 const cread = p.cread;
  U32 const clen = p.clen;
  FAST_ASSERT(cread <= clen);
}

void grow() {
  Pool& p = pool();
  U32 const growth = std::min(2 * p.clen, maxGrowth);
  p.cfree.resize(p.clen + growth + 1);
  p.blocks.reserve(p.blocks.size() + 1);
  void* const block = std::malloc(growth * sizeof(CState_s));
  if (!block) throw std::bad_alloc();
  p.blocks.push_back(block);
  p.clen += growth;
  auto* const records = static_cast<CState_s*>(block);
  for (U32 i = 0; i < growth; ++i) give(new (&records[i]) CState_s);
}

}  // namespace

CStatePool cstatePool() { return {pool().cread, pool().clen}; }

FastState::FastState() : cstate(16), blocked(16) { pool().states.push_back(this); }

FastState::~FastState() { std::erase(pool().states, this); }

void FastState::roomIs(std::size_t keys) {
  cstate.reserve(cstate.size() + keys);
  while (pool().cread < keys) grow();
}

CState_s* FastState::cstateAlloc() {
  Pool& p = pool();
  if (p.cread == 0) grow();
  --p.cread;
  CState_s* const c = p.cfree[p.cread];
  FAST_ASSERT(c);
  return c;
}

void FastState::cstateFree(CState_s* c) {
  FAST_ASSERT(c);
  give(c);
}

}  // namespace Vantrel
