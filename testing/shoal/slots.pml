/* SPDX-License-Identifier: Apache-2.0
 *
 * Publishing, reading, freeing and recycling of slots: a writer, the writer after it, one reader, two keys,
 * three slots.
 *
 * A writer inserts, replaces and removes; it may be ended before any of its stores, and the next one then
 * takes over. A removal is published by the mark of the slot as freed, an insertion or replacement by the
 * index entry. The reader looks key 0 up, word by word, at any pace. Each access to shared memory is one
 * step; state is one word with generation and mark; a slot's record is two words that must agree, and its
 * checksum is perfect.
 *
 * Promises: a look-up returns what was published at some moment of it, whole and of the right key, or finds
 * the key absent when it was absent at some moment of it. One that needs another attempt was overtaken by a
 * writer, and no record is taken for damaged. Wherever a writer ends, the slots alone say what is in the
 * table: of each key the newest whole slot that is not freed is what is published, or what was being done.
 */
#define SLOTS 3
#define NONE 9
#define WRITES 4

/* Key 0 is there to begin with, in slot 0 and of version 1. */
byte gen[SLOTS];    /* odd while the slot is written */
bool freed[SLOTS];
byte owner[SLOTS];  /* the slot's key */
byte low[SLOTS];    /* the record: two words of one version */
byte high[SLOTS];
short sum[SLOTS];
byte index[2] = NONE;
byte head = 1;      /* changes announced */
byte stamped;       /* the key of the change at head, and 1; 0: there is none yet */

/* What the checks know, and no process sees. */
byte published[2];  /* the version last published; 0: removed or never there */
byte current = 1;   /* bit v: version v of key 0 was published during the look-up; bit 0: it was absent */
bool ready;
bool wrote;         /* something was stored during the attempt */

#define SUM(gen, owner, low, high) (((gen) * 2 + (owner)) * 64 + (low) * 8 + (high))
#define IS_NAMED(slot) (index[0] == slot || index[1] == slot)
#define PUBLISH(key, version) \
  published[key] = version; if :: key == 0 -> current = current | (1 << version) :: else fi

inline salvage(whose, found, newest, i) {
  found = 0; newest = 0; i = 0;
  do
  :: i < SLOTS ->
    if
    :: gen[i] % 2 == 0 && gen[i] > newest && !freed[i] && owner[i] == whose &&
       sum[i] == SUM(gen[i], owner[i], low[i], high[i]) -> newest = gen[i]; found = low[i]
    :: else
    fi;
    i++
  :: else -> break
  od;
  assert(found == published[whose] || (changing == whose && found == version))
}

/* A look at what a writer that ended left, and then what the next one does. What is in a slot that no entry
 * names is nobody's record. */
inline takeOver() {
  d_step {
    salvage(0, found, newest, slot);
    salvage(1, found, newest, slot);
    found = 0; newest = 0
  }
  slot = 0;
  do
  :: slot < SLOTS ->
     if
     :: !IS_NAMED(slot) && gen[slot] != 0 && !freed[slot] -> atomic { freed[slot] = true; wrote = true }
     :: else
     fi;
     slot++
  :: else -> break
  od;
  if
  :: stamped != 0 && index[stamped - 1] != NONE && freed[index[stamped - 1]] ->
     atomic { index[stamped - 1] = NONE; wrote = true }
  :: else
  fi;
  /* A number that a slot carries is not used again. */
  if
  :: stamped != 0 || gen[0] > 2 * head || gen[1] > 2 * head || gen[2] > 2 * head ->
     atomic { head++; stamped = 0; wrote = true }
  :: else
  fi
}

#define STORE(x) if :: atomic { x; wrote = true } :: !ended -> ended = true; goto over fi

active proctype writer() {
  byte slot, old, key, version = 2, found, newest;
  byte changing = NONE;
  bool ended;
  d_step {
    gen[0] = 2; low[0] = 1; high[0] = 1; sum[0] = SUM(2, 0, 1, 1);
    index[0] = 0; published[0] = 1; current = 1 << 1
  }
  ready = true;
work:
  do
  :: version <= WRITES ->
     if :: key = 0 :: key = 1 fi;
     changing = key;
     if
     :: if
        :: !IS_NAMED(0) -> slot = 0
        :: !IS_NAMED(1) -> slot = 1
        :: !IS_NAMED(2) -> slot = 2
        fi;
        STORE(gen[slot] = 2 * head + 3; freed[slot] = false);
        STORE(owner[slot] = key);
        STORE(low[slot] = version);
        STORE(high[slot] = version);
        STORE(sum[slot] = SUM(2 * head + 2, key, version, version));
        STORE(gen[slot] = 2 * head + 2);
        STORE(stamped = key + 1);
        old = index[key];
        STORE(index[key] = slot; PUBLISH(key, version));
        if :: old != NONE -> STORE(freed[old] = true) :: else fi
     :: index[key] != NONE ->
        STORE(stamped = key + 1);
        STORE(freed[index[key]] = true; PUBLISH(key, 0));
        STORE(index[key] = NONE)
     fi;
     STORE(head++; stamped = 0);
     changing = NONE;
     version++
  :: else -> goto done
  od;
over:
  takeOver();
  version++;
  goto work;
done:
  skip;
  d_step { salvage(0, found, newest, slot); salvage(1, found, newest, slot) }
}

#define OVERTAKEN assert(wrote); goto again

active proctype reader() {
  byte entry, before, who, one, two;
  short check;
  bool isFreed;
  ready;
  atomic { current = 1 << published[0] }
again:
  atomic { wrote = false; entry = index[0] }
  if :: entry == NONE -> goto absent :: else fi;
  atomic { before = gen[entry]; isFreed = freed[entry] }
  if :: before % 2 == 1 -> OVERTAKEN :: else fi;
  if
  :: !isFreed ->
     who = owner[entry];
     one = low[entry];
     two = high[entry];
     check = sum[entry]
  :: else
  fi;
  /* The entry first: a slot may be complete, or freed, before it is published again. */
  if :: index[0] != entry -> OVERTAKEN :: else fi;
  if :: gen[entry] != before || freed[entry] != isFreed -> OVERTAKEN :: else fi;
  if :: isFreed -> goto absent :: else fi;
  assert(check == SUM(before, who, one, two));
  assert(who == 0);
  assert(one == two);
  assert((current & (1 << one)) != 0);
  goto end;
absent:
  assert((current & 1) != 0);
end:
  skip
}
