// Refuses memory to the program it is loaded into, counted from the entry of its `main`.
//
// REFUSE_AT=n: the n-th request is refused. REFUSE_FROM=n: that and all later ones. REFUSE_BYTES=n:
// each for exactly n bytes. REFUSE_ONLY=m: requests of other kinds neither count nor are refused; m
// is a letter, m for memory, t for threads. REFUSE_MARK=file: made by the first refusal.
// REFUSE_SIZES=file: gets the bytes that each posix_memalign asks for, eight bytes each, refused or
// not. A request is a call of one of the allocation functions, of mmap, or the start of a thread,
// which takes a stack. What the C library maps for its own store of memory doesn't come by here.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);

typedef int Main(int, char**, char**);

static Main* program;
static void* (*real_mmap)(void*, size_t, int, int, int, off_t);
static int (*real_pthread_create)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

static atomic_int counting;
static atomic_long count;
static long at, from, bytes;
static char only;
static const char* mark;
static int sizes = -1;

static long number(const char* name) {
  const char* text = getenv(name);
  return text ? atol(text) : 0;
}

static int refused(char kind, size_t size) {
  if (!counting || (only && kind != only)) return 0;
  const long place = atomic_fetch_add(&count, 1) + 1;
  const int sized = bytes > 0 && size == (size_t)bytes;
  if (!sized && place != at && (from == 0 || place < from)) return 0;
  // By the system calls themselves: nothing here may ask for memory.
  if (mark) syscall(SYS_close, syscall(SYS_openat, AT_FDCWD, mark, O_CREAT | O_WRONLY, 0600));
  errno = ENOMEM;
  return 1;
}

void* malloc(size_t size) { return refused('m', size) ? NULL : __libc_malloc(size); }
void* calloc(size_t n, size_t size) {
  return refused('m', n * size) ? NULL : __libc_calloc(n, size);
}
void* realloc(void* old, size_t size) {
  return refused('m', size) ? NULL : __libc_realloc(old, size);
}
void* memalign(size_t align, size_t size) {
  return refused('m', size) ? NULL : __libc_memalign(align, size);
}
void* aligned_alloc(size_t align, size_t size) { return memalign(align, size); }

int posix_memalign(void** target, size_t align, size_t size) {
  if (counting && sizes >= 0) syscall(SYS_write, sizes, &size, sizeof size);
  void* memory = memalign(align, size);
  if (memory) *target = memory;
  return memory ? 0 : ENOMEM;
}

void* mmap(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  if (refused('m', size)) return MAP_FAILED;
  if (!real_mmap) real_mmap = dlsym(RTLD_NEXT, "mmap");
  return real_mmap(address, size, protection, flags, file, offset);
}

void* mmap64(void* address, size_t size, int protection, int flags, int file, off_t offset) {
  return mmap(address, size, protection, flags, file, offset);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  if (!real_pthread_create) real_pthread_create = dlsym(RTLD_NEXT, "pthread_create");
  return refused('t', 0) ? EAGAIN : real_pthread_create(thread, attributes, start, argument);
}

static int counted_main(int argc, char** argv, char** environment) {
  counting = 1;
  return program(argc, argv, environment);
}

int __libc_start_main(Main* entry, int argc, char** argv, void (*init)(void), void (*fini)(void),
                      void (*loader_fini)(void), void* stack_end) {
  int (*real)(Main*, int, char**, void (*)(void), void (*)(void), void (*)(void), void*) =
      dlsym(RTLD_NEXT, "__libc_start_main");
  real_mmap = dlsym(RTLD_NEXT, "mmap");
  real_pthread_create = dlsym(RTLD_NEXT, "pthread_create");
  at = number("REFUSE_AT");
  from = number("REFUSE_FROM");
  bytes = number("REFUSE_BYTES");
  only = getenv("REFUSE_ONLY") ? *getenv("REFUSE_ONLY") : 0;
  mark = getenv("REFUSE_MARK");
  const char* file = getenv("REFUSE_SIZES");
  if (file) sizes = open(file, O_CREAT | O_APPEND | O_WRONLY | O_CLOEXEC, 0600);
  program = entry;
  return real(counted_main, argc, argv, init, fini, loader_fini, stack_end);
}
