#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <limits>
#include <string>
#include <thread>

#include "platform/process.hpp"
#include "support/working_directory.hpp"

namespace {

using Process = WorkingDirectory;

// Status of `body` in a process of its own.
template <class Body>
int StatusOfChild(Body body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

volatile double Smallest = std::numeric_limits<double>::min();
volatile double Denormal = std::numeric_limits<double>::denorm_min();

}  // namespace

TEST_F(Process, ClockNeverRunsBackAndCountsByItsRate) {
  const std::int64_t first = PLATFORM_CLOCKCOUNT();
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const std::int64_t second = PLATFORM_CLOCKCOUNT();
  EXPECT_GE((second - first) * 1000, 2 * PLATFORM_CLOCKRATE());
  EXPECT_GE(PLATFORM_CLOCKRATE(), 1000);
}

TEST_F(Process, EnteredDirectoryIsWhereRelativeNamesLead) {
  MakeDirectory("inner");
  std::string reason;
  ASSERT_TRUE(PLATFORM_ENTERDIRECTORY("inner", reason));
  EXPECT_EQ(reason, "");
  EXPECT_TRUE(Exists("../inner"));
}

TEST_F(Process, DirectoryOfOddNameIsEntered) {
  MakeDirectory("with blank and \xc3\xa4");
  std::string reason;
  EXPECT_TRUE(PLATFORM_ENTERDIRECTORY("with blank and \xc3\xa4", reason));
}

TEST_F(Process, MissingDirectoryFileAndEmptyNameAreNotEnteredForAReason) {
  WriteFile("file", "x");
  std::string reason;
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY("missing", reason));
  EXPECT_EQ(reason, "No such file or directory");
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY("file", reason));
  EXPECT_EQ(reason, "Not a directory");
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY("", reason));
}

TEST_F(Process, DirectoryIsLockedForOneProcessUntilItsDescriptorIsClosed) {
  const DirectoryLock lock = PLATFORM_LOCKDIRECTORY();
  ASSERT_EQ(lock.state, DirectoryLock::State::Held);
  EXPECT_EQ(PLATFORM_LOCKDIRECTORY().state, DirectoryLock::State::HeldByOther);
  ::close(lock.descriptor);
  const DirectoryLock again = PLATFORM_LOCKDIRECTORY();
  EXPECT_EQ(again.state, DirectoryLock::State::Held);
  ::close(again.descriptor);
}

TEST_F(Process, RefusedLockTellsTheProcessThatHoldsIt) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    PLATFORM_LOCKDIRECTORY();
    ::close(ends[0]);
    [[maybe_unused]] const auto told = ::write(ends[1], "x", 1);
    for (;;) ::pause();
  }
  ::close(ends[1]);
  char mark = 0;
  ASSERT_EQ(::read(ends[0], &mark, 1), 1);
  ::close(ends[0]);
  const DirectoryLock lock = PLATFORM_LOCKDIRECTORY();
  EXPECT_EQ(lock.state, DirectoryLock::State::HeldByOther);
  EXPECT_TRUE(lock.otherId == child || lock.otherId == 0) << lock.otherId;
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  const DirectoryLock after = PLATFORM_LOCKDIRECTORY();
  EXPECT_EQ(after.state, DirectoryLock::State::Held);
  ::close(after.descriptor);
}

TEST_F(Process, LockLeavesNothingInTheDirectory) {
  const auto count = [] {
    return std::distance(std::filesystem::directory_iterator("."),
                         std::filesystem::directory_iterator());
  };
  const auto before = count();
  const DirectoryLock lock = PLATFORM_LOCKDIRECTORY();
  EXPECT_EQ(count(), before);
  ::close(lock.descriptor);
}

TEST_F(Process, WithoutAFreeDescriptorThereIsAFailureAndNoLock) {
  const int status = StatusOfChild([] {
    rlimit limit = {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 3;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const DirectoryLock lock = PLATFORM_LOCKDIRECTORY();
    return lock.state == DirectoryLock::State::Failed && lock.reason == "Too many open files" ? 0
                                                                                              : 1;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(Process, FlushToZeroTakesDenormalResultsAndOperandsAsZero) {
  double before[2], after[2];
  std::thread([&] {
    before[0] = Smallest * 0.5;
    before[1] = Denormal * 1e300;
    PLATFORM_FLUSHTOZERO();
    after[0] = Smallest * 0.5;
    after[1] = Denormal * 1e300;
  }).join();
  EXPECT_GT(before[0], 0.0);
  EXPECT_GT(before[1], 0.0);
  EXPECT_EQ(after[0], 0.0);
  EXPECT_EQ(after[1], 0.0);
}

TEST_F(Process, WritingToAClosedPipeFailsInsteadOfEndingTheProcess) {
  const int status = StatusOfChild([] {
    PLATFORM_GUARDSTREAMS();
    int ends[2];
    if (::pipe(ends) != 0) return 1;
    ::close(ends[0]);
    return ::write(ends[1], "x", 1) < 0 && errno == EPIPE ? 0 : 2;
  });
  EXPECT_EQ(status, 0);
}

TEST_F(Process, FilesNeverTakeTheNumbersOfClosedStandardStreams) {
  const int status = StatusOfChild([] {
    for (int descriptor = 0; descriptor <= 2; ++descriptor) ::close(descriptor);
    PLATFORM_GUARDSTREAMS();
    return ::open("/dev/null", O_RDONLY);
  });
  EXPECT_GT(status, STDERR_FILENO);
}
