/* SPDX-License-Identifier: Apache-2.0
 *
 * Waking a sleeping watcher. The writer announces a change, then reads the count of registrations and the
 * watcher's flag; the watcher locks its slot, counts itself, and says that it sleeps before its last look at
 * the announcements. The writer may end at any step and another take over; the watcher hears of that by its
 * FIFO's hang-up, or from the table's directory when that writer had not met it. The watcher may give its
 * slot back and take it again.
 *
 * Promise: the watcher never comes to rest beside a change that it has not read, beside a writer that lives,
 * and one that was published but not counted when the last writer ended included. There is no look once a
 * second here: no wake-up depends on it.
 *
 * Each SWAP_... takes two steps in the wrong order, which must break the promise.
 */
#define CHANGES 3
#define WRITERS 2

byte begun, published, head;  /* changes written into the ring, published, counted */
byte handled;                 /* the newest published change that the watcher has read */
byte registrations;
bool locked, asleep;          /* the watcher's slot */
bool rung, hungUp;            /* its FIFO: holds a byte, lost its writer */
bool armed, closed;           /* the table's directory: watched, a writer's end is under way */
bool idle, over;              /* the writer rests, the last one has ended */

#define MAY_END if :: true :: goto end fi

/* The page begins with zeroes. */
inline findWatchers() {
  if :: registrations == 0 -> registrations = seen + 1 :: else fi;
#ifdef SWAP_FIND
  met = locked;
  seen = registrations
#else
  seen = registrations;
  met = locked
#endif
}

inline wake() {
#ifdef SWAP_WAKE
  rung = true;
  asleep = false
#else
  asleep = false;
  MAY_END;
  rung = true
#endif
}

inline ring() {
  if :: registrations != seen -> findWatchers() :: else fi;
  if :: met && asleep -> wake() :: else fi
}

active proctype writer() {
  byte seen, writers;
  bool met;
begin:
  writers++;
  seen = 0;
  met = false;
  if :: begun > head -> head = begun :: else fi;
  MAY_END;
  findWatchers();
  if :: met -> wake() :: else fi;
  do
  :: begun < CHANGES ->
     begun++;
     MAY_END;
     published++;
     MAY_END;
#ifdef SWAP_ANNOUNCE
     ring();
     head++
#else
     head++;
     MAY_END;
     ring()
#endif
  :: true -> break
  od;
  if :: idle = true; goto rest :: true fi;
end:
  atomic { hungUp = hungUp || met; closed = armed; over = writers == WRITERS };
  if :: !over -> goto begin :: else fi;
rest:
  skip
}

active proctype watcher() {
  byte position;
  bool ended = true;
  bool left;
  armed = true;
register:
#ifdef SWAP_REGISTER
  registrations++;
  locked = true;
#else
  locked = true;
  rung = false;
  asleep = false;
  registrations++;
#endif
look:
  asleep = false;
  rung = false;
  if :: hungUp -> hungUp = false; ended = true :: else fi;
  if :: closed -> closed = false; ended = true :: else fi;
  do
  :: position != head -> position++; handled = published
  :: else -> break
  od;
  if :: ended && begun > head -> handled = published :: else fi;
  ended = false;
#ifdef SWAP_SLEEP
  if :: position != head -> goto look :: else fi;
  asleep = true;
#else
  asleep = true;
  if :: position != head -> goto look :: else fi;
#endif
  if
  :: rung || hungUp || closed -> goto look
  :: !left ->
     left = true;
     asleep = false;
     locked = false;
     registrations++;
     hungUp = false;
     ended = true;
     goto register
  :: atomic { (idle || over) && !rung && !hungUp && !closed -> assert(handled == published) }
  fi
}
