/*
 * A C caller between two C++ frames. Built twice: with -fexceptions, as server_context.h tells a
 * caller who wants exceptions to pass through, and without.
 */
#include <kelotls/server_context.h>

void CALLER_NAME(const char* service, int* unwound);

static void note_unwinding(int** unwound) { ++**unwound; }

/* Not inlined and not a tail call: the frame has to be there. */
__attribute__((noinline)) void CALLER_NAME(const char* service, int* unwound) {
  __attribute__((cleanup(note_unwinding))) int* noted = unwound;
  KELOTLS_release_context(KELOTLS_acquire_server_context(service));
  (void)noted;
}
