// The way to end the process before its normal end; platform/ending.hpp leads every other end here.
#pragma once

#include <string_view>

#include "platform/described.hpp"

// Exit statuses of the program. The operating system hands on their low 8 bits.
inline constexpr int StopArguments = 1001;
inline constexpr int StopDirectory = 1004;
inline constexpr int StopLog = 1005;
inline constexpr int StopError = 1010;
inline constexpr int StopStatusMask = 0xff;

inline constexpr NamedValue StopCodes[] = {
    {"arguments", StopArguments, "wrong number of command-line arguments"},
    {"directory", StopDirectory, "the working directory can't be entered"},
    {"log", StopLog,
     "the log can't be had, because another run holds the directory, or it can't be opened, "
     "written, "
     "flushed or closed"},
    {"error", StopError, "an error was posted in the log"},
};

// Prints "CODE: WHY" as one line on standard error and ends the process at once with status `code`.
// Callable from any thread, parallel regions and signal handlers included: nothing is allocated,
// other threads are not waited for and no destructor runs, since they may still be using what it
// would destroy.
[[noreturn]] void PLATFORM_STOP(int code, std::string_view why);
