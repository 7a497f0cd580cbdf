/*
 * Makes posix_spawn report why a program could not be started, in ARM programs under qemu.
 *
 * The C library learns that reason through memory that it shares with its child until the exec.
 * qemu's user mode has no such child: the reason is lost, and the program that was never started
 * seems to have ended with status 127. Here the reason comes back through a pipe that the exec
 * closes. /etc/ld.so.preload makes this library interpose the C library's functions, in the test
 * bed alone.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* The C library's own list is private to it, so the list is kept here as well. */
struct __spawn_action {
  enum { kClose, kDup2, kOpen, kChdir, kFchdir } kind;
  int descriptor;
  int other; /* kDup2: the one that is copied */
  int flags;
  mode_t mode;
  char* path;
};

/* List of actions */

int posix_spawn_file_actions_init(posix_spawn_file_actions_t* actions) {
  memset(actions, 0, sizeof *actions);
  return 0;
}

int posix_spawn_file_actions_destroy(posix_spawn_file_actions_t* actions) {
  for (int i = 0; i < actions->__used; ++i) {
    free(actions->__actions[i].path);
  }
  free(actions->__actions);
  return 0;
}

static int append(posix_spawn_file_actions_t* actions, struct __spawn_action action,
                  const char* path) {
  if (action.descriptor < 0) {
    return EBADF;
  }
  if (path != NULL && (action.path = strdup(path)) == NULL) {
    return ENOMEM;
  }
  const size_t count = (size_t)actions->__used + 1;
  struct __spawn_action* const grown = realloc(actions->__actions, count * sizeof *grown);
  if (grown == NULL) {
    free(action.path);
    return ENOMEM;
  }
  grown[actions->__used++] = action;
  actions->__actions = grown;
  return 0;
}

int posix_spawn_file_actions_addclose(posix_spawn_file_actions_t* actions, int descriptor) {
  const struct __spawn_action action = {.kind = kClose, .descriptor = descriptor};
  return append(actions, action, NULL);
}

int posix_spawn_file_actions_adddup2(posix_spawn_file_actions_t* actions, int from, int to) {
  const struct __spawn_action action = {.kind = kDup2, .descriptor = to, .other = from};
  return append(actions, action, NULL);
}

int posix_spawn_file_actions_addopen(posix_spawn_file_actions_t* restrict actions, int descriptor,
                                     const char* restrict path, int flags, mode_t mode) {
  const struct __spawn_action action = {
      .kind = kOpen, .descriptor = descriptor, .flags = flags, .mode = mode};
  return append(actions, action, path);
}

int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t* restrict actions,
                                         const char* restrict path) {
  const struct __spawn_action action = {.kind = kChdir};
  return append(actions, action, path);
}

int posix_spawn_file_actions_addfchdir_np(posix_spawn_file_actions_t* actions, int descriptor) {
  const struct __spawn_action action = {.kind = kFchdir, .descriptor = descriptor};
  return append(actions, action, NULL);
}

/* In the child */

static int keep_over_exec(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFD);
  return flags < 0 ? -1 : fcntl(descriptor, F_SETFD, flags & ~FD_CLOEXEC);
}

static int open_as(const struct __spawn_action* action) {
  const int opened = open(action->path, action->flags, action->mode);
  if (opened < 0 || opened == action->descriptor) {
    return opened;
  }
  const int result = dup2(opened, action->descriptor);
  close(opened);
  return result;
}

static int apply(const struct __spawn_action* action) {
  switch (action->kind) {
    case kClose:
      close(action->descriptor); /* one that is not open is no failure */
      return 0;
    case kDup2:
      return action->other == action->descriptor ? keep_over_exec(action->other)
                                                 : dup2(action->other, action->descriptor);
    case kOpen:
      return open_as(action);
    case kChdir:
      return chdir(action->path);
    case kFchdir:
      return fchdir(action->descriptor);
  }
  errno = EINVAL;
  return -1;
}

static int apply_all(const posix_spawn_file_actions_t* actions) {
  for (int i = 0; actions != NULL && i < actions->__used; ++i) {
    if (apply(&actions->__actions[i]) < 0) {
      return -1;
    }
  }
  return 0;
}

static void reset_signals(const posix_spawnattr_t* attributes) {
  sigset_t to_default;
  posix_spawnattr_getsigdefault(attributes, &to_default);
  for (int number = 1; number < NSIG; ++number) {
    if (sigismember(&to_default, number) == 1) {
      signal(number, SIG_DFL);
    }
  }
}

static int prepare(const posix_spawnattr_t* attributes, short flags) {
  if ((flags & POSIX_SPAWN_SETSIGDEF) != 0) {
    reset_signals(attributes);
  }
  if ((flags & POSIX_SPAWN_SETSID) != 0 && setsid() < 0) {
    return -1;
  }
  pid_t group = 0;
  if ((flags & POSIX_SPAWN_SETPGROUP) != 0 &&
      (posix_spawnattr_getpgroup(attributes, &group) != 0 || setpgid(0, group) != 0)) {
    return -1;
  }
  if ((flags & POSIX_SPAWN_RESETIDS) != 0 && (setgid(getgid()) != 0 || setuid(getuid()) != 0)) {
    return -1;
  }
  sigset_t mask;
  if ((flags & POSIX_SPAWN_SETSIGMASK) != 0) {
    posix_spawnattr_getsigmask(attributes, &mask);
    sigprocmask(SIG_SETMASK, &mask, NULL);
  }
  return 0;
}

/* In the parent */

/* No action may close the pipe, so its descriptor is higher than all that the actions name. */
static int beyond_all(const posix_spawn_file_actions_t* actions) {
  int highest = STDERR_FILENO;
  for (int i = 0; actions != NULL && i < actions->__used; ++i) {
    if (actions->__actions[i].descriptor > highest) {
      highest = actions->__actions[i].descriptor;
    }
  }
  return highest + 1;
}

static int open_pipe(int ends[2], int lowest) {
  int pipe_ends[2];
  if (pipe2(pipe_ends, O_CLOEXEC) != 0) {
    return errno;
  }
  ends[0] = pipe_ends[0];
  ends[1] = fcntl(pipe_ends[1], F_DUPFD_CLOEXEC, lowest);
  const int error = ends[1] < 0 ? errno : 0;
  close(pipe_ends[1]);
  if (error != 0) {
    close(ends[0]);
  }
  return error;
}

/* The reason that the child sent, or 0 once its exec has closed the pipe. */
static int read_reason(int descriptor) {
  int reason = 0;
  ssize_t count;
  do {
    count = read(descriptor, &reason, sizeof reason);
  } while (count < 0 && errno == EINTR);
  return count == (ssize_t)sizeof reason ? reason : 0;
}

typedef int Execute(const char*, char* const[], char* const[]);

static int spawn(Execute* execute, pid_t* child, const char* path,
                 const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attributes,
                 char* const arguments[], char* const environment[]) {
  short flags = 0;
  if (attributes != NULL) {
    posix_spawnattr_getflags(attributes, &flags);
  }
  if ((flags & (POSIX_SPAWN_SETSCHEDULER | POSIX_SPAWN_SETSCHEDPARAM)) != 0) {
    return ENOTSUP;
  }

  int ends[2] = {-1, -1};
  int error = open_pipe(ends, beyond_all(actions));
  if (error != 0) {
    return error;
  }
  const pid_t process = fork();
  if (process == 0) {
    if (prepare(attributes, flags) == 0 && apply_all(actions) == 0) {
      execute(path, arguments, environment);
    }
    error = errno;
    const ssize_t written = write(ends[1], &error, sizeof error);
    _exit(written == (ssize_t)sizeof error ? 127 : 126);
  }
  error = process < 0 ? errno : 0;
  close(ends[1]);
  if (error == 0) {
    error = read_reason(ends[0]);
    if (error != 0) {
      waitpid(process, NULL, 0);
    } else if (child != NULL) {
      *child = process;
    }
  }
  close(ends[0]);
  return error;
}

int posix_spawn(pid_t* restrict child, const char* restrict path,
                const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* restrict attributes, char* const arguments[restrict],
                char* const environment[restrict]) {
  return spawn(execve, child, path, actions, attributes, arguments, environment);
}

int posix_spawnp(pid_t* restrict child, const char* restrict file,
                 const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* restrict attributes, char* const arguments[restrict],
                 char* const environment[restrict]) {
  return spawn(execvpe, child, file, actions, attributes, arguments, environment);
}
