// oneMKL behind the maths boundary. The library brings the four operations itself; including its
// header beside ours lets the compiler check that the declarations agree.
#include <mkl.h>

#include "platform/maths/maths.hpp"

bool MATHS_RESERVE(std::int64_t /*equations*/, std::int64_t /*entries*/) { return true; }

std::string_view MATHS_NAME() { return VK_MATHS_NAME; }
