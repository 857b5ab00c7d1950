#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>
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
  ASSERT_TRUE(PLATFORM_ENTERDIRECTORY("inner"));
  EXPECT_TRUE(Exists("../inner"));
}

TEST_F(Process, DirectoryOfOddNameIsEntered) {
  MakeDirectory("with blank and \xc3\xa4");
  EXPECT_TRUE(PLATFORM_ENTERDIRECTORY("with blank and \xc3\xa4"));
}

TEST_F(Process, MissingDirectoryFileAndEmptyNameAreNotEntered) {
  WriteFile("file", "x");
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY("missing"));
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY("file"));
  EXPECT_FALSE(PLATFORM_ENTERDIRECTORY(""));
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
