// The whole pass over a directory that may hold anything, solver included, in all modes: every load
// case is prepared, solved and saved, then run again from what it saved. After each pass the
// directory, the log and the flags must tell one story (run_checks.hpp).
//
// Some inputs run on 64-bit indices, and some twice, with different bytes in fresh memory: a result
// that depends on those read what nobody wrote. Which, is decided by the input itself, so that a
// finding repeats.
#include <omp.h>

#include <algorithm>
#include <cstring>

#include "directory.hpp"
#include "elemlib/feinteg.hpp"
#include "memory_files.hpp"
#include "platform/memory.hpp"
#include "platform/process.hpp"
#include "run/services/runopt.hpp"
#include "run_checks.hpp"
#include "solver/solversta.hpp"
#include "support/module_state.hpp"

namespace {

unsigned char FreshByte = 0;  // what newly allocated memory holds

constexpr std::uint32_t Mix(std::string_view input) {
  std::uint32_t hash = 2166136261u;
  for (const char c : input) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
  return hash ^ hash >> 15;
}

struct Variant {
  bool wide, twice, repeated;
};

Variant Choose(std::string_view input) {
  const std::uint32_t mix = Mix(input);
  return {.wide = mix % 8 == 0, .twice = mix / 8 % 16 == 0, .repeated = mix / 128 % 4 == 0};
}

// The run between entry and end of the program. False: an error ended it.
bool RunToEnd() {
  LOGGER_OPEN(LOGGER::FileName);
  try {
    LOGGER_POSTINF(LOGLINES::Start.text);
    RUNOPT_READ(RUNOPT::Unit, RUNOPT::FileName);
    SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
    RUN_LOADCASES();
    SOLVERSTA_RELEASE();
    LOGGER_POSTINF(LOGLINES::End.text);
    LOGGER_CLOSE();
    return true;
  } catch (const Stopped&) {
    return false;
  }
}

bool CheckedRun(bool wide) {
  const MemoryFiles before = MEMORYFILES::Files;
  ResetModules();
  if (wide) SOLVERSTA::IterativeLimit = SOLVERSTA::FactorisedLimit = 1;
  const bool ended = RunToEnd();
  CheckRun(before, ended);
  ResetModules();
  return ended;
}

// The same directory with other bytes in fresh memory.
void RunOnOtherMemory(const Directory& directory, bool wide) {
  const MemoryFiles first = MEMORYFILES::Files;
  Write(directory);
  FreshByte = 0x7B;
  CheckedRun(wide);
  CheckSame(first, MEMORYFILES::Files);
  FreshByte = 0xFF;
}

// The run after the last one, with nothing left to do, then with all to do again.
void RunAgain(const Directory& directory, bool wide) {
  const MemoryFiles done = MEMORYFILES::Files;
  if (!CheckedRun(wide)) Finding("a directory that was run to its end can't be run again");
  CheckSame(done, MEMORYFILES::Files, FilesButTheLog);
  MEMORYFILES_PUT(FileNames[FlagsFile], directory[FlagsFile]);
  CheckedRun(wide);
}

// What the targets' files in memory stand for is what the program asks of a system, or no seed
// would pass.
void RunSeeds() {
  for (unsigned seed = 1; seed <= 64; ++seed) {
    Random random(seed);
    Write(Seed(random));
    if (!CheckedRun(seed % 2 == 0)) Finding("a valid directory can't be run:\n" + LogText());
  }
}

}  // namespace

extern "C" void* __real__Z17PLATFORM_ALLOCATEl(std::int64_t bytes);
extern "C" void* __wrap__Z17PLATFORM_ALLOCATEl(std::int64_t bytes) {
  void* memory = __real__Z17PLATFORM_ALLOCATEl(bytes);
  if (memory != nullptr) std::memset(memory, FreshByte, static_cast<std::size_t>(bytes));
  return memory;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  PLATFORM_FLUSHTOZERO();
  omp_set_num_threads(1);
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  FreshByte = 0xFF;
  MEMORYFILES::Mounted = true;
  RunSeeds();
  MEMORYFILES::Mounted = false;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input{reinterpret_cast<const char*>(data), size};
  const Directory directory = Unpack(input);
  const Variant variant = Choose(input);
  Write(directory);
  MEMORYFILES::Mounted = true;
  const bool ended = CheckedRun(variant.wide);
  if (variant.twice) RunOnOtherMemory(directory, variant.wide);
  if (ended && variant.repeated) RunAgain(directory, variant.wide);
  MEMORYFILES::Mounted = false;
  return 0;
}
