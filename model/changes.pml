/* The protocol of changes that can be taken back, for two services: what each step writes, and what of it
 * is on the disk. Between any two steps the process may be killed or the machine may lose its power, and
 * then again. scripts/model has Spin explore all of it.
 *
 * One process is enough: whoever writes has the lock, and who has none writes nothing. Left out is what
 * decides nothing about what is written when: the text of files, templates, trust. A level is a bit.
 *
 * CUTS, FAILURES, CHANGES: how many kills and power cuts, reloaders that fail, and changes there are.
 * Without a step, for scripts/model --prove: WITHOUT_FORMER, WITHOUT_DISK, WITHOUT_UNDO.
 */

/* What pending.json says, and what the history says of the change. */
#define NONE 0
#define PREPARED 1
#define WAITING 2
#define CONFIRMED 3
#define TAKING_BACK 4
#define FAILED 5
#define CLOSED 0
#define OPEN 1
#define IS_WAITING 2
#define IS_CONFIRMED 3
#define IS_TAKING_BACK 4
#define NOT_TAKEN_BACK 5
#define TAKEN_BACK 6
#define DONE 7
#define UNDONE 8

/* The data store, pending.json and the history are on the disk once they are written. A rendered file is
 * not waited for: a power cut may leave the one before. What a server has is gone with the machine. */
bit store[2], rendered[2], rendered_on_disk[2], serving[2];
byte pending = NONE, record = CLOSED;
bit former[2];      /* in pending.json */
bit is_other_start; /* the name of this start is not the one in pending.json */

/* What is held to be right: the levels before the change, and those that it is to bring. */
bit base[2], goal[2];
bit origin[2], wish[2];  /* the same, whatever has become of the change since */
bit is_late, is_given_up, may_lag, waits, service;
byte cuts = CUTS, failures = FAILURES, changes = CHANGES;

#define IS(what, levels)  (what[0] == levels[0] && what[1] == levels[1])
#define COPY(to, from)  to[0] = from[0]; to[1] = from[1]
#define EACH(what)  service = 0; what; service = 1; what

/* One step, and what may come behind it. */
#define STEP(action)  atomic { action; }; \
  if :: cuts > 0 -> cuts--; goto killed :: cuts > 0 -> cuts--; goto power_cut :: true fi

#define RENDER(level)  rendered[service] = level
#define RELOAD  serving[service] = rendered[service]

active proctype machine() {
  bit is_restored = 1;

idle:
  atomic {
    if
    :: pending == NONE && !is_given_up ->
       assert(IS(store, base));
       assert(may_lag || (IS(rendered, base) && IS(serving, base)))
    :: pending == WAITING && !is_other_start ->
       assert((record == IS_WAITING || record == IS_TAKING_BACK) && IS(store, goal) && IS(rendered, goal) && IS(serving, goal));
       assert(IS(rendered_on_disk, goal))
    :: else -> skip
    fi
  };
  if
  :: pending == NONE && record == OPEN -> STEP(record = UNDONE); goto idle  /* whoever writes next */
  :: pending == NONE && record != OPEN && !is_given_up && changes > 0 -> changes--; waits = 1; goto change
  :: pending == NONE && record != OPEN && !is_given_up && changes > 0 -> changes--; waits = 0; goto change
  :: pending == WAITING && !is_late && !is_other_start -> goto confirm
  :: pending == WAITING && !is_late -> is_late = 1; goto idle
  :: pending == WAITING -> goto take_back  /* revert */
  :: pending != NONE -> goto settle
  :: pending == FAILED -> goto give_up
  :: cuts > 0 -> cuts--; goto power_cut
  :: pending == NONE && record != OPEN && (is_given_up || changes == 0) -> goto done
  fi;

change:  /* set, undo: of one service or of both */
  atomic {
    COPY(former, base);
    if
    :: goal[0] = !base[0]; goal[1] = base[1]
    :: goal[0] = base[0]; goal[1] = !base[1]
    :: goal[0] = !base[0]; goal[1] = !base[1]
    fi;
    COPY(origin, base); COPY(wish, goal);
    is_late = 0
  };
  STEP(skip);  /* nothing is written yet */
  STEP(record = OPEN);
#ifndef WITHOUT_FORMER
  STEP(pending = PREPARED; is_other_start = 0);
#endif
  STEP(COPY(store, goal));
  EACH(STEP(RENDER(goal[service])));
  EACH(
    if
    :: failures > 0 && goal[service] != base[service] -> failures--; goal[service] = base[service];
       STEP(COPY(store, goal)); STEP(RENDER(base[service])); STEP(RELOAD)
    :: true -> STEP(RELOAD)
    fi);
  if
  :: IS(goal, base) ->
     STEP(record = UNDONE)
  :: !IS(goal, base) && waits ->
#ifndef WITHOUT_DISK
     STEP(COPY(rendered_on_disk, rendered));
#endif
     STEP(record = IS_WAITING);
     STEP(pending = WAITING);
     goto idle
  :: else ->
     STEP(pending = CONFIRMED; COPY(base, goal); may_lag = 1);
     STEP(record = DONE)
  fi;
  STEP(pending = NONE);
  goto idle;

confirm:
  STEP(pending = CONFIRMED; COPY(base, goal));
  STEP(record = IS_CONFIRMED);
  STEP(pending = NONE);
  goto idle;

settle:
  if
  :: pending == CONFIRMED ->
     STEP(record = (record == OPEN -> DONE : IS_CONFIRMED));
     STEP(pending = NONE);
     goto idle
  :: pending == WAITING && !is_late && !is_other_start -> goto idle
  :: else -> skip
  fi;
take_back:
  is_restored = 1;
  STEP(record = IS_TAKING_BACK);
  STEP(pending = TAKING_BACK);
#ifndef WITHOUT_UNDO
  STEP(COPY(store, former));
#endif
  EACH(STEP(RENDER(former[service]); rendered_on_disk[service] = former[service]));
  EACH(
    if
    :: failures > 0 && serving[service] != rendered[service] -> failures--; is_restored = 0
    :: true -> STEP(RELOAD)
    fi);
  if
  :: !is_restored ->
     STEP(pending = FAILED);
     STEP(record = NOT_TAKEN_BACK);
     goto idle
  :: else -> skip
  fi;
  STEP(record = TAKEN_BACK);
  STEP(pending = NONE);
  goto idle;

give_up:
  STEP(record = NOT_TAKEN_BACK);
  STEP(is_given_up = 1; pending = NONE);
  goto idle;

killed:  /* what is left, as seen from before the change: each once */
  c_code {
    static unsigned char seen[1 << 16];
    const int left = ((now.wish[0] ^ now.origin[0]) << 7) | ((now.wish[1] ^ now.origin[1]) << 6) |
                     ((now.store[0] ^ now.origin[0]) << 5) | ((now.store[1] ^ now.origin[1]) << 4) |
                     ((now.rendered[0] ^ now.origin[0]) << 3) | ((now.rendered[1] ^ now.origin[1]) << 2) |
                     ((now.serving[0] ^ now.origin[0]) << 1) | (now.serving[1] ^ now.origin[1]);
    const int key = ((now.pending & 15) << 12 | (now.record & 15) << 8 | left) & 0xffff;
    if (!seen[key]) {
      seen[key] = 1;
      printf("left %d %d %02x\n", now.pending, now.record, left);
    }
  };
  goto idle;

power_cut:  /* of what was not waited for, each may be there or not */
  atomic {
    EACH(if :: RENDER(rendered_on_disk[service]) :: rendered_on_disk[service] = rendered[service] fi);
    EACH(RELOAD);  /* servers start with what they find, after settle --before-services */
    is_other_start = 1
  };
  goto idle;

done:
  assert(record != OPEN && record != IS_WAITING && record != IS_TAKING_BACK)
}
