/* SPDX-License-Identifier: Apache-2.0
 *
 * Waking a sleeping watcher: the writer announces a change and then looks at the bell and at the watcher's
 * page; the watcher rings, lies down and then looks at what was announced. The writer may end at any step,
 * before it ever met the watcher too; the kernel then closes its lock, which the watcher hears of once.
 *
 * Promises: the watcher never comes to rest beside a change that it has not read, one that was published
 * but not counted when the writer ended included; and nothing is sent while it is awake.
 */
#define CHANGES 3

byte begun, published, head;  /* changes written into the ring, published, counted */
byte handled;                 /* the newest published change that the watcher has read */
bool bell, asleep, met;
bool event;                   /* a wake-up is under way */
bool closed;                  /* the writer's end is under way to the watcher */
bool over;

active proctype writer() {
  do
  :: begun < CHANGES ->
     begun++;
     if :: true :: goto end fi;
     published++;
     if :: true :: goto end fi;
     head++;
     if :: true :: goto end fi;
     if :: bell && !met -> met = true; event = true :: else fi;
     if
     :: met && asleep -> asleep = false; if :: true :: goto end fi; event = true
     :: else
     fi
  :: begun == CHANGES -> break
  od;
end:
  atomic { closed = true; over = true }
}

active proctype watcher() {
  byte position;
  bool ended;
  bell = true;
look:
  asleep = false;
  event = false;
  if :: closed -> closed = false; ended = true :: else fi;
  do
  :: position != head -> position++; handled = published
  :: else -> break
  od;
  if :: ended && begun > head -> handled = published :: else fi;
  asleep = true;
  if :: position != head -> goto look :: else fi;
  if
  :: event || closed -> goto look
  :: over && !event && !closed -> assert(handled == published)
  fi
}
