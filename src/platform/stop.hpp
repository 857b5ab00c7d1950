// The one way to end the process before its normal end.
#pragma once

#include <string_view>

// Exit statuses of the program. The operating system hands on their low 8 bits.
inline constexpr int StopArguments = 1001;  // wrong number of command-line arguments
inline constexpr int StopDirectory = 1004;  // the working directory can't be entered
inline constexpr int StopLog = 1005;        // the log can't be opened, written, flushed or closed
inline constexpr int StopError = 1010;      // an error was posted in the log

// Prints "CODE: WHY" as one line on standard error and ends the process at once with status `code`.
// Callable from any thread, parallel regions included: other threads are not waited for and no
// destructor runs, since they may still be using what it would destroy.
[[noreturn]] void PLATFORM_STOP(int code, std::string_view why);
