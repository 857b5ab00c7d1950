#include "platform/stop.hpp"

#include <unistd.h>

#include <string>

#ifdef VK_COVERAGE
extern "C" void __gcov_dump(void);
#endif

void PLATFORM_STOP(int code, std::string_view why) {
  const std::string line = std::to_string(code) + ": " + std::string(why) + "\n";
  // A failure here has nowhere to be told.
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
#ifdef VK_COVERAGE
  __gcov_dump();
#endif
  ::_exit(code & StopStatusMask);
}
