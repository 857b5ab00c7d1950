# Chooses the library behind the maths operations and gives it as the target vk_maths, with
#   VK_MATHS_SOURCES  the files of src/platform/maths that adapt it
#   VK_MATHS_TEXT     name and version, for people and for MATHS_NAME
# There is one OpenMP run-time in the program, the compiler's own.

string(TOLOWER "${VK_MATH}" choice)
if(NOT choice MATCHES "^(mkl|open|auto)$")
  message(FATAL_ERROR "VK_MATH is \"${VK_MATH}\"; it can be mkl, open or auto.")
endif()

if(NOT choice STREQUAL "open")
  find_package(MKL MODULE QUIET)
  if(MKL_FOUND)
    set(choice mkl)
  elseif(choice STREQUAL "mkl")
    message(FATAL_ERROR
      "VK_MATH=mkl, but oneMKL was not found in VK_MKL_ROOT, .local/venv or MKLROOT. "
      "scripts/setup.sh installs it into .local/venv; VK_MATH=open does without it.")
  endif()
endif()

add_library(vk_maths INTERFACE)
if(choice STREQUAL "mkl")
  set(VK_MATHS_SOURCES mkl.cpp)
  set(VK_MATHS_TEXT "oneMKL ${MKL_VERSION}")
  target_link_libraries(vk_maths INTERFACE MKL::MKL)
else()
  find_package(OpenMaths REQUIRED)
  set(VK_MATHS_SOURCES open_direct.cpp open_sparse.cpp)
  set(VK_MATHS_TEXT "MUMPS ${MUMPS_VERSION}, OpenBLAS")
  target_link_libraries(vk_maths INTERFACE OpenMaths::OpenMaths)
endif()
