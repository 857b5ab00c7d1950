#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/ending.hpp"
#include "platform/stop.hpp"
#include "run/services/logger.hpp"
#include "support/working_directory.hpp"

namespace {

constexpr const char* Memory = "Error<Msg:Error allocating arrays.>\n";
constexpr const char* Other = "Error<Msg:Unexpected end of the run.>\n";

class Ending : public WorkingDirectory {
 protected:
  // What a run does first, and a line in the log.
  static void Guard() {
    PLATFORM_GUARDEND(LOGGER_POSTLAST);
    LOGGER_POSTINF("before");
    errno = 0;
  }
};

std::string Before() { return "Info<Msg:before >\n"; }

// Told in both places, by its whole last line.
#define EXPECT_TOLD(statement, error, line)                                   \
  do {                                                                        \
    EXPECT_EXIT((Guard(), statement), StopsWith(StopError), "^1010: " error); \
    EXPECT_EQ(Log(), Before() + line);                                        \
  } while (false)

void ExitWithNoMemory() {
  errno = ENOMEM;
  std::exit(0);
}

// More than there are addresses; the compiler can't know.
void AskForTooMuch() {
  volatile std::size_t most = std::size_t{1} << 62;
  ::operator delete(::operator new(most));
}

void TouchNothing() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}

void ThrowOut() {
  std::thread([] { throw std::runtime_error("nobody catches this"); }).join();
}

void ExitWhileOthersPost() {
  std::thread posting([] {
    for (int i = 0;; ++i) LOGGER_POSTINF("line", i);
  });
  while (Log().size() < 2000) ::usleep(100);
  std::exit(0);
}

// Deeper than any stack is; what is touched keeps the compiler from making a loop of it.
int FillStack(int depth) {
  volatile char frame[1024];
  frame[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : FillStack(depth + 1) + frame[0];
}

void FillStackOfAThread() {
  std::thread([] {
    PLATFORM_GUARDTHREAD();
    FillStack(0);
  }).join();
}

void InterruptFromOutside() {
  ::kill(::getpid(), SIGINT);
  ::pause();
}

void InterruptIgnored() {
  std::signal(SIGINT, SIG_IGN);
  PLATFORM_GUARDEND(LOGGER_POSTLAST);
  ::kill(::getpid(), SIGINT);
  PLATFORM_STOP(StopDirectory, "went on");
}

bool CannotPost(std::string_view) { return false; }

void FailToPost() {
  PLATFORM_GUARDEND(CannotPost);
  std::exit(0);
}

bool FailAtPosting(std::string_view) { std::abort(); }

void FailWhileEnding() {
  PLATFORM_GUARDEND(FailAtPosting);
  std::exit(0);
}

}  // namespace

TEST_F(Ending, ExitOfALibraryIsNeverANormalEnd) {
  for (const int status : {0, 1, 2})
    EXPECT_TOLD(std::exit(status), "Unexpected end of the run. \\(a library ended the process\\)\n",
                Other);
  EXPECT_TOLD(std::quick_exit(0), "Unexpected end of the run.", Other);
}

TEST_F(Ending, ExitBehindAnAllocationThatFailedSaysSo) {
  EXPECT_TOLD(ExitWithNoMemory(), "Error allocating arrays. \\(a library ended", Memory);
}

TEST_F(Ending, NewThatFailsIsToldAsMemory) {
  if (!ENDING::Sanitized) EXPECT_TOLD(AskForTooMuch(), "Error allocating arrays.", Memory);
}

TEST_F(Ending, TerminationIsTold) {
  EXPECT_TOLD(std::terminate(), "Unexpected end of the run. \\(terminated\\)\n", Other);
  EXPECT_TOLD(ThrowOut(), "Unexpected end of the run. \\(terminated\\)\n", Other);
}

TEST_F(Ending, AbortIsTold) {
  EXPECT_TOLD(std::abort(), "Unexpected end of the run. \\(a library aborted the process\\)\n",
              Other);
}

TEST_F(Ending, FailedInstructionsAreTold) {
  if (ENDING::Sanitized) return;  // the sanitizer tells of them
  EXPECT_TOLD(TouchNothing(), "Unexpected end of the run. \\(signal SIGSEGV\\)\n", Other);
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    EXPECT_TOLD(std::raise(signal), "Unexpected end of the run. \\(signal SIG", Other);
}

TEST_F(Ending, StackThatIsFullIsTold) {
  if (ENDING::Sanitized) return;
  EXPECT_TOLD(FillStack(0), "Unexpected end of the run. \\(signal SIGSEGV\\)\n", Other);
  EXPECT_TOLD(FillStackOfAThread(), "Unexpected end of the run. \\(signal SIGSEGV\\)\n", Other);
}

TEST_F(Ending, InterruptOfALibraryIsToldAndThatOfAPersonStaysOne) {
  EXPECT_TOLD(std::raise(SIGINT), "Unexpected end of the run. \\(a library interrupted", Other);
  EXPECT_EXIT((Guard(), InterruptFromOutside()), testing::KilledBySignal(SIGINT), "^$");
  EXPECT_EXIT(InterruptIgnored(), StopsWith(StopDirectory), "1004: went on");
}

TEST_F(Ending, NormalEndIsSilent) {
  EXPECT_EXIT((Guard(), LOGGER_CLOSE(), PLATFORM_END()), testing::ExitedWithCode(0), "^$");
  EXPECT_EQ(Log(), Before());
}

TEST_F(Ending, StopPassesByTheExitHandler) {
  EXPECT_EXIT((Guard(), PLATFORM_STOP(StopDirectory, "x")), StopsWith(StopDirectory),
              "^1004: x\n$");
  EXPECT_EQ(Log(), Before());
}

TEST_F(Ending, ErrorLineStaysTheLastWhileOthersPost) {
  EXPECT_EXIT((Guard(), ExitWhileOthersPost()), StopsWith(StopError), "^1010: ");
  const std::string log = Log();
  EXPECT_TRUE(log.ends_with(std::string(">\n") + Other)) << log.substr(log.size() - 200);
}

TEST_F(Ending, LogThatCannotBeWrittenIsTheStopOfTheLog) {
  EXPECT_EXIT(FailToPost(), StopsWith(StopLog), "^1005: Unexpected end of the run.");
}

TEST_F(Ending, FailureWithinTheEndingKeepsTheStatus) {
  EXPECT_EXIT(FailWhileEnding(), StopsWith(StopError), "");
}
