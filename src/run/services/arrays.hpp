// Owned arrays: uninitialised, so that gigabytes are not cleared twice and first touch is ours to
// place; every allocation failure ends in the one abort below.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <string_view>
#include <type_traits>

#include "platform/ending.hpp"
#include "platform/memory.hpp"
#include "run/services/logger.hpp"

// std::unique_ptr<T[]> that is indexed like the pointer it holds: index values are signed here.
template <class T>
struct Array : std::unique_ptr<T[], MemoryDeleter> {
  using std::unique_ptr<T[], MemoryDeleter>::unique_ptr;
  template <class Index>
  T& operator[](Index place) const {
    return this->get()[place];
  }
};

namespace ARRAYS {

inline constexpr std::string_view Failure = ENDING::NoMemory;

// Largest array that may be asked for, in bytes; tests lower it to meet the failure paths.
inline std::int64_t LargestBytes = std::numeric_limits<std::int64_t>::max();

// Arrays that can still be had, any number while negative; tests count them off to fail each one.
inline std::int64_t ArraysLeft = -1;

}  // namespace ARRAYS

// `count` elements, not cleared; null when they can't be had, and for a negative count.
template <class T>
Array<T> ARRAYS_TRYALLOCATE(std::int64_t count) {
  static_assert(std::is_trivially_default_constructible_v<T> &&
                std::is_trivially_destructible_v<T>);
  constexpr auto width = static_cast<std::int64_t>(sizeof(T));
  Array<T> array;
  const bool granted = ARRAYS::ArraysLeft != 0;
  if (ARRAYS::ArraysLeft > 0) --ARRAYS::ArraysLeft;
  if (granted && count >= 0 && count <= ARRAYS::LargestBytes / width)
    array.reset(static_cast<T*>(PLATFORM_ALLOCATE(count * width)));
  return array;
}

// The same, but aborts with `failure` instead of returning null.
template <class T>
Array<T> ARRAYS_ALLOCATE(std::int64_t count, std::string_view failure = ARRAYS::Failure) {
  Array<T> array = ARRAYS_TRYALLOCATE<T>(count);
  if (!array) LOGGER_POSTERRABORT(failure);
  return array;
}
