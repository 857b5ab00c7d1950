#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>

#include "platform/stop.hpp"
#include "platform/watch.hpp"
#include "support/working_directory.hpp"

namespace {

using Watch = WorkingDirectory;

void Hurry(int looks) {
  WATCH::LookNanoseconds = 20'000'000;
  WATCH::MostLooks = looks;
}

double ComputedSeconds() {
  timespec time = {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Longer than the looks take, in time that is computed.
void Compute(double seconds) {
  const double end = ComputedSeconds() + seconds;
  while (ComputedSeconds() < end) continue;
}

void WaitForEver() {
  Hurry(5);
  PLATFORM_WATCH(WATCH::What::Progress);
  for (;;) ::pause();
}

void TryForEver() {
  Hurry(5);
  PLATFORM_WATCH(WATCH::What::Return);
  for (;;) Compute(1.0);
}

void ComputeForLong() {
  Hurry(25);
  PLATFORM_WATCH(WATCH::What::Progress);
  Compute(1.0);
  PLATFORM_STOP(StopDirectory, "computed");
}

void WaitUnwatched() {
  Hurry(2);
  PLATFORM_WATCH(WATCH::What::Progress);
  PLATFORM_WATCH(WATCH::What::Nothing);
  ::usleep(200'000);
  PLATFORM_STOP(StopDirectory, "waited");
}

}  // namespace

TEST_F(Watch, WaitWithoutProgressIsEnded) {
  EXPECT_EXIT(WaitForEver(), StopsWith(StopError), "1010: No progress in a library.");
}

TEST_F(Watch, CallThatShouldReturnAtOnceIsEndedThoughItComputes) {
  EXPECT_EXIT(TryForEver(), StopsWith(StopError), "1010: No progress in a library.");
}

TEST_F(Watch, ComputingIsProgress) {
  EXPECT_EXIT(ComputeForLong(), StopsWith(StopDirectory), "1004: computed");
}

TEST_F(Watch, NothingIsEndedOnceTheWatchIsOver) {
  EXPECT_EXIT(WaitUnwatched(), StopsWith(StopDirectory), "1004: waited");
}

TEST_F(Watch, TellsWhatWasWatchedBefore) {
  EXPECT_EQ(PLATFORM_WATCH(WATCH::What::Progress), WATCH::What::Nothing);
  EXPECT_EQ(PLATFORM_WATCH(WATCH::What::Return), WATCH::What::Progress);
  EXPECT_EQ(PLATFORM_WATCH(WATCH::What::Nothing), WATCH::What::Return);
}
