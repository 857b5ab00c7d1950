// oneMKL behind the maths boundary. The library brings the four operations itself; including its
// header beside ours lets the compiler check that the declarations agree.
#include <mkl.h>

#include "platform/maths/maths.hpp"

std::string_view MATHS_NAME() { return VK_MATHS_NAME; }
