#include "support/close_fault.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

int FailingClose = 0;

// Takes the place of the library's for the whole test program. The descriptor is freed either way.
extern "C" int close(int descriptor) {
  const auto result = static_cast<int>(::syscall(SYS_close, descriptor));
  if (FailingClose == 0 || --FailingClose != 0) return result;
  errno = EIO;
  return -1;
}
