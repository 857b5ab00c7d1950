#include "platform/memory.hpp"

#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

constexpr std::size_t VectorAlignment = 64;
constexpr std::size_t HugePage = std::size_t{1} << 21;

constexpr std::int64_t Unlimited = std::numeric_limits<std::int64_t>::max();

// The first number that a line of a system file gives by `format`; -1 without one.
long long NumberIn(const char* file, const char* format) {
  std::FILE* stream = std::fopen(file, "r");
  if (stream == nullptr) return -1;
  char line[128];
  long long value = -1;
  while (value < 0 && std::fgets(line, sizeof line, stream) != nullptr)
    if (std::sscanf(line, format, &value) != 1) value = -1;
  std::fclose(stream);
  return value;
}

// What the control group leaves; a group without a limit says "max".
std::int64_t AvailableInGroup() {
  const long long limit = NumberIn("/sys/fs/cgroup/memory.max", "%lld");
  const long long used = NumberIn("/sys/fs/cgroup/memory.current", "%lld");
  return limit < 0 || used < 0 ? Unlimited : std::max<std::int64_t>(limit - used, 0);
}

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

std::int64_t PLATFORM_AVAILABLEMEMORY() {
  const long long free = NumberIn("/proc/meminfo", "MemAvailable: %lld kB");
  return std::min(free < 0 ? Unlimited : std::int64_t{free} * 1024, AvailableInGroup());
}

void PLATFORM_SPAREADDRESSES() {
#ifdef M_ARENA_MAX
  rlimit limit = {};
  if (::getrlimit(RLIMIT_AS, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY)
    ::mallopt(M_ARENA_MAX, 1);
#endif
}

bool PLATFORM_CANMAP(std::int64_t bytes) {
  const auto size = static_cast<std::size_t>(bytes);
  void* memory = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  ::munmap(memory, size);
  return true;
}
