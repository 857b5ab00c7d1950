// Kills the process it is loaded into at a chosen file operation, for restart tests.
//
// KILL_AT=n: the n-th operation on a file of the working directory (one opened by a relative name)
// doesn't happen, the process is killed instead. Opening, writing, syncing, closing, renaming and
// removing count. KILL_WITHIN=n: the n-th write puts half of its bytes down, then the process is
// killed.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <unistd.h>

enum { MAX_FILES = 4096 };
static atomic_int operations, writes;
static atomic_char counted[MAX_FILES];  // by file descriptor

static int chosen(const char* name) {
  const char* text = getenv(name);
  return text ? atoi(text) : 0;
}

static void die(void) {
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

static void operation(void) {
  if (atomic_fetch_add(&operations, 1) + 1 == chosen("KILL_AT")) die();
}

static int is_counted(int file) { return file >= 0 && file < MAX_FILES && counted[file]; }

static int open_by(const char* symbol, const char* path, int flags, mode_t mode) {
  int (*real)(const char*, int, ...) = dlsym(RTLD_NEXT, symbol);
  const int mine = path[0] != '/';
  if (mine) operation();
  const int file = real(path, flags, mode);
  if (file >= 0 && file < MAX_FILES) counted[file] = (char)mine;
  return file;
}

int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return open_by("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return open_by("open64", path, flags, mode);
}

ssize_t write(int file, const void* bytes, size_t size) {
  ssize_t (*real)(int, const void*, size_t) = dlsym(RTLD_NEXT, "write");
  if (!is_counted(file)) return real(file, bytes, size);
  operation();
  if (atomic_fetch_add(&writes, 1) + 1 == chosen("KILL_WITHIN")) {
    real(file, bytes, size / 2);
    die();
  }
  return real(file, bytes, size);
}

static int on_file(const char* symbol, int file) {
  int (*real)(int) = dlsym(RTLD_NEXT, symbol);
  if (is_counted(file)) operation();
  return real(file);
}

int fsync(int file) { return on_file("fsync", file); }
int fdatasync(int file) { return on_file("fdatasync", file); }
int close(int file) { return on_file("close", file); }

int rename(const char* from, const char* to) {
  int (*real)(const char*, const char*) = dlsym(RTLD_NEXT, "rename");
  operation();
  return real(from, to);
}

int unlink(const char* path) {
  int (*real)(const char*) = dlsym(RTLD_NEXT, "unlink");
  if (path[0] != '/') operation();
  return real(path);
}
