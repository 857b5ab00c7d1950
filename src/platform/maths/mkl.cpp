// oneMKL behind the maths boundary. The library brings the direct solver itself; including its
// header beside ours lets the compiler check that the declarations agree.
#include <mkl.h>

#include <algorithm>
#include <cstdint>

#include "platform/maths/maths.hpp"
#include "platform/memory.hpp"

// The analysis takes 36 to 45 bytes an entry, by its own figures for meshes of many shapes, and the
// factorisation behind it more than 15 besides: who lacks 48 can't have a factor. Where memory runs
// out within the analysis a null pointer is followed, or a thread leaves its team waiting.
bool MATHS_RESERVE(std::int64_t entries) {
  constexpr std::int64_t bytesPerEntry = 48;
  return PLATFORM_CANMAP(std::max<std::int64_t>(entries, 1) * bytesPerEntry);
}

// It works with the program's team.
void MATHS_ENDTHREADS() {}

std::string_view MATHS_NAME() { return VK_MATHS_NAME; }
