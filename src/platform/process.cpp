#include "platform/process.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <string>

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

}  // namespace

std::int64_t PLATFORM_CLOCKCOUNT() { return Clock::now().time_since_epoch().count(); }

std::int64_t PLATFORM_CLOCKRATE() { return Clock::period::den / Clock::period::num; }

bool PLATFORM_ENTERDIRECTORY(std::string_view directory) {
  return ::chdir(std::string(directory).c_str()) == 0;
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
