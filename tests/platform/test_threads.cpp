#include <gtest/gtest.h>
#include <sys/resource.h>

#include "platform/ending.hpp"
#include "platform/threads.hpp"

namespace {

// Any limit has the threads tried.
void LimitAddresses(rlim_t bytes) {
  rlimit limit = {};
  ::getrlimit(RLIMIT_AS, &limit);
  limit.rlim_cur = bytes;
  ::setrlimit(RLIMIT_AS, &limit);
}

}  // namespace

TEST(StartableThreads, AreAllThatAreWantedWhereNothingIsShort) {
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(0), 0);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(1), 1);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(7), 7);
}

TEST(StartableThreads, AreTriedWhereALimitIsSet) {
  if (ENDING::Sanitized) return;  // its shadow of the memory fills any limit
  LimitAddresses(rlim_t{1} << 46);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(7), 7);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(7), 7);  // the first have ended
  LimitAddresses(RLIM_INFINITY);
}
