/*
 * String lists, directory listings and running programs: the part of the appliance's core library
 * that services build on. Valid C and C++. No state, no locks: any thread may call, but a list
 * belongs to one thread at a time. No exception leaves these functions.
 */
#ifndef KELOCORE_H
#define KELOCORE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KELOCORE_API __attribute__((visibility("default")))

/* The one value that KLIBCFileEnumDir knows: regular files and links. */
#define KLIBC_ENUM_FILES_AND_LINKS 0x80

/*
 * The head of a list of strings. Callers read the count from here; everything after these two
 * fields is private, so a list is only ever made by KLIBCSzListAlloc.
 */
typedef struct KLIBCSzList {
  int32_t capacity; /* strings that fit before the list has to grow */
  int32_t count;    /* strings that it holds */
} KLIBCSzList;

/*
 * Makes an empty list with room for "size" strings; it grows as needed. Returns the list, which the
 * caller releases with KLIBCSzListFree, or null with errno EINVAL (negative size) or ENOMEM.
 */
KELOCORE_API KLIBCSzList* KLIBCSzListAlloc(int32_t size);

/*
 * Appends the names, without the directory, of the regular files and links in a directory, in
 * ascending byte order. A link counts whatever it points to, a directory or nothing at all
 * included; directories, pipes, sockets and devices do not count. "pattern" is null for all names,
 * or an fnmatch(3) pattern in which "*" and "?" match a leading period too. "flags" is
 * KLIBC_ENUM_FILES_AND_LINKS; any other value is refused.
 *
 * Returns the number of names appended, or -1 with errno set when the directory cannot be listed,
 * an argument is refused (EINVAL) or memory runs out (ENOMEM); then the list is as it was. On
 * success *list may be another list than before, and the earlier pointer is no longer valid.
 */
KELOCORE_API int KLIBCFileEnumDir(const char* directory, const char* pattern, KLIBCSzList** list,
                                  int flags);

/*
 * Returns the string at an index from 0 to count - 1, null for any other. The string is the list's,
 * and lives until the list is emptied or released.
 */
KELOCORE_API const char* KLIBCSzListGet(const KLIBCSzList* list, int32_t index);

/* Empties a list, which stays usable and keeps its room. Null is ignored. */
KELOCORE_API void KLIBCSzListRemoveAll(KLIBCSzList* list);

/* Releases a list and its strings. Null is ignored. */
KELOCORE_API void KLIBCSzListFree(KLIBCSzList* list);

/*
 * Runs the program at a path with up to four arguments, the first null one ending them, and waits
 * for its end. The program gets the caller's environment, working directory and descriptors 0 to 2,
 * no other descriptor, no blocked signal and default signal dispositions. A script needs its "#!"
 * line.
 *
 * Returns the program's exit status, or 128 + the number of the signal that ended it; errno is then
 * as it was before the call. When the program cannot be run the result is -1 and errno says why,
 * never 0. The same, with ECHILD, when it ran but its status is lost because the process ignores
 * SIGCHLD.
 */
KELOCORE_API int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
                           const char* arg4);

#ifdef __cplusplus
}
#endif

#endif
