// How many threads there can be.
#pragma once

inline constexpr int MostThreads = 1024;

// Of `wanted` threads beside the caller's, the number that can be started now: limits of the user
// and of the control group, and memory for stacks. Asked before a run-time starts its team, since
// it ends the process where a thread can't be had. No more than MostThreads are tried,
// and none where no limit is near.
int PLATFORM_STARTABLETHREADS(int wanted);
