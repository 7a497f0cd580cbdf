/* The protocol of changes of levels, for two services: what each step writes, and what of it is on the
 * disk. Between any two steps the process may be killed or the machine may lose its power, and then again.
 * scripts/model has Spin explore all of it.
 *
 * One process is enough: whoever writes has the lock, and who has none writes nothing. Left out is what
 * decides nothing about what is written when: the text of files, templates, trust. A level is a number,
 * and 1 the one that a first change brings; to join is to go from 0 to 1, to leave from 1 to 0.
 *
 * CUTS, FAILURES, CHANGES: how many kills and power cuts, reloaders that fail, and changes there are.
 * DATES: how many of the changes may bring a date.
 * Without a step, for scripts/model --prove: WITHOUT_FORMER, WITHOUT_DISK, WITHOUT_UNDO.
 */

/* What pending.json says, and what the history says of the last change. */
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

/* What is done with a change. */
#define PLAIN 0  /* nothing is kept to take it back */
#define STORED 1 /* taken back where it is interrupted; neither rendered nor reloaded: set --until */
#define APPLIED 2
#define CONFIRMABLE 3

/* The data store, pending.json, dates and the history are on the disk once they are written. A rendered
 * file is not waited for: a power cut may leave the one before. What a server has is gone with the machine. */
byte store[2], rendered[2], rendered_on_disk[2], serving[2];
byte pending = NONE, record = CLOSED;
byte first = CLOSED;  /* the record of the change that another has joined */
bit is_only_first;    /* pending.json names that record alone */
bit is_other_start;   /* the name of this start is not the one in pending.json */
/* The former state, in pending.json: of these services. */
bit kept[2], former_dated[2], first_kept[2];
byte former[2], former_rendered[2], former_then[2];
/* Dates: which services have one, what comes after it; that it has come is in there before it is begun. */
bit dated[2], is_returning;
byte then[2], record_of_return = CLOSED;

/* What is held to be right: the levels before the change, those that it is to bring, and those that the
 * one that it joins has brought. */
byte base[2], base_rendered[2], goal[2], start[2];
byte origin[2], origin_rendered[2], wish[2];  /* as the change began, whatever has become of it since */
bit acts[2];  /* which services the change is about */
bit is_late, is_given_up, may_lag[2], in_return, is_mixed, service, brings_date;
byte kind, cuts = CUTS, failures = FAILURES, changes = CHANGES, dates = DATES;

#define IS(what, levels)  (what[0] == levels[0] && what[1] == levels[1])
#define COPY(to, from)  to[0] = from[0]; to[1] = from[1]
#define EACH(what)  service = 0; what; service = 1; what
#define OTHER(level)  (level == 0 -> 1 : 0)

/* One step, and what may come behind it. */
#define STEP(action)  atomic { action; }; \
  if :: cuts > 0 -> cuts--; goto killed :: cuts > 0 -> cuts--; goto power_cut :: true fi

/* What was rendered before may have come to the disk meanwhile. */
#define RENDER(level) \
  if :: rendered_on_disk[service] = rendered[service] :: true fi; rendered[service] = level
#define RELOAD  serving[service] = rendered[service]
/* Each record that pending.json names, the first one first. */
#define MARK(result) \
  if :: first != CLOSED -> STEP(first = result) :: else fi; \
  if :: !is_only_first -> STEP(record = result) :: else fi
#define FORGET  first = CLOSED; is_only_first = 0; kept[0] = 0; kept[1] = 0

active proctype machine() {
  bit is_restored = 1;

  if  /* levels that were set, and are not applied yet */
  :: true
  :: true -> store[0] = 1; store[1] = 1; base[0] = 1; base[1] = 1
  fi;

idle:
  atomic {
    in_return = 0;
    if
    :: pending == NONE && !is_given_up && !is_returning && (record != OPEN || kind != PLAIN) ->
       assert(IS(store, base));
       EACH(assert(may_lag[service] ||
                   (rendered[service] == base_rendered[service] && serving[service] == base_rendered[service])))
    :: pending == WAITING && !is_other_start && !is_returning ->
       assert(record == IS_WAITING || record == IS_TAKING_BACK || first == IS_WAITING || first == IS_TAKING_BACK);
       assert(IS(store, goal));
       EACH(assert(may_lag[service] || (rendered[service] == goal[service] && serving[service] == goal[service] &&
                                      rendered_on_disk[service] == goal[service]) || !kept[service]))
    :: else -> skip
    fi
  };
  if
  :: pending == WAITING && record == OPEN && is_only_first -> STEP(record = UNDONE); goto idle
  :: pending == NONE && record == OPEN ->  /* whoever writes next */
     STEP(record = UNDONE; COPY(base, store); may_lag[0] = 1; may_lag[1] = 1);
     goto idle
  :: record_of_return == OPEN && !is_returning -> STEP(record_of_return = UNDONE); goto idle
  :: pending == NONE && record != OPEN && !is_returning && !is_given_up && changes > 0 ->
     changes--;
     if :: kind = PLAIN :: kind = STORED :: kind = APPLIED :: kind = CONFIRMABLE fi;
     goto change
  :: pending == WAITING && !is_late && !is_other_start && !is_returning && record == IS_WAITING && first == CLOSED &&
     changes > 0 ->
     changes--; kind = CONFIRMABLE;
     goto change
  :: pending == WAITING && record != OPEN && !is_late && !is_other_start -> goto confirm
  :: pending == WAITING && record != OPEN && !is_late -> is_late = 1; goto idle
  :: pending == WAITING && record != OPEN -> goto take_back  /* revert */
  :: pending != NONE && !(pending == WAITING && record == OPEN && is_only_first) -> goto settle
  :: pending == FAILED -> goto give_up
  :: (dated[0] || dated[1]) && record != OPEN &&
     (pending == NONE || (pending == WAITING && !is_late && !is_other_start)) -> goto return_levels
  :: cuts > 0 -> cuts--; goto power_cut
  :: pending == NONE && record != OPEN && !is_returning && record_of_return != OPEN &&
     (is_given_up || changes == 0) -> goto done
  fi;

change:  /* of one service or of both */
  atomic {
    if  /* what has been set is applied */
    :: pending == NONE && kind >= APPLIED && (store[0] != rendered[0] || store[1] != rendered[1]) ->
       acts[0] = 1; acts[1] = 1; COPY(wish, store)
    :: acts[0] = 1; acts[1] = 0
    :: acts[0] = 0; acts[1] = 1
    :: acts[0] = 1; acts[1] = 1
    fi;
    COPY(start, store);
    if
    :: pending == NONE -> COPY(origin, base); COPY(origin_rendered, rendered)
    :: else -> skip
    fi;
    EACH(
      if
      :: acts[service] && pending == NONE && store[service] == rendered[service] -> wish[service] = OTHER(store[service])
      :: acts[service] && pending == WAITING && start[service] != 2 -> wish[service] = 2
      :: else -> wish[service] = start[service]
      fi);
    brings_date = 0;
    if
    :: dates > 0 && kind != PLAIN && !dated[0] && !dated[1] && pending == NONE && !IS(wish, start) ->
       dates--; brings_date = 1
    :: kind != STORED -> skip
    :: else -> kind = PLAIN
    fi;
    is_mixed = 0
  };
  STEP(skip);  /* nothing is written yet */
  STEP(if :: pending == WAITING -> first = record; is_only_first = 1; COPY(first_kept, kept) :: else -> skip fi;
       record = OPEN; record_of_return = CLOSED);
#ifndef WITHOUT_FORMER
  if
  :: kind != PLAIN ->
     STEP(
       EACH(
         if
         :: acts[service] && !kept[service] ->
            kept[service] = 1; former[service] = store[service]; former_rendered[service] = rendered[service];
            former_dated[service] = dated[service]; former_then[service] = then[service]
         :: else -> skip
         fi);
       pending = PREPARED; is_only_first = 0; is_other_start = 0; is_late = 0; COPY(goal, wish))
  :: else -> COPY(goal, wish)
  fi;
#else
  COPY(goal, wish);
#endif
  if
  :: brings_date -> STEP(EACH(if :: goal[service] != start[service] ->
                                dated[service] = 1; then[service] = start[service] :: else -> skip fi))
  :: else -> skip
  fi;
  if :: !IS(store, goal) -> STEP(COPY(store, goal)) :: else -> skip fi;
  if
  :: kind != STORED ->
     EACH(if :: acts[service] -> STEP(RENDER(goal[service])) :: else -> skip fi);
     EACH(
       if
       :: acts[service] && failures > 0 && goal[service] != start[service] ->
          failures--; goal[service] = start[service];
          STEP(COPY(store, goal)); STEP(RENDER(start[service])); STEP(RELOAD)
       :: acts[service] -> STEP(RELOAD)
       :: else -> skip
       fi)
  :: else -> skip
  fi;
  /* Of a level that is set anew the date goes, and the one of a change that failed. */
  if
  :: (acts[0] && dated[0] && (!brings_date || goal[0] == start[0])) ||
     (acts[1] && dated[1] && (!brings_date || goal[1] == start[1])) ->
     STEP(EACH(if :: acts[service] && (!brings_date || goal[service] == start[service]) -> dated[service] = 0
                  :: else -> skip fi))
  :: else -> skip
  fi;
#ifndef WITHOUT_DISK
  if :: kind != PLAIN -> STEP(COPY(rendered_on_disk, rendered)) :: else -> skip fi;
#endif
  if
  :: IS(goal, start) && !IS(wish, start) && first != CLOSED ->  /* the one that it has joined waits on */
     STEP(pending = WAITING; is_only_first = 1; COPY(kept, first_kept);
          EACH(if :: acts[service] && !kept[service] -> may_lag[service] = 1 :: else -> skip fi));
     STEP(record = UNDONE);
     goto idle
  :: IS(goal, start) && !IS(wish, start) && first == CLOSED ->
     STEP(record = UNDONE;
          EACH(if :: acts[service] && kind == PLAIN -> may_lag[service] = 1 :: else -> skip fi))
  :: !(IS(goal, start) && !IS(wish, start)) && kind == CONFIRMABLE ->
     STEP(record = IS_WAITING);
     STEP(pending = WAITING);
     goto idle
  :: !(IS(goal, start) && !IS(wish, start)) && kind == PLAIN ->
     STEP(record = DONE; COPY(base, goal); EACH(if :: acts[service] -> may_lag[service] = 1 :: else -> skip fi))
  :: else ->
     STEP(pending = CONFIRMED; COPY(base, goal);
          EACH(if :: acts[service] && kind != STORED -> base_rendered[service] = goal[service] :: else -> skip fi));
     STEP(record = DONE)
  fi;
  if
  :: pending != NONE ->
     STEP(pending = NONE;
          EACH(if :: kept[service] && kind != STORED -> base_rendered[service] = goal[service] :: else -> skip fi);
          FORGET)
  :: else -> skip
  fi;
  goto idle;

confirm:
  STEP(pending = CONFIRMED; COPY(base, goal);
       EACH(if :: kept[service] && !may_lag[service] -> base_rendered[service] = goal[service] :: else -> skip fi));
  MARK(IS_CONFIRMED);
  STEP(pending = NONE; FORGET);
  goto idle;

settle:
  if
  :: pending == CONFIRMED ->
     if
     :: record == OPEN -> STEP(record = DONE)
     :: else -> MARK(IS_CONFIRMED)
     fi;
     STEP(pending = NONE; FORGET);
     goto idle
  :: pending == WAITING && !is_late && !is_other_start -> goto idle
  :: else -> skip
  fi;
take_back:
  is_restored = 1;
  MARK(IS_TAKING_BACK);
  STEP(pending = TAKING_BACK);
#ifndef WITHOUT_UNDO
  STEP(EACH(if :: kept[service] -> store[service] = former[service] :: else -> skip fi));
#endif
  EACH(if
       :: kept[service] -> STEP(RENDER(former_rendered[service]); rendered_on_disk[service] = former_rendered[service])
       :: else -> skip
       fi);
  STEP(is_returning = is_returning && ((dated[0] && !kept[0]) || (dated[1] && !kept[1]));
       EACH(if :: kept[service] -> dated[service] = former_dated[service]; then[service] = former_then[service]
               :: else -> skip fi));
  EACH(
    if
    :: kept[service] && failures > 0 && serving[service] != rendered[service] -> failures--; is_restored = 0
    :: kept[service] -> STEP(RELOAD)
    :: else -> skip
    fi);
  if
  :: !is_restored ->
     STEP(pending = FAILED);
     MARK(NOT_TAKEN_BACK);
     goto idle
  :: else -> skip
  fi;
  MARK(TAKEN_BACK);
  STEP(pending = NONE; FORGET);
  goto idle;

give_up:
  MARK(NOT_TAKEN_BACK);
  STEP(is_given_up = 1; pending = NONE; FORGET);
  goto idle;

return_levels:  /* every date comes at once */
  atomic {
    in_return = 1;
    is_mixed = (pending != NONE);
    if
    :: !is_returning -> COPY(origin, store); COPY(origin_rendered, rendered); COPY(wish, store);
       EACH(if :: dated[service] -> wish[service] = then[service] :: else -> skip fi)
    :: else -> skip
    fi
  };
  STEP(is_returning = 1);
  STEP(record_of_return = OPEN);
  STEP(EACH(
    if
    :: dated[service] ->
       store[service] = then[service];
       if
       :: pending != NONE && kept[service] -> goal[service] = then[service]
       :: else -> base[service] = then[service]; start[service] = then[service]; goal[service] = then[service]
       fi;
       may_lag[service] = 1
    :: else -> skip
    fi));
  EACH(if :: dated[service] -> STEP(RENDER(store[service])) :: else -> skip fi);
  EACH(if :: dated[service] -> STEP(RELOAD) :: else -> skip fi);
  STEP(dated[0] = 0; dated[1] = 0; is_returning = 0);
  STEP(record_of_return = DONE);
  goto idle;

killed:  /* what is left, as seen from before the change: each once */
  c_code {
    static unsigned char seen[1 << 22];
    if (!now.is_mixed) {
      char left[9];
      int place = 0, service = 0, key = now.pending * 16 + (now.in_return ? now.record_of_return : now.record);
      const int number = key;
      for (; service < 2; ++service, ++place) {
        left[place] = '0' + (now.wish[service] != now.origin[service] ||
                             (now.kind != STORED && now.wish[service] != now.origin_rendered[service] && now.acts[service]));
        key = key * 2 + left[place] - '0';
      }
      for (service = 0; service < 6; ++service, ++place) {
        const int who = service % 2, value = (service / 2 == 0 ? now.store : service / 2 == 1 ? now.rendered : now.serving)[who];
        const int old = service / 2 == 0 ? now.origin[who] : now.origin_rendered[who];
        left[place] = value == old ? '0' : value == now.wish[who] ? '1' : '2';
        key = key * 3 + left[place] - '0';
      }
      left[8] = 0;
      key &= (1 << 22) - 1;
      if (!seen[key]) {
        seen[key] = 1;
        printf("left %d %d %s\n", number / 16, number % 16, left);
      }
    }
  };
  goto idle;

power_cut:  /* of what was not waited for, each may be there or not */
  atomic {
    EACH(if :: rendered[service] = rendered_on_disk[service] :: rendered_on_disk[service] = rendered[service] fi);
    EACH(RELOAD);  /* servers start with what they find, after settle --before-services */
    is_other_start = 1
  };
  goto idle;

done:
  assert(record != OPEN && record != IS_WAITING && record != IS_TAKING_BACK);
  assert(first == CLOSED && record_of_return != OPEN)
}
