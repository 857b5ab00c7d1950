# The kernel sources, each with the compiler options of its instruction set.
#
# vk_add_kernels(<target>) adds them to the target. On x86-64 the templates are compiled three times
# (baseline, AVX2 with FMA, AVX-512 at 256 bits) and the program chooses by the processor when it starts;
# elsewhere only the portable source exists.
#
# Contraction to fused multiply-add is allowed in these files alone: the force sums of the forces
# and of the matrix kernels run the same instructions, so they stay equal to the last bit.
function(vk_add_kernels target)
  set(dir ${PROJECT_SOURCE_DIR}/src/elements/isa)
  set(common -ffp-contract=fast -fno-math-errno $<$<NOT:$<CONFIG:Debug>>:-O3>
    # Clearing 7 kB by vector stores is faster than by the string instruction GCC would make of it.
    $<$<CXX_COMPILER_ID:GNU>:-fno-tree-loop-distribute-patterns>)
  set(sources ${dir}/kernel_portable.cpp)
  set_source_files_properties(${dir}/kernel_portable.cpp PROPERTIES COMPILE_OPTIONS "${common}")
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
    list(APPEND sources ${dir}/kernel_avx2.cpp ${dir}/kernel_avx512.cpp)
    set(avx2 ${common} -mavx2 -mfma)
    set(avx512 ${avx2} -mavx512f -mavx512dq -mavx512vl -mprefer-vector-width=256)
    set_source_files_properties(${dir}/kernel_avx2.cpp PROPERTIES COMPILE_OPTIONS "${avx2}")
    set_source_files_properties(${dir}/kernel_avx512.cpp PROPERTIES COMPILE_OPTIONS "${avx512}")
  endif()
  target_sources(${target} PRIVATE ${sources})
endfunction()
