#include <gtest/gtest.h>

#include "platform/threads.hpp"

TEST(StartableThreads, AreAllThatAreWantedWhereNothingIsShort) {
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(0), 0);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(1), 1);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(7), 7);
  EXPECT_EQ(PLATFORM_STARTABLETHREADS(7), 7);  // the first have ended
}
