# Chooses the library behind the direct solver and gives it as the target vk_maths, with
#   VK_MATHS_SOURCES  the files of src/platform/maths that adapt it
#   VK_MATHS_TEXT     name and version, for people and for MATHS_NAME
# There is one OpenMP run-time in the program, the compiler's own.

set(VK_MKL_ADVICE "pip install mkl-static==2026.2.* mkl-include==2026.2.*, and give the \
environment's folder as -DVK_MKL_ROOT")

string(TOLOWER "${VK_MATH}" choice)
if(NOT choice MATCHES "^(mkl|open|auto)$")
  vk_refuse("VK_MATH is \"${VK_MATH}\"; it can be mkl, open or auto")
endif()

if(NOT choice STREQUAL "open")
  find_package(MKL MODULE QUIET)
  if(MKL_FOUND)
    set(choice mkl)
  elseif(choice STREQUAL "mkl")
    vk_refuse("VK_MATH=mkl, but no oneMKL was found; ${VK_MKL_ADVICE}, "
      "or take VK_MATH=open")
  endif()
endif()

add_library(vk_maths INTERFACE)
if(choice STREQUAL "mkl")
  set(VK_MATHS_SOURCES mkl.cpp)
  set(VK_MATHS_TEXT "oneMKL ${MKL_VERSION}")
  target_link_libraries(vk_maths INTERFACE MKL::MKL)
else()
  find_package(OpenMaths MODULE QUIET)
  if(NOT OpenMaths_FOUND)
    vk_refuse("no maths library was found; install MUMPS and OpenBLAS (Debian: apt install "
      "libmumps-seq-dev libopenblas-pthread-dev) or oneMKL (${VK_MKL_ADVICE})")
  endif()
  set(VK_MATHS_SOURCES open_dense.cpp open_direct.cpp)
  set(VK_MATHS_TEXT "MUMPS ${MUMPS_VERSION}, OpenBLAS")
  target_link_libraries(vk_maths INTERFACE OpenMaths::OpenMaths)
endif()
