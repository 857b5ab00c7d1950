#include "support/close_fault.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

int FailingClose = 0;

namespace {

// The OpenMP run-time of Clang opens and closes a file of its own when a forked test first uses it.
bool BelongsToOpenMp(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  char target[256];
  const auto length = ::readlink(link.c_str(), target, sizeof target);
  return length > 0 &&
         std::string_view(target, static_cast<std::size_t>(length)).find("__KMP_REGISTERED_LIB") !=
             std::string_view::npos;
}

}  // namespace

// Takes the place of the library's for the whole test program. The descriptor is freed either way.
extern "C" int close(int descriptor) {
  const bool counts = FailingClose != 0 && !BelongsToOpenMp(descriptor);
  const auto result = static_cast<int>(::syscall(SYS_close, descriptor));
  if (!counts || --FailingClose != 0) return result;
  errno = EIO;
  return -1;
}
