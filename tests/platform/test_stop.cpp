#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "platform/stop.hpp"
#include "support/working_directory.hpp"

namespace {

using Stop = WorkingDirectory;

void WriteExitMark() { std::ofstream("exit.mark") << "handlers ran"; }

void StopAfterRegisteringAHandler() {
  std::atexit(WriteExitMark);
  PLATFORM_STOP(StopError, "now");
}

void StopFromParallelRegion() {
#pragma omp parallel num_threads(4)
  {
#pragma omp critical
    PLATFORM_STOP(StopError, "from a thread of the team");
  }
}

void StopWithoutStandardError() {
  ::close(STDERR_FILENO);
  PLATFORM_STOP(StopDirectory, "nobody reads this");
}

}  // namespace

TEST_F(Stop, StatusIsTheLowEightBitsOfEveryCode) {
  EXPECT_EXIT(PLATFORM_STOP(StopArguments, "x"), testing::ExitedWithCode(233), "");
  EXPECT_EXIT(PLATFORM_STOP(StopDirectory, "x"), testing::ExitedWithCode(236), "");
  EXPECT_EXIT(PLATFORM_STOP(StopLog, "x"), testing::ExitedWithCode(237), "");
  EXPECT_EXIT(PLATFORM_STOP(StopError, "x"), testing::ExitedWithCode(242), "");
}

TEST_F(Stop, CodeAndReasonAreOneLineOnStandardError) {
  EXPECT_EXIT(PLATFORM_STOP(StopDirectory, "cannot enter directory \"x\""),
              StopsWith(StopDirectory), "1004: cannot enter directory \"x\"\n");
}

TEST_F(Stop, ExitHandlersDoNotRun) {
  EXPECT_EXIT(StopAfterRegisteringAHandler(), StopsWith(StopError), "1010: now");
  EXPECT_FALSE(Exists("exit.mark"));
}

TEST_F(Stop, OneThreadOfATeamEndsTheWholeProcess) {
  EXPECT_EXIT(StopFromParallelRegion(), StopsWith(StopError), "1010: from a thread of the team");
}

TEST_F(Stop, StatusIsRightEvenWhereStandardErrorIsClosed) {
  EXPECT_EXIT(StopWithoutStandardError(), StopsWith(StopDirectory), "");
}
