// Steps in at the file operations of the process it is loaded into, for tests of what is left when
// one of them is the last, or fails.
//
// The operations count from 1: those on names that don't begin with a slash, and on files that were
// opened by such a name. Of the environment:
//   KILL_AT=n      the n-th of those that may change something (not: looking, reading, locking)
//                  doesn't happen, the process is killed instead
//   KILL_WITHIN=n  the n-th write puts half of its bytes down, then the process is killed
//   STOP_AT=n      the n-th waits until the process is told to go on
//   FAULT_AT=n     the n-th fails; FAULT_FROM=n: it and all behind it
//   FAULT_CALL=c   all of this call fail; FAULT_NAME=n: only those on this name
//   FAULT_WITH=e   the error number; 0 for reads and writes of half of the bytes, once or always
//   RECORD=path    all are written down there, see `record`
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { MAX_FILES = 4096, NAME_SIZE = 256 };
static int operations, changes, writes;
static char names[MAX_FILES][NAME_SIZE];  // by file descriptor; empty for files that don't count
static void* folder;                      // the one that is being listed

#define NEXT(result, symbol, ...) ((result(*)(__VA_ARGS__))dlsym(RTLD_NEXT, symbol))

static int chosen(const char* name) {
  const char* text = getenv(name);
  return text ? atoi(text) : -1;
}

static void die(void) {
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

// A line of CALL, descriptor, name, other name, size, 1 if it was done and 0 if it failed, with
// tabs between; behind that of a write its bytes and a line end.
static void record(const char* call, int file, const char* name, const char* other, long size,
                   const void* bytes, int done) {
  static int target = -1;
  if (!getenv("RECORD")) return;
  if (target < 0)
    target = (int)syscall(SYS_openat, AT_FDCWD, getenv("RECORD"), O_WRONLY | O_CREAT | O_APPEND, 0600);
  char line[4 * NAME_SIZE];
  const int length = snprintf(line, sizeof line, "%s\t%d\t%s\t%s\t%ld\t%d\n", call, file, name,
                              other, size, done);
  syscall(SYS_write, target, line, length);
  if (!bytes) return;
  syscall(SYS_write, target, bytes, size);
  syscall(SYS_write, target, "\n", 1);
}

static int is_among_the_failing(const char* call, const char* name) {
  const char* wanted_call = getenv("FAULT_CALL");
  const char* wanted_name = getenv("FAULT_NAME");
  if (wanted_call || wanted_name)
    return (!wanted_call || strcmp(call, wanted_call) == 0) &&
           (!wanted_name || strcmp(name, wanted_name) == 0);
  return operations == chosen("FAULT_AT") ||
         (chosen("FAULT_FROM") > 0 && operations >= chosen("FAULT_FROM"));
}

static int may_change(const char* call) {
  static const char* const others[] = {"chdir", "flock",    "stat",    "lstat",  "fstat",
                                       "stat64", "lstat64", "fstat64", "access", "readlink",
                                       "read",   "opendir", "readdir"};
  for (size_t i = 0; i < sizeof others / sizeof *others; ++i)
    if (strcmp(call, others[i]) == 0) return 0;
  return 1;
}

// Counts an operation. The error number that it has to fail with; 0 if it has to be done by half;
// otherwise -1.
static int step(const char* call, const char* name) {
  ++operations;
  if (may_change(call) && ++changes == chosen("KILL_AT")) die();
  if (operations == chosen("STOP_AT")) raise(SIGSTOP);
  return is_among_the_failing(call, name) ? chosen("FAULT_WITH") : -1;
}

static int refuse(int number, const char* call, int file, const char* name) {
  record(call, file, name, "", 0, NULL, 0);
  errno = number;
  return -1;
}

static const char* name_of(int file) {
  return file >= 0 && file < MAX_FILES && names[file][0] ? names[file] : NULL;
}

static int is_counted(const char* path) { return path[0] != '/'; }

static int open_by(const char* symbol, const char* path, int flags, mode_t mode) {
  if (is_counted(path)) {
    const int fault = step("open", path);
    if (fault > 0) return refuse(fault, "open", -1, path);
  }
  const int file = NEXT(int, symbol, const char*, int, ...)(path, flags, mode);
  if (file >= 0 && file < MAX_FILES) names[file][0] = 0;
  if (!is_counted(path)) return file;
  if (file >= 0 && file < MAX_FILES) snprintf(names[file], NAME_SIZE, "%s", path);
  const int old = errno;
  record("open", file, path, flags & O_EXCL ? "new" : flags & O_TRUNC ? "empty" : "", 0, NULL,
         file >= 0);
  errno = old;
  return file;
}

static mode_t mode_behind(int flags, va_list rest) {
  return flags & O_CREAT ? va_arg(rest, mode_t) : 0;
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = mode_behind(flags, rest);
  va_end(rest);
  return open_by("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = mode_behind(flags, rest);
  va_end(rest);
  return open_by("open64", path, flags, mode);
}

ssize_t write(int file, const void* bytes, size_t size) {
  ssize_t (*real)(int, const void*, size_t) = NEXT(ssize_t, "write", int, const void*, size_t);
  const char* name = name_of(file);
  if (!name) return real(file, bytes, size);
  const int fault = step("write", name);
  if (++writes == chosen("KILL_WITHIN")) {
    real(file, bytes, size / 2);
    die();
  }
  if (fault > 0) return refuse(fault, "write", file, name);
  const ssize_t done = real(file, bytes, fault == 0 && size > 1 ? size / 2 : size);
  const int old = errno;
  record("write", file, name, "", done, done >= 0 ? bytes : NULL, done >= 0);
  errno = old;
  return done;
}

ssize_t read(int file, void* bytes, size_t size) {
  ssize_t (*real)(int, void*, size_t) = NEXT(ssize_t, "read", int, void*, size_t);
  const char* name = name_of(file);
  if (!name) return real(file, bytes, size);
  const int fault = step("read", name);
  if (fault > 0) return refuse(fault, "read", file, name);
  record("read", file, name, "", (long)size, NULL, 1);
  return real(file, bytes, fault == 0 && size > 1 ? size / 2 : size);
}

// A file that can't be closed is closed all the same.
int close(int file) {
  int (*real)(int) = NEXT(int, "close", int);
  const char* name = name_of(file);
  if (!name) return real(file);
  const int fault = step("close", name);
  record("close", file, name, "", 0, NULL, fault <= 0);
  names[file][0] = 0;
  const int status = real(file);
  if (fault <= 0) return status;
  errno = fault;
  return -1;
}

// The others: what they work on, and whether that counts, is all that differs.
#define ON_FILE(call, parameters, arguments)                                         \
  int call parameters {                                                              \
    const char* name = name_of(file);                                                \
    if (name) {                                                                      \
      const int fault = step(#call, name);                                           \
      if (fault > 0) return refuse(fault, #call, file, name);                        \
    }                                                                                \
    const int status = ((int(*) parameters)dlsym(RTLD_NEXT, #call)) arguments;       \
    const int old = errno;                                                           \
    if (name) record(#call, file, name, "", 0, NULL, status >= 0);                   \
    errno = old;                                                                     \
    return status;                                                                   \
  }

ON_FILE(fsync, (int file), (file))
ON_FILE(fdatasync, (int file), (file))
ON_FILE(syncfs, (int file), (file))
ON_FILE(flock, (int file, int how), (file, how))
ON_FILE(fchown, (int file, uid_t owner, gid_t group), (file, owner, group))
ON_FILE(fchmod, (int file, mode_t mode), (file, mode))
ON_FILE(fstat, (int file, struct stat* info), (file, info))
ON_FILE(fstat64, (int file, struct stat64* info), (file, info))

#define ON_PATH(result, failed, call, counts, parameters, arguments)                 \
  result call parameters {                                                           \
    if (counts) {                                                                    \
      const int fault = step(#call, path);                                           \
      if (fault > 0) return refuse(fault, #call, -1, path), failed;                  \
    }                                                                                \
    const result status = ((result(*) parameters)dlsym(RTLD_NEXT, #call)) arguments; \
    const int old = errno;                                                           \
    if (counts) record(#call, -1, path, "", 0, NULL, status != failed);              \
    errno = old;                                                                     \
    return status;                                                                   \
  }

ON_PATH(int, -1, unlink, is_counted(path), (const char* path), (path))
ON_PATH(int, -1, access, is_counted(path), (const char* path, int how), (path, how))
ON_PATH(int, -1, stat, is_counted(path), (const char* path, struct stat* info), (path, info))
ON_PATH(int, -1, lstat, is_counted(path), (const char* path, struct stat* info), (path, info))
ON_PATH(int, -1, stat64, is_counted(path), (const char* path, struct stat64* info), (path, info))
ON_PATH(int, -1, lstat64, is_counted(path), (const char* path, struct stat64* info), (path, info))
ON_PATH(int, -1, chdir, 1, (const char* path), (path))
ON_PATH(ssize_t, -1, readlink, is_counted(path), (const char* path, char* text, size_t size),
        (path, text, size))

int rename(const char* path, const char* other) {
  const int fault = step("rename", path);
  if (fault > 0) return refuse(fault, "rename", -1, path);
  const int status = NEXT(int, "rename", const char*, const char*)(path, other);
  const int old = errno;
  record("rename", -1, path, other, 0, NULL, status == 0);
  errno = old;
  return status;
}

DIR* opendir(const char* path) {
  const int mine = is_counted(path);
  const int fault = mine ? step("opendir", path) : -1;
  if (fault > 0) return refuse(fault, "opendir", -1, path), NULL;
  DIR* opened = NEXT(DIR*, "opendir", const char*)(path);
  if (!mine) return opened;
  record("opendir", -1, path, "", 0, NULL, opened != NULL);
  return folder = opened;
}

static struct dirent* list_by(const char* symbol, DIR* listed) {
  const int fault = listed == folder ? step("readdir", ".") : -1;
  if (fault > 0) return refuse(fault, "readdir", -1, "."), NULL;
  if (listed == folder) record("readdir", -1, ".", "", 0, NULL, 1);
  return NEXT(struct dirent*, symbol, DIR*)(listed);
}

struct dirent* readdir(DIR* listed) { return list_by("readdir", listed); }
struct dirent64* readdir64(DIR* listed) {
  return (struct dirent64*)list_by("readdir64", listed);
}
