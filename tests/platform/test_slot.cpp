#include <gtest/gtest.h>

#include <limits>

#include "platform/slot.hpp"

TEST(Slot, NumbersFromOneAreStoredFromZero) {
  static_assert(Slot(1) == 0);
  EXPECT_EQ(Slot(12), 11);
}

TEST(Slot, NumbersBeyondThirtyTwoBitsKeepTheirValue) {
  EXPECT_EQ(Slot(std::int64_t{1} << 40), (std::int64_t{1} << 40) - 1);
  EXPECT_EQ(Slot(std::numeric_limits<std::int32_t>::max()), 2147483646);
}

#ifndef NDEBUG
TEST(Slot, NumberZeroIsCaughtInDebugBuilds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Slot(0), "number >= 1");
}
#endif
