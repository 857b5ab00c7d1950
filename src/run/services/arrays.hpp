// Owned arrays: uninitialised, so that gigabytes are not cleared twice and first touch is ours to
// place; every allocation failure ends in the one abort below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "run/services/logger.hpp"

// std::unique_ptr<T[]> that is indexed like the pointer it holds: index values are signed here.
template <class T>
struct Array : std::unique_ptr<T[]> {
  using std::unique_ptr<T[]>::unique_ptr;
  template <class Index>
  T& operator[](Index place) const {
    return this->get()[place];
  }
};

namespace ARRAYS {

inline constexpr std::string_view Failure = "Error allocating arrays.";

// Largest array that may be asked for, in bytes; tests lower it to meet the failure paths.
inline std::int64_t LargestBytes = std::numeric_limits<std::int64_t>::max();

}  // namespace ARRAYS

// `count` elements, not cleared. Aborts with `failure` when they can't be had; a negative count
// can't.
template <class T>
Array<T> ARRAYS_ALLOCATE(std::int64_t count, std::string_view failure = ARRAYS::Failure) {
  constexpr auto width = static_cast<std::int64_t>(sizeof(T));
  Array<T> array;
  if (count >= 0 && count <= ARRAYS::LargestBytes / width)
    array.reset(new (std::nothrow) T[static_cast<std::size_t>(count)]);
  if (!array) LOGGER_POSTERRABORT(failure);
  return array;
}
