#include "platform/processor.hpp"

#if defined(__x86_64__) && __has_include(<sys/platform/x86.h>)
#ifdef __clang__
using _Bool = bool;  // the header is written in C's terms; NOLINT(bugprone-reserved-identifier)
#endif
#include <sys/platform/x86.h>
#endif

namespace {

struct Features {
  bool avx2, fma, avx512f, avx512dq, avx512vl;
};

Features AskFeatures() {
#if defined(__x86_64__) && defined(CPU_FEATURE_ACTIVE)
  return {.avx2 = CPU_FEATURE_ACTIVE(AVX2) != 0,
          .fma = CPU_FEATURE_ACTIVE(FMA) != 0,
          .avx512f = CPU_FEATURE_ACTIVE(AVX512F) != 0,
          .avx512dq = CPU_FEATURE_ACTIVE(AVX512DQ) != 0,
          .avx512vl = CPU_FEATURE_ACTIVE(AVX512VL) != 0};
#elif defined(__x86_64__)
  return {.avx2 = __builtin_cpu_supports("avx2") != 0,
          .fma = __builtin_cpu_supports("fma") != 0,
          .avx512f = __builtin_cpu_supports("avx512f") != 0,
          .avx512dq = __builtin_cpu_supports("avx512dq") != 0,
          .avx512vl = __builtin_cpu_supports("avx512vl") != 0};
#else
  return {};
#endif
}

InstructionSet Choose() {
  const Features has = AskFeatures();
  if (!has.avx2 || !has.fma) return InstructionSet::Portable;
  return has.avx512f && has.avx512dq && has.avx512vl ? InstructionSet::Avx512
                                                     : InstructionSet::Avx2;
}

}  // namespace

InstructionSet PLATFORM_INSTRUCTIONSET() {
  static const InstructionSet chosen = Choose();
  return chosen;
}

std::string_view PLATFORM_INSTRUCTIONSETNAME() {
  const InstructionSet set = PLATFORM_INSTRUCTIONSET();
  if (set == InstructionSet::Avx512) return "AVX-512";
  return set == InstructionSet::Avx2 ? "AVX2" : "portable";
}
