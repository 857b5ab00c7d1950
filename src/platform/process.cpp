#include "platform/process.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

#if defined(__x86_64__)
constexpr unsigned FlushMask = 0x8040;  // MXCSR bit 15 flush-to-zero, bit 6 denormals-are-zero
unsigned ControlRegister() { return _mm_getcsr(); }
void SetControlRegister(unsigned value) { _mm_setcsr(value); }
#elif defined(__aarch64__)
constexpr std::uint64_t FlushMask = std::uint64_t{1} << 24;  // FPCR.FZ does both
std::uint64_t ControlRegister() {
  std::uint64_t value = 0;
  __asm__ volatile("mrs %0, fpcr" : "=r"(value));
  return value;
}
void SetControlRegister(std::uint64_t value) { __asm__ volatile("msr fpcr, %0" : : "r"(value)); }
#else
#error "flush-to-zero is known for x86-64 and AArch64 only"
#endif

// What file systems answer that have no locks, or none for a directory.
bool HasNoLocks(int number) {
  return number == ENOLCK || number == ENOTSUP || number == EINVAL || number == EBADF ||
         number == ENOSYS || number == EACCES || number == EPERM;
}

// The process that the system's table of locks names for this file; 0 where it has no such line, or
// hides the process.
std::int64_t HolderOf(int descriptor) {
  struct stat info = {};
  if (::fstat(descriptor, &info) != 0) return 0;
  char file[64];  // as the table names it
  std::snprintf(file, sizeof file, "%02x:%02x:%" PRIu64, major(info.st_dev), minor(info.st_dev),
                std::uint64_t{info.st_ino});
  std::ifstream table("/proc/locks");
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string number, kind, how, access, place;
    std::int64_t process = 0;
    words >> number >> kind >> how >> access >> process >> place;
    if (kind == "FLOCK" && place == file) return process;
  }
  return 0;
}

}  // namespace

std::int64_t PLATFORM_CLOCKCOUNT() { return Clock::now().time_since_epoch().count(); }

std::int64_t PLATFORM_CLOCKRATE() { return Clock::period::den / Clock::period::num; }

std::string PLATFORM_REASON(int number) { return std::generic_category().message(number); }

bool PLATFORM_ENTERDIRECTORY(std::string_view directory, std::string& reason) {
  if (::chdir(std::string(directory).c_str()) == 0) return true;
  reason = PLATFORM_REASON(errno);
  return false;
}

DirectoryLock PLATFORM_LOCKDIRECTORY() {
  DirectoryLock lock;
  const int descriptor = ::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) == 0) {
    lock.state = DirectoryLock::State::Held;
    lock.descriptor = descriptor;
    return lock;
  }
  const int number = errno;
  if (number == EWOULDBLOCK) {
    lock.state = DirectoryLock::State::HeldByOther;
    lock.otherId = HolderOf(descriptor);
  } else if (descriptor < 0 ? number == EACCES : HasNoLocks(number)) {
    lock.state = DirectoryLock::State::None;
  } else {
    lock.reason = PLATFORM_REASON(number);
  }
  if (descriptor >= 0) ::close(descriptor);
  return lock;
}

void PLATFORM_GUARDSTREAMS() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  int descriptor = -1;
  do {
    descriptor = ::open("/dev/null", O_RDWR);  // takes the lowest free number
  } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
  if (descriptor >= 0) ::close(descriptor);
}

void PLATFORM_FLUSHTOZERO() { SetControlRegister(ControlRegister() | FlushMask); }
