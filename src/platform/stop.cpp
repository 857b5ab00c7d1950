#include "platform/stop.hpp"

#include <sys/uio.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <iterator>

#include "platform/leave.hpp"

namespace {

iovec Part(std::string_view text) { return {const_cast<char*>(text.data()), text.size()}; }

}  // namespace

void PLATFORM_STOP(int code, std::string_view why) {
  char number[16];
  const char* end = std::to_chars(std::begin(number), std::end(number), code).ptr;
  const iovec parts[] = {Part({number, static_cast<std::size_t>(end - number)}), Part(": "),
                         Part(why), Part("\n")};
  // A failure here has nowhere to be told.
  [[maybe_unused]] const auto written =
      ::writev(STDERR_FILENO, parts, static_cast<int>(std::size(parts)));
  PLATFORM_LEAVE(code & StopStatusMask);
}
