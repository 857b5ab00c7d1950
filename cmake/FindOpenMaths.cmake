# Finds the open libraries behind the maths operations, the sequential single-precision MUMPS with
# its SCOTCH ordering and a threaded OpenBLAS, and gives them as OpenMaths::OpenMaths, with
# MUMPS_VERSION.

find_path(MUMPS_INCLUDE_DIR smumps_c.h PATH_SUFFIXES mumps_seq mumps)
find_library(MUMPS_LIBRARY smumps_seq)
# The threaded build by its own folder: the plain name may stand for a serial one.
find_library(OPENBLAS_LIBRARY openblas
  PATHS /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/openblas-pthread NO_DEFAULT_PATH)
find_library(OPENBLAS_LIBRARY openblas)

if(MUMPS_INCLUDE_DIR)
  file(STRINGS ${MUMPS_INCLUDE_DIR}/smumps_c.h line REGEX "define MUMPS_VERSION ")
  string(REGEX MATCH "[0-9]+\\.[0-9]+\\.[0-9]+" MUMPS_VERSION "${line}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenMaths
  REQUIRED_VARS MUMPS_LIBRARY OPENBLAS_LIBRARY MUMPS_INCLUDE_DIR
  REASON_FAILURE_MESSAGE "Debian's packages are libmumps-seq-dev and libopenblas-pthread-dev.")

if(OpenMaths_FOUND AND NOT TARGET OpenMaths::OpenMaths)
  add_library(OpenMaths::OpenMaths INTERFACE IMPORTED)
  target_include_directories(OpenMaths::OpenMaths SYSTEM INTERFACE ${MUMPS_INCLUDE_DIR})
  # OpenBLAS as a direct dependency comes before the BLAS that MUMPS itself was linked with.
  target_link_libraries(OpenMaths::OpenMaths INTERFACE
    -Wl,--no-as-needed ${OPENBLAS_LIBRARY} -Wl,--as-needed ${MUMPS_LIBRARY})
endif()
