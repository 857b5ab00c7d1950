// The instruction sets that kernels are compiled for, and the one that this process works with.
#pragma once

#include <string_view>

enum class InstructionSet { Portable, Avx2, Avx512 };  // kernel_input.hpp tells what each needs

// The largest set that the processor has, and that the C library has not been told to leave alone
// (GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX512F,-AVX2), where that can be asked. Constant for a run.
InstructionSet PLATFORM_INSTRUCTIONSET();

// Its name: "AVX-512", "AVX2", or "portable".
std::string_view PLATFORM_INSTRUCTIONSETNAME();
