// A watch over calls of libraries that may never return: where memory runs out in one thread of a
// team, the others wait for it. A timer's signal looks once a second; no thread is needed.
#pragma once

#include <cstdint>

namespace WATCH {

enum class What {
  Nothing,
  Progress,  // a call may take any time, but not stand still
  Return,    // a call that returns at once, where it doesn't try for ever
};

// Looks are counted, not seconds: a process that is stopped or suspended misses none of its time.
inline std::int64_t LookNanoseconds = 1'000'000'000;
inline int MostLooks = 30;  // in a row that find no progress

}  // namespace WATCH

// Watches the calls that follow, on behalf of the whole process; answers what was watched before.
// One that is watched too long ends the process, told as one that nobody chose. Where the system
// has no timer left, nothing is watched. Called by one thread at a time.
WATCH::What PLATFORM_WATCH(WATCH::What what);
