# The sources that are compiled once for each instruction set, with its compiler options: the element
# kernels, and the loops of the one-pass iteration.
#
# vk_add_kernels(<target>) adds them to the target. On x86-64 there are kernels for the baseline, AVX2
# with FMA, and AVX-512 at 256 bits, and the program chooses by the processor when it starts;
# elsewhere only the portable sources exist.
#
# Contraction to fused multiply-add is allowed in these files alone: the force sums of the forces
# and of the matrix kernels run the same instructions, so they stay equal to the last bit.
function(vk_add_kernels target)
  set(common -ffp-contract=fast -fno-math-errno $<$<NOT:$<CONFIG:Debug>>:-O3>
    # Clearing 7 kB by vector stores is faster than by the string instruction GCC would make of it.
    $<$<CXX_COMPILER_ID:GNU>:-fno-tree-loop-distribute-patterns>)
  set(avx2 ${common} -mavx2 -mfma)
  set(avx512 ${avx2} -mavx512f -mavx512dq -mavx512vl -mprefer-vector-width=256)
  # The portable vectors of four doubles are passed to inlined functions only.
  vk_add_isa(${target} "${common};-Wno-psabi" elements/isa/kernel_portable.cpp solver/isa/onepass_portable.cpp)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    vk_add_isa(${target} "${avx2}" elements/isa/kernel_avx2.cpp solver/isa/onepass_avx2.cpp)
    vk_add_isa(${target} "${avx512}" elements/isa/kernel_avx512.cpp)
  endif()
endfunction()

# Sources below src/ with the options of one instruction set.
function(vk_add_isa target options)
  list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/src/)
  set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${options}")
  target_sources(${target} PRIVATE ${ARGN})
endfunction()
