#include "platform/memory.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <limits>

namespace {

constexpr std::size_t VectorAlignment = 64;
constexpr std::size_t HugePage = std::size_t{1} << 21;

}  // namespace

void* PLATFORM_ALLOCATE(std::int64_t bytes) {
  if (bytes < 0 || bytes > std::numeric_limits<std::ptrdiff_t>::max() / 2) return nullptr;
  const auto size = static_cast<std::size_t>(std::max<std::int64_t>(bytes, 1));
  const bool huge = size >= 2 * HugePage;
  void* memory = nullptr;
  if (::posix_memalign(&memory, huge ? HugePage : VectorAlignment, size) != 0) return nullptr;
#ifdef MADV_HUGEPAGE
  // Whole pages inside the array only: the rest of a last one would be wasted. A refusal is no
  // loss.
  if (huge) ::madvise(memory, size / HugePage * HugePage, MADV_HUGEPAGE);
#endif
  return memory;
}

void PLATFORM_FREE(void* memory) { std::free(memory); }
