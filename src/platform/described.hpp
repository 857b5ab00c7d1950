// Data about data: names and meanings of the program's codes. The tables stand beside the constants
// they tell of; run/describe.cpp prints them.
#pragma once

#include <cstdint>
#include <string_view>

// A code, or a bit mask, and what it stands for.
struct NamedValue {
  std::string_view name;
  std::int64_t value;
  std::string_view meaning;
};
