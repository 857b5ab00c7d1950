#include "platform/ending.hpp"

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <new>
#include <typeinfo>

#include "platform/leave.hpp"
#include "platform/memory.hpp"
#include "platform/process.hpp"
#include "platform/stop.hpp"

namespace {

constexpr std::int64_t NoMemoryAtAll = std::int64_t{1} << 24;

bool (*PostLast)(std::string_view text) = nullptr;
std::atomic<bool> Ended = false;  // by the normal end, which exit handlers let pass
std::atomic<pid_t> Ender = 0;     // the thread that ends the process
bool InterruptIgnored = false;    // SIGINT, by who started the run

// Stacks for the handlers, one a thread: the first thread's own can't grow where memory is short,
// and a library that fails at telling of a failure fills any.
constexpr std::size_t StackSize = std::size_t{1} << 16;
alignas(64) std::byte Stacks[LargestTeam][StackSize];
std::atomic<int> StacksTaken = 0;

// What a failed call has left in errno is the one trace that a library leaves of its reason.
std::string_view TextOf(int error) {
  return error == ENOMEM || !PLATFORM_CANMAP(NoMemoryAtAll) ? ENDING::NoMemory : ENDING::Unexpected;
}

void OnExit() {
  const int error = errno;
  if (!Ended) PLATFORM_ENDUNEXPECTED(TextOf(error), "a library ended the process");
}

[[noreturn]] void OnTerminate() {
  const int error = errno;
  const std::type_info* type = abi::__cxa_current_exception_type();
  const bool memory = type != nullptr && (*type == typeid(std::bad_alloc) ||
                                          *type == typeid(std::bad_array_new_length));
  PLATFORM_ENDUNEXPECTED(memory ? ENDING::NoMemory : TextOf(error), "terminated");
}

[[noreturn]] void OnNewFailing() { PLATFORM_ENDUNEXPECTED(ENDING::NoMemory, "no memory"); }

std::string_view NameOf(int signal) {
  switch (signal) {
    case SIGABRT:
      return "a library aborted the process";
    case SIGFPE:
      return "signal SIGFPE";
    case SIGILL:
      return "signal SIGILL";
    case SIGBUS:
      return "signal SIGBUS";
    default:
      return "signal SIGSEGV";
  }
}

void OnSignal(int signal, siginfo_t*, void*) {
  const int error = errno;
  PLATFORM_ENDUNEXPECTED(TextOf(error), NameOf(signal));
}

// From the keyboard the signal keeps its meaning.
void OnInterrupt(int signal, siginfo_t* info, void*) {
  const int error = errno;
  if (info->si_code == SI_TKILL && info->si_pid == ::getpid())
    PLATFORM_ENDUNEXPECTED(TextOf(error), "a library interrupted the process");
  if (InterruptIgnored) return;
  std::signal(signal, SIG_DFL);
  ::kill(::getpid(), signal);
}

// Without SA_NODEFER a failure within the handler would end the process untold.
void Handle(int signal, void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART | SA_NODEFER;
  struct sigaction old = {};
  ::sigaction(signal, &action, &old);
  if (signal == SIGINT)
    InterruptIgnored = (old.sa_flags & SA_SIGINFO) == 0 && old.sa_handler == SIG_IGN;
}

void HandleSignals() {
  sigset_t handled;
  ::sigemptyset(&handled);
  for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    if (ENDING::Sanitized && signal != SIGABRT) continue;
    Handle(signal, OnSignal);
    ::sigaddset(&handled, signal);
  }
  Handle(SIGINT, OnInterrupt);
  ::sigprocmask(SIG_UNBLOCK, &handled, nullptr);  // whoever started the run may have blocked them
}

}  // namespace

void PLATFORM_GUARDEND(bool (*postLast)(std::string_view text)) {
  PostLast = postLast;
  std::set_terminate(OnTerminate);
  std::set_new_handler(OnNewFailing);
  PLATFORM_GUARDTHREAD();
  HandleSignals();
  if (std::atexit(OnExit) != 0 || std::at_quick_exit(OnExit) != 0) OnNewFailing();
}

void PLATFORM_GUARDTHREAD() {
  stack_t stack = {};
  if (ENDING::Sanitized || ::sigaltstack(nullptr, &stack) != 0) return;
  if ((stack.ss_flags & SS_DISABLE) == 0) return;  // it has one
  const int place = StacksTaken++;
  if (place >= LargestTeam) return;
  stack.ss_sp = Stacks[place];
  stack.ss_size = StackSize;
  stack.ss_flags = 0;
  ::sigaltstack(&stack, nullptr);
}

void PLATFORM_ENDUNEXPECTED(std::string_view text, std::string_view reason) {
  pid_t nobody = 0;
  const pid_t self = ::gettid();
  if (!Ender.compare_exchange_strong(nobody, self)) {
    if (nobody == self) ::_exit(StopError & StopStatusMask);  // it failed at ending
    for (;;) ::pause();
  }
  const bool posted = PostLast == nullptr || PostLast(text);
  char why[256];
  std::size_t length = 0;
  for (const std::string_view part : {text, std::string_view(" ("), reason, std::string_view(")")})
    length += part.copy(why + length, sizeof why - length);
  PLATFORM_STOP(posted ? StopError : StopLog, {why, length});
}

void PLATFORM_END() {
  Ended = true;
  if (ENDING::Sanitized) std::exit(EXIT_SUCCESS);
  PLATFORM_LEAVE(EXIT_SUCCESS);
}
