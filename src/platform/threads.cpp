#include "platform/threads.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

namespace {

// How long a thread waits awake, for who comes at once, before it sleeps. Both run-times would by
// default spin for milliseconds: where other programs take the processors, a thread that spins
// keeps from its processor the one that it waits for.
#if defined(__clang__)
constexpr const char* WaitVariable = "KMP_BLOCKTIME";
constexpr const char* ShortWait = "0";  // milliseconds
constexpr const char* OthersThatCount[] = {"OMP_WAIT_POLICY", "KMP_LIBRARY"};

// The run-time notes itself in shared memory under the process's number, and ends the process where
// the note is there and isn't read as a dead one's. A process that was killed while it wrote leaves
// such a note to the next of its number. There is one run-time in this program: its own.
[[gnu::constructor(101)]] void IgnoreNotesOfTheDead() {
  ::setenv("KMP_DUPLICATE_LIB_OK", "TRUE", 0);
}
#else
constexpr const char* WaitVariable = "GOMP_SPINCOUNT";
constexpr const char* ShortWait = "1000";  // pauses: 10 to 50 microseconds
constexpr const char* OthersThatCount[] = {"OMP_WAIT_POLICY"};
#endif

// The user's own setting counts. Before the constructor in which GCC's run-time, which is linked
// statically for this, reads the environment; Clang's reads it at its first use. Where there is no
// memory for it, the run-time's own policy stays.
[[gnu::constructor(101)]] void SetWaitingPolicy() {
  const auto given = [](const char* name) { return std::getenv(name) != nullptr; };
  if (std::none_of(std::begin(OthersThatCount), std::end(OthersThatCount), given))
    ::setenv(WaitVariable, ShortWait, 0);
}

// Held while the threads are started, so that all of them exist at once.
pthread_mutex_t Gate = PTHREAD_MUTEX_INITIALIZER;

void* PassGate(void*) {
  ::pthread_mutex_lock(&Gate);
  ::pthread_mutex_unlock(&Gate);
  return nullptr;
}

bool Fits(rlim_t limit, std::int64_t used, int wanted) {
  return limit == RLIM_INFINITY || static_cast<std::int64_t>(limit) - used >= wanted;
}

// The number in a file of the control group; "max" and a missing file are no limit.
rlim_t NumberIn(const char* file) {
  char text[32] = {};
  const int descriptor = ::open(file, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return RLIM_INFINITY;
  const bool read = ::read(descriptor, text, sizeof text - 1) > 0;
  ::close(descriptor);
  return read && text[0] != 'm' ? std::strtoull(text, nullptr, 10) : RLIM_INFINITY;
}

// True where no limit is near. The threads of the whole system are at least those of the user.
bool NothingIsShort(int wanted) {
  rlimit addresses = {};
  rlimit threads = {};
  struct sysinfo system = {};
  if (::getrlimit(RLIMIT_AS, &addresses) != 0 || ::getrlimit(RLIMIT_NPROC, &threads) != 0 ||
      ::sysinfo(&system) != 0)
    return false;
  const rlim_t group = NumberIn("/sys/fs/cgroup/pids.max");
  if (group != RLIM_INFINITY &&
      !Fits(group, static_cast<std::int64_t>(NumberIn("/sys/fs/cgroup/pids.current")), wanted))
    return false;
  return addresses.rlim_cur == RLIM_INFINITY && Fits(threads.rlim_cur, system.procs, wanted);
}

}  // namespace

int PLATFORM_STARTABLETHREADS(int wanted) {
  wanted = std::min(wanted, MostThreads);
  if (NothingIsShort(wanted))
    return wanted;  // the trial would cost a small run a tenth of its time
  pthread_t threads[MostThreads];
  int started = 0;
  ::pthread_mutex_lock(&Gate);
  while (started < wanted && ::pthread_create(&threads[started], nullptr, PassGate, nullptr) == 0)
    ++started;
  ::pthread_mutex_unlock(&Gate);
  std::for_each_n(threads, started, [](pthread_t thread) { ::pthread_join(thread, nullptr); });
  return started;
}
