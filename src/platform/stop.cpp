#include "platform/stop.hpp"

#include <unistd.h>

#include <string>

#ifdef VK_COVERAGE
#include <sys/resource.h>

extern "C" void __gcov_dump(void);

namespace {

// The counts are not the run's own files: a limit on their size that the starter set doesn't hold
// for them, as far as it can be lifted.
void WriteCounts() {
  rlimit limit = {};
  if (::getrlimit(RLIMIT_FSIZE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  __gcov_dump();
}

}  // namespace
#endif

void PLATFORM_STOP(int code, std::string_view why) {
  const std::string line = std::to_string(code) + ": " + std::string(why) + "\n";
  // A failure here has nowhere to be told.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
#ifdef VK_COVERAGE
  WriteCounts();
#endif
  ::_exit(code & StopStatusMask);
}
