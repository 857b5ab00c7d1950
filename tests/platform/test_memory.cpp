#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

#include "platform/memory.hpp"

namespace {

std::uintptr_t AddressOf(const void* memory) { return reinterpret_cast<std::uintptr_t>(memory); }

TEST(Memory, EverySizeIsWritableAndAlignedToVectors) {
  for (const std::int64_t bytes : {1, 7, 64, 4095, 1 << 20, (1 << 22) - 1}) {
    void* memory = PLATFORM_ALLOCATE(bytes);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(AddressOf(memory) % 64, 0u);
    std::memset(memory, 1, static_cast<std::size_t>(bytes));
    PLATFORM_FREE(memory);
  }
}

TEST(Memory, LargeArraysBeginWithAHugePage) {
  for (const std::int64_t bytes : {1 << 22, (1 << 24) + 5}) {
    void* memory = PLATFORM_ALLOCATE(bytes);
    ASSERT_NE(memory, nullptr);
    EXPECT_EQ(AddressOf(memory) % (1u << 21), 0u);
    std::memset(memory, 1, static_cast<std::size_t>(bytes));
    PLATFORM_FREE(memory);
  }
}

TEST(Memory, NoBytesAreAnArrayToo) {
  void* memory = PLATFORM_ALLOCATE(0);
  EXPECT_NE(memory, nullptr);
  PLATFORM_FREE(memory);
}

TEST(Memory, WhatCannotBeHadIsNull) {
  EXPECT_EQ(PLATFORM_ALLOCATE(-1), nullptr);
  EXPECT_EQ(PLATFORM_ALLOCATE(std::numeric_limits<std::int64_t>::max()), nullptr);
  EXPECT_EQ(PLATFORM_ALLOCATE(std::int64_t{1} << 61), nullptr);
}

TEST(Memory, WhatCanBeMappedIsToldWithoutTakingIt) {
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(PLATFORM_CANMAP(std::int64_t{1} << 32));
  EXPECT_FALSE(PLATFORM_CANMAP(std::int64_t{1} << 60));
}

}  // namespace
