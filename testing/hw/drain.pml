/* SPDX-License-Identifier: Apache-2.0
 *
 * Look-ups beside a writer, as in hw/xdp/tcam.cpp. An entry moves from position 1 to 0 and is written anew
 * there, into the slot that it had before the move; then the other slot is used again. A look-up reads a
 * position's bit, reference and record, position after position, between two increments of its CPU's epoch.
 * The bits are one word, or two.
 *
 * The writer's stores wait in a buffer and reach memory in their order, as on x86. The fence of a drain waits
 * until it is empty. A look-up's loads come in their order, behind the first increment, which is a fence.
 *
 * Promise: each look-up finds the entry, and its record whole.
 *
 * Each fault must break it. NO_DRAIN: the writer does not wait for look-ups. NO_FENCE: it does not empty the
 * buffer first. NO_ORDER: the first increment is no fence. DELETE_FIRST: break before make. EARLY_CLEAR: the
 * old place's bit goes before the first drain. EARLY_REUSE: the other slot is used before the last one.
 */
#define LOOKUPS 3
#define POSITIONS 2

mtype = { toBit, toRef, toRecord };

bool bits[POSITIONS];
byte refs[POSITIONS];   /* slot + 1, 0 for none */
bool records[POSITIONS]; /* by slot: whole */
byte epoch;
chan buffer = [8] of { mtype, byte, byte };

active proctype memory() {
  mtype what;
  byte at, value;
end:
  do
  :: atomic {
       buffer ? what, at, value ->
       if
       :: what == toBit -> bits[at] = value
       :: what == toRef -> refs[at] = value
       :: what == toRecord -> records[at] = value
       fi
     }
  od
}

inline drain() {
#ifndef NO_FENCE
  empty(buffer);
#endif
#ifndef NO_DRAIN
  seen = epoch;
  if :: seen % 2 == 1 -> epoch != seen :: else fi
#else
  skip
#endif
}

proctype writer() {
  byte seen;
#ifdef DELETE_FIRST
  buffer ! toRef, 1, 0;
  drain();
#endif
  buffer ! toRecord, 1, true;
  buffer ! toBit, 0, true;
  buffer ! toRef, 0, 2;
#ifdef EARLY_CLEAR
  buffer ! toBit, 1, false;
#endif
  drain();
  buffer ! toRef, 1, 0;
  drain();
  buffer ! toBit, 1, false;
  buffer ! toRecord, 0, false;
  buffer ! toRecord, 0, true;
  buffer ! toRef, 0, 1;
#ifndef EARLY_REUSE
  drain();
#endif
  buffer ! toRecord, 1, false
}

/* The increment that waits in the look-up's own buffer. */
inline mayArrive() {
#ifdef NO_ORDER
  if :: waits -> epoch++; waits = false :: true fi
#else
  skip
#endif
}

inline examine(position, candidate) {
  held = 0;
  if :: candidate -> held = refs[position] :: else fi;
  mayArrive();
  if
  :: held != 0 && !found -> assert(records[held - 1]); found = true
  :: else
  fi;
  mayArrive()
}

proctype lookUps() {
  bool waits, found, oneWord, first, second;
  byte held, count;
  do
  :: count < LOOKUPS ->
     count++;
     found = false;
#ifdef NO_ORDER
     waits = true;
#else
     epoch++;
#endif
     if :: oneWord = true :: oneWord = false fi;
     atomic { first = bits[0]; if :: oneWord -> second = bits[1] :: else fi };
     mayArrive();
     examine(0, first);
     if :: !oneWord -> second = bits[1] :: else fi;
     mayArrive();
     examine(1, second);
     assert(found);
     if :: waits -> epoch++; waits = false :: else fi;
     epoch++
  :: else -> break
  od
}

init {
  atomic {
    bits[1] = true;
    refs[1] = 1;
    records[0] = true;
    run writer();
    run lookUps()
  }
}
