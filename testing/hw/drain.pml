/* SPDX-License-Identifier: Apache-2.0
 *
 * Look-ups beside a writer, as in hw/xdp/tcam.cpp, on a processor that orders nothing by itself. An entry
 * moves from position 1 to 0 and is written anew there, into the slot that it had before the move; then the
 * other slot is used again. Look-ups of one CPU may preempt one another.
 *
 * The writer's stores wait, one queue for each word, and reach memory in any order among queues: a store with
 * release waits until the others are there, and so does the fence of a drain. A look-up reads bit, reference
 * and record of both positions in any order, but for what depends on what it read before; all of it behind
 * the first addition to the epoch and before the second. x86 does less of that, and nothing else.
 *
 * Promise: each look-up finds the entry, and its record whole.
 *
 * Each fault must break it. NO_DRAIN: the writer does not wait for look-ups. NO_FENCE: its stores need not
 * have arrived. NO_BEGIN, NO_END: loads pass the first addition, or the second. NO_RELEASE: the reference is
 * an ordinary store. NO_DEPENDENCY: a record is read before the reference that names it.
 * DELETE_FIRST: break before make. EARLY_CLEAR: the old place's bit goes before the first drain. EARLY_REUSE:
 * the other slot is used before the last one. NO_TELLING: a look-up does not say that it preempted another
 * one. NO_GRACE: nobody listens to that.
 */
#define LOOKUPS 2 /* of each context */
#define POSITIONS 2
#define CONTEXTS 2 /* of the CPU: the second one preempts the first */

bool bits[POSITIONS];
byte refs[POSITIONS];    /* slot + 1, 0 for none */
bool records[POSITIONS]; /* by slot: whole */
byte running, ended;     /* the epoch */
bool interleaved;
byte began[CONTEXTS];    /* odd while its look-up runs: what a grace period knows */

chan bitStores[POSITIONS] = [2] of { bool };
chan refStores[POSITIONS] = [2] of { byte };
chan recordStores[POSITIONS] = [2] of { bool };

active proctype memory() {
end:
  do
  :: bitStores[0] ? bits[0]
  :: bitStores[1] ? bits[1]
  :: refStores[0] ? refs[0]
  :: refStores[1] ? refs[1]
  :: recordStores[0] ? records[0]
  :: recordStores[1] ? records[1]
  od
}

inline arrived() {
  atomic {
    empty(bitStores[0]) && empty(bitStores[1]) && empty(refStores[0]) && empty(refStores[1]) &&
    empty(recordStores[0]) && empty(recordStores[1])
  }
}

inline release() {
#ifndef NO_RELEASE
  arrived();
#else
  skip
#endif
}

inline gracePeriod() {
  atomic { seen0 = began[0]; seen1 = began[1] };
  if :: seen0 % 2 == 1 -> began[0] != seen0 :: else fi;
  if :: seen1 % 2 == 1 -> began[1] != seen1 :: else fi
}

inline drain() {
#ifndef NO_FENCE
  arrived();
#endif
#ifndef NO_DRAIN
  atomic { wasRunning = running; wasEnded = ended; nowRunning = running };
  if
  :: wasRunning == 1 ->
     atomic { running != wasRunning || ended != wasEnded; nowRunning = running }
  :: else
  fi;
  if
  :: nowRunning == 0
#ifndef NO_GRACE
  :: nowRunning > 1 -> gracePeriod()
  :: nowRunning == 1 -> if :: interleaved -> gracePeriod() :: else fi
#else
  :: nowRunning > 0
#endif
  fi
#endif
}

proctype writer() {
  byte seen0, seen1, wasRunning, wasEnded, nowRunning;
#ifdef DELETE_FIRST
  refStores[1] ! 0;
  drain();
#endif
  recordStores[1] ! true;
  bitStores[0] ! true;
  release();
  refStores[0] ! 2;
#ifdef EARLY_CLEAR
  bitStores[1] ! false;
#endif
  drain();
  refStores[1] ! 0;
  drain();
  bitStores[1] ! false;
  recordStores[0] ! false;
  recordStores[0] ! true;
  release();
  refStores[0] ! 1;
#ifndef EARLY_REUSE
  drain();
#endif
  recordStores[1] ! false
}

#define nothingRead (state[0] == 0 && state[1] == 0)
#define allRead (state[0] == 3 && state[1] == 3)
/* It is not preempted at the moment. */
#define goesOn (context == 1 || began[1] % 2 == 0)

/* 0: the bit is next, 1: the reference, 2: the record, 3: all is read. */
inline readNext(at) {
  if
  :: state[at] == 0 -> candidate[at] = bits[at]; state[at] = (candidate[at] -> 1 : 3)
  :: state[at] == 1 -> held[at] = refs[at]; state[at] = (held[at] -> 2 : 3)
#ifdef NO_DEPENDENCY
  :: state[at] == 1 && !guessed[at] -> guessed[at] = true; guess[at] = records[0]
#endif
  :: state[at] == 2 ->
#ifdef NO_DEPENDENCY
     whole[at] = (guessed[at] && held[at] == 1 -> guess[at] : records[held[at] - 1]);
#else
     whole[at] = records[held[at] - 1];
#endif
     state[at] = 3
  fi
}

proctype lookUps(byte context) {
  bool candidate[POSITIONS], whole[POSITIONS], guessed[POSITIONS], guess[POSITIONS];
  byte held[POSITIONS], state[POSITIONS];
  bool isIn, isOut, tells;
  byte count;
  do
  :: count < LOOKUPS ->
     atomic {
       count++;
       isIn = false; isOut = false;
       state[0] = 0; state[1] = 0;
       held[0] = 0; held[1] = 0;
       guessed[0] = false; guessed[1] = false;
       goesOn;
       began[context]++
     };
     do
#ifdef NO_BEGIN
     :: atomic { !isIn ->
#else
     :: atomic { !isIn && nothingRead ->
#endif
#ifndef NO_TELLING
          tells = running > 0;
#endif
          running++; isIn = true }
     :: atomic { tells -> interleaved = true; tells = false }
#ifdef NO_BEGIN
     :: atomic { state[0] != 3 && goesOn -> readNext(0) }
     :: atomic { state[1] != 3 && goesOn -> readNext(1) }
#else
     :: atomic { isIn && state[0] != 3 && goesOn -> readNext(0) }
     :: atomic { isIn && state[1] != 3 && goesOn -> readNext(1) }
#endif
#ifdef NO_END
     :: atomic { isIn && !isOut && !tells -> running--; ended++; isOut = true }
#else
     :: atomic { isIn && !isOut && !tells && allRead -> running--; ended++; isOut = true }
#endif
     :: atomic { isIn && isOut && allRead ->
          assert(held[0] || held[1]);
          if
          :: held[0] -> assert(whole[0])
          :: else -> assert(whole[1])
          fi;
          began[context]++;
          break }
     od
  :: else -> break
  od
}

init {
  atomic {
    bits[1] = true;
    refs[1] = 1;
    records[0] = true;
    run writer();
    run lookUps(0);
    run lookUps(1)
  }
}
