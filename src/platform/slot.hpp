// The one bridge between numbering and storage: nodes, elements, rows, equations and table entries
// are numbered from 1 in files and in index values; C++ storage counts from 0.
#pragma once

#include <cassert>
#include <cstdint>

// Storage position of the entry with the 1-based number `number`. Not checked in release builds:
// every number that comes from a file is checked once, at loading.
constexpr std::int64_t Slot(std::int64_t number) {
  assert(number >= 1);
  return number - 1;
}
