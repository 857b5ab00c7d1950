// Memory for arrays that may be large.
#pragma once

#include <cstdint>

// `bytes` bytes, not cleared; null when they can't be had. Aligned to whole vector registers and,
// from a few megabytes on, to huge pages, which the system is then asked for: touching, reading
// into and gathering from such an array costs a fraction of what it does in small pages.
void* PLATFORM_ALLOCATE(std::int64_t bytes);
void PLATFORM_FREE(void* memory);

// Of a std::unique_ptr that owns such memory.
struct MemoryDeleter {
  void operator()(void* memory) const { PLATFORM_FREE(memory); }
};

// Bytes that the system can hand out without taking them from another program, within the limit of
// the process's control group; the largest number where it doesn't tell.
std::int64_t PLATFORM_AVAILABLEMEMORY();

// Where the process's address space is limited (ulimit -v), keeps the C library from reserving a
// store of 64 MB for each thread that allocates. Called before threads are started.
void PLATFORM_SPAREADDRESSES();

// True when that many bytes can be mapped now: the limits of the process (ulimit -v, ulimit -d)
// and, where the system promises no more than it has, its own. Callable from a signal handler.
bool PLATFORM_CANMAP(std::int64_t bytes);
