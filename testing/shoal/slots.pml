/* SPDX-License-Identifier: Apache-2.0
 *
 * Publishing, reading and recycling of slots: one writer, one reader, two keys, four slots.
 *
 * The writer replaces and removes; it may be ended before any of its stores. The reader looks key 0 up,
 * word by word, at any pace. Each access to shared memory is one step; a slot's record is two words that
 * must agree.
 *
 * Promises: a record that the reader returns is whole, is the key's, and was current at some moment of the
 * look-up: not older than what was published when the look-up began, not newer than what has been
 * published. A reader that needs another attempt was overtaken by the writer. Ended anywhere, the writer
 * leaves both keys readable and whole.
 */
#define SLOTS 4
#define NONE 9
#define WRITES 4

byte gen[SLOTS];    /* odd while the slot is written */
byte owner[SLOTS];  /* the slot's key */
byte low[SLOTS];    /* the record: two words of one version */
byte high[SLOTS];
byte index[2] = NONE;
byte published[2];  /* the version last published; 0: removed or never there */
byte stores;        /* of the writer, to tell whether it went on */
chan rest = [SLOTS] of {byte};
bool ended;

#define STORE(x) if :: atomic { x; stores++ } :: !ended -> ended = true; goto over fi

active proctype writer() {
  byte slot, old, key, version = 1;
  rest!0; rest!1; rest!2; rest!3;
  do
  :: version <= WRITES ->
     if :: key = 0 :: key = 1 fi;
     if
     :: rest?slot;
        STORE(gen[slot]++);
        STORE(owner[slot] = key);
        STORE(low[slot] = version);
        STORE(high[slot] = version);
        STORE(gen[slot]++);
        old = index[key];
        STORE(index[key] = slot; published[key] = version);
        if :: old != NONE -> rest!old :: else fi
     :: index[key] != NONE ->
        old = index[key];
        STORE(index[key] = NONE; published[key] = 0);
        rest!old
     fi;
     version++
  :: else -> break
  od;
over: skip
}

active proctype reader() {
  byte entry, before, who, one, two, floor, started;
  byte reads;
  do
  :: reads < 2 ->
     reads++;
     floor = published[0];
     started = stores;
again:
     entry = index[0];
     if
     :: entry == NONE -> goto next
     :: else
     fi;
     before = gen[entry];
     if
     :: before % 2 == 1 ->
        /* only a recycled slot is odd: the entry has changed, or the writer got here twice */
        assert(stores != started);
        started = stores;
        goto again
     :: else
     fi;
     who = owner[entry];
     one = low[entry];
     two = high[entry];
     if
     :: gen[entry] != before ->
        assert(stores != started);
        started = stores;
        goto again
     :: else
     fi;
     /* a recycled slot may be complete and not published yet */
     if
     :: index[0] != entry -> assert(stores != started); started = stores; goto again
     :: else
     fi;
     if
     :: who != 0 ->
        assert(index[0] != entry || stores != started);
        started = stores;
        goto again
     :: else
     fi;
     assert(one == two);
     assert(one >= floor);
     assert(published[0] == 0 || one <= published[0]);
next: skip
  :: else -> break
  od;
  /* whatever became of the writer, what is published is whole */
  if
  :: d_step { ended && index[0] != NONE ->
       assert(gen[index[0]] % 2 == 0 && owner[index[0]] == 0 && low[index[0]] == high[index[0]]) }
  :: else
  fi
}
