// Everything that reads a file of the working directory, on files that may hold anything. Beyond
// the readers, the passes over elements, supports and loads run, since they follow the indices that
// the readers let through; the solver is left out, which makes this target the faster one.
#include <omp.h>

#include <algorithm>

#include "directory.hpp"
#include "elements/assembly.hpp"
#include "elements/feelem.hpp"
#include "elemlib/feinteg.hpp"
#include "memory_files.hpp"
#include "model/fenod.hpp"
#include "platform/process.hpp"
#include "response/compsave.hpp"
#include "run/services/runopt.hpp"
#include "solver/analysis.hpp"
#include "support/module_state.hpp"

namespace {

// What a run does with a load case, up to and from the solver.
void PassOver(std::int32_t number) {
  const LoadCaseRecord& record = RUN::LoadCases[Slot(number)];
  FELOADCASE_PREPARE(number, record.Kind, record.PatternIndex);
  if (VKCORE::PatternChanged) SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, "mxs.sadr");
  PREPARESYSMATRIXANDINTERNALFORCES();
  PREPARESYSINTERNALFORCES();
  VKCORE_FORMRIGHTHANDSIDE();
  VKCORE::TcBlendFactor = 0.5f;
  VKCORE_COMPSAVERESPONSE();
  FENOD_SAVEDISP(FILEIO::WriteUnit, "ws.out", FEDOF::Displacements.get());
}

void RunDirectory() {
  RUNOPT_READ(RUNOPT::Unit, RUNOPT::FileName);
  SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
  RUN_READINPUT();
  for (std::int32_t i = 1; i <= std::min(RUN::NumLoadCases, 3); ++i)
    PassOver(RUN::LoadCases[Slot(i)].RunOrder);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  PLATFORM_FLUSHTOZERO();
  omp_set_num_threads(1);
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Write(Unpack({reinterpret_cast<const char*>(data), size}));
  ResetModules();
  MEMORYFILES::Mounted = true;
  LOGGER_OPEN(LOGGER::FileName);
  try {
    RunDirectory();
  } catch (const Stopped&) {
    // An error was told: as good an end as any.
  }
  ResetModules();
  MEMORYFILES::Mounted = false;
  return 0;
}
