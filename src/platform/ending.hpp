// Ends that nobody chose. A library that meets a failed allocation calls exit, aborts, or follows a
// null pointer; each of these ends becomes a stop that is told in the log and on standard error.
// What runs in these ends may be a signal's handler in a thread that holds any lock: nothing here
// allocates, and no lock is waited for without a limit.
#pragma once

#include <cstdint>
#include <string_view>

namespace ENDING {

// What is told where memory ran out.
inline constexpr std::string_view NoMemory = "Error allocating arrays.";

// And of every other end.
inline constexpr std::string_view Unexpected = "Unexpected end of the run.";

// The run-times of these sanitizers tell of failed instructions themselves, and of leaks at exit.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool Sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
inline constexpr bool Sanitized = true;
#else
inline constexpr bool Sanitized = false;
#endif
#else
inline constexpr bool Sanitized = false;
#endif

}  // namespace ENDING

// From here on the process ends by PLATFORM_STOP or PLATFORM_END; any other end becomes a stop with
// 1010 after `postLast` has posted its text as the log's last line. False from `postLast`: it
// couldn't be written, and the stop is 1005. Handled are exit, std::terminate, a `new` that fails,
// SIGABRT and, unless a sanitizer wants them, the signals of a failed instruction. SIGINT as well
// if the process sends it to itself, as OpenBLAS does.
void PLATFORM_GUARDEND(bool (*postLast)(std::string_view text));

// The same for a thread of the team that has filled its stack, which its handlers then lack.
void PLATFORM_GUARDTHREAD();

// Such a stop, from any thread and from a signal's handler. The first thread that comes ends the
// process; others wait for it.
[[noreturn]] void PLATFORM_ENDUNEXPECTED(std::string_view text, std::string_view reason);

// The normal end, with status 0. No exit handler and no library's destructor runs, which could
// still fail or wait, except where a sanitizer looks for leaks then.
[[noreturn]] void PLATFORM_END();
