// What else the operating system and the processor give: clock, directory, floating-point mode.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Monotonic clock: a count, and how many counts make a second.
std::int64_t PLATFORM_CLOCKCOUNT();
std::int64_t PLATFORM_CLOCKRATE();

// What the system says to an error number.
std::string PLATFORM_REASON(int number);

// False when the directory can't be entered, and why.
bool PLATFORM_ENTERDIRECTORY(std::string_view directory, std::string& reason);

// The working directory's lock. It ends with its descriptor, and so with the process, however that
// ends; nothing of it is left in the directory.
struct DirectoryLock {
  enum class State {
    Held,
    HeldByOther,
    None,  // a file system without locks, or a directory that may not be read
    Failed,
  };
  State state = State::Failed;
  int descriptor = -1;       // of a lock that is held
  std::int64_t otherId = 0;  // process that holds it, 0 if that isn't known
  std::string reason;        // of a failure
};

// Asks for the lock, without waiting.
DirectoryLock PLATFORM_LOCKDIRECTORY();

// Lets a failed write come back as a failure: a reader that went away and a file size limit would
// otherwise end the process by a signal. Fills the standard descriptors where the starter closed
// them, so that no file of the run takes their place and receives what libraries print there.
void PLATFORM_GUARDSTREAMS();

// Threads of the largest team that the program works with, whatever the options say: what its loops
// are tuned for, and the size of what is kept per thread.
inline constexpr int LargestTeam = 16;

// Flush-to-zero and denormals-are-zero for the calling thread. Threads started later inherit it
// where the system copies the control register; the thread set-up sets it for each all the same.
void PLATFORM_FLUSHTOZERO();
