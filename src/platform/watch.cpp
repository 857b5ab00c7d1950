#include "platform/watch.hpp"

#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "platform/ending.hpp"

namespace {

constexpr int Signal = SIGVTALRM;
constexpr std::int64_t Nanoseconds = 1'000'000'000;

// Looking itself takes some ten microseconds. A process that has something to do gets more than
// this in each second in which it is let run, however busy the processors are.
constexpr std::int64_t IdleNanoseconds = 1'000'000;

volatile sig_atomic_t Watched = 0;
int Looks = 0;  // in a row without progress
std::int64_t LastTime = 0;
std::int64_t LastTransfers = 0;

timer_t Timer = {};
bool HasTimer = false;

// What all threads have computed.
std::int64_t ProcessorTime() {
  timespec time = {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return time.tv_sec * Nanoseconds + time.tv_nsec;
}

// Waiting for pages that were swapped out is progress.
std::int64_t Transfers() {
  rusage use = {};
  ::getrusage(RUSAGE_SELF, &use);
  return use.ru_majflt + use.ru_inblock + use.ru_oublock;
}

bool Progressed() {
  const std::int64_t time = ProcessorTime();
  const std::int64_t transfers = Transfers();
  const bool progressed = time - LastTime > IdleNanoseconds || transfers != LastTransfers;
  LastTime = time;
  LastTransfers = transfers;
  return progressed;
}

void Look(int) {
  const int error = errno;
  const bool progressed = Progressed() && Watched == static_cast<int>(WATCH::What::Progress);
  Looks = progressed ? 0 : Looks + 1;
  if (Watched != 0 && Looks >= WATCH::MostLooks)
    PLATFORM_ENDUNEXPECTED("No progress in a library.", "memory has probably run out");
  errno = error;
}

bool MakeTimer() {
  struct sigaction action = {};
  action.sa_handler = Look;
  action.sa_flags = SA_ONSTACK | SA_RESTART;
  sigset_t mine;
  ::sigemptyset(&mine);
  ::sigaddset(&mine, Signal);
  sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = Signal;
  return ::sigaction(Signal, &action, nullptr) == 0 &&
         ::sigprocmask(SIG_UNBLOCK, &mine, nullptr) == 0 &&
         ::timer_create(CLOCK_MONOTONIC, &event, &Timer) == 0;
}

void SetTimer(std::int64_t nanoseconds) {
  const timespec interval = {nanoseconds / Nanoseconds, nanoseconds % Nanoseconds};
  const itimerspec setting = {interval, interval};
  ::timer_settime(Timer, 0, &setting, nullptr);
}

}  // namespace

WATCH::What PLATFORM_WATCH(WATCH::What what) {
  const auto before = static_cast<WATCH::What>(Watched);
  if (!HasTimer) HasTimer = MakeTimer();
  if (!HasTimer || what == before) return before;
  Looks = 0;
  Watched = static_cast<int>(what);
  if (what == WATCH::What::Nothing || before == WATCH::What::Nothing)
    SetTimer(what == WATCH::What::Nothing ? 0 : WATCH::LookNanoseconds);
  return before;
}
