# Finds the static oneMKL and gives it as MKL::MKL, with MKL_VERSION and its terms in MKL_LICENCE.
# Looked for in VK_MKL_ROOT, in the Python environment that a wheel is built with, in the checkout's
# own environment .local/venv, and in MKLROOT.

set(python "")
if(SKBUILD AND Python_EXECUTABLE)
  cmake_path(GET Python_EXECUTABLE PARENT_PATH python)
  cmake_path(GET python PARENT_PATH python)
endif()
set(places "")
foreach(place "${VK_MKL_ROOT}" "$ENV{VK_MKL_ROOT}" "${python}" "${PROJECT_SOURCE_DIR}/.local/venv"
    "$ENV{MKLROOT}")
  if(place)
    list(APPEND places "${place}")
  endif()
endforeach()

# The threading layer has to speak the language of the compiler's OpenMP run-time.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  set(layer mkl_gnu_thread)
else()
  set(layer mkl_intel_thread)
endif()

find_path(MKL_INCLUDE_DIR mkl.h PATHS ${places} PATH_SUFFIXES include NO_DEFAULT_PATH)
foreach(name mkl_intel_lp64 ${layer} mkl_core)
  find_library(MKL_${name} ${CMAKE_STATIC_LIBRARY_PREFIX}${name}${CMAKE_STATIC_LIBRARY_SUFFIX}
    PATHS ${places} PATH_SUFFIXES lib lib/intel64 NO_DEFAULT_PATH)
endforeach()

if(MKL_INCLUDE_DIR)
  # One number, year and release: 20250300 is 2025.3.
  file(STRINGS ${MKL_INCLUDE_DIR}/mkl_version.h line REGEX "define INTEL_MKL_VERSION ")
  string(REGEX REPLACE ".* ([0-9][0-9][0-9][0-9])0?([0-9]+)[0-9][0-9]$" "\\1.\\2"
    MKL_VERSION "${line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MKL
  REQUIRED_VARS MKL_mkl_core MKL_${layer} MKL_mkl_intel_lp64 MKL_INCLUDE_DIR
  VERSION_VAR MKL_VERSION)

# Who passes the program on has to pass this on.
set(MKL_LICENCE "")
foreach(place ${places})
  file(GLOB texts ${place}/lib/python*/site-packages/mkl_static-*.dist-info/LICENSE.txt
    ${place}/share/doc/mkl/licensing/license.txt)
  if(MKL_FOUND AND texts AND NOT MKL_LICENCE)
    list(GET texts 0 MKL_LICENCE)
  endif()
endforeach()

if(MKL_FOUND AND NOT TARGET MKL::MKL)
  find_package(Threads REQUIRED)
  add_library(MKL::MKL INTERFACE IMPORTED)
  # SYSTEM: what the headers warn of is not ours to mend.
  target_include_directories(MKL::MKL SYSTEM INTERFACE ${MKL_INCLUDE_DIR})
  target_link_libraries(MKL::MKL INTERFACE
    -Wl,--start-group ${MKL_mkl_intel_lp64} ${MKL_${layer}} ${MKL_mkl_core} -Wl,--end-group
    OpenMP::OpenMP_CXX Threads::Threads m ${CMAKE_DL_LIBS})
endif()
