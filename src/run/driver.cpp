#include "run/driver.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "elements/assembly.hpp"
#include "elemlib/feinteg.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fenod.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "platform/process.hpp"
#include "platform/stop.hpp"
#include "response/compsave.hpp"
#include "run/services/logger.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"
#include "solver/solversta.hpp"

namespace {

using RUN::LoadCaseFlags;
using RUN::LoadCases;
using RUN::LoadCaseValues;
using RUN::NumLoadCaseRecords;
using RUN::NumLoadCases;

constexpr std::string_view LogName = "vk_rund_log.txt";

void ReadLoadCaseTable() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::LoadCases.name);
  NumLoadCases = FILEIO_READVALUE<std::int32_t>();
  if (FILEIO_READVALUE<std::int32_t>() != LoadCaseFormat)
    LOGGER_POSTERRABORT("Incompatible preprocessed files. Run preprocesor again.");
  LoadCases = FILEIO_READARRAY<LoadCaseRecord>(NumLoadCases);
  NumLoadCaseRecords = std::max(NumLoadCases, 0);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

// The count here replaces the one of mxs.lcdata without comparison.
void ReadLoadCaseFlags() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::LoadCaseFlags.name);
  LoadCaseFlags = FILEIO_READTABLE<std::int32_t>(NumLoadCases);
  LoadCaseValues = FILEIO_READARRAY<float>(NumLoadCases);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

// Every position of the pass needs a record, and every load case that can run its flags.
void CheckRunOrder() {
  for (std::int32_t i = 1; i <= NumLoadCases; ++i) {
    if (i > NumLoadCaseRecords) FILEIO_INVALIDINDEX(FILES::LoadCases.name);
    const std::int32_t j = LoadCases[Slot(i)].RunOrder;
    if (j < 1 || j > NumLoadCaseRecords) FILEIO_INVALIDINDEX(FILES::LoadCases.name);
    if (LoadCases[Slot(j)].Kind == LoadCaseStatic && j > NumLoadCases)
      FILEIO_INVALIDINDEX(FILES::LoadCases.name);
  }
}

bool IsToRun(std::int32_t number) {
  if (LoadCases[Slot(number)].Kind != LoadCaseStatic) return false;
  const std::int32_t flags = LoadCaseFlags[Slot(number)];
  return (flags & LoadCaseRequested) != 0 && (flags & (LoadCaseDone | LoadCaseExcluded)) == 0;
}

// The matrix is rebuilt on a change of pattern or where a saved element state was taken; otherwise
// matrix and factor stay as the last load case left them.
void RunElementPass() {
  if (VKCORE::PatternChanged) SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, FILES::Addresses.name);
  if (VKCORE::PatternChanged || (VKCORE::MatStateEnabled && !VKCORE::MatStateMissing))
    PREPARESYSMATRIXANDINTERNALFORCES();
  else
    PREPARESYSINTERNALFORCES();
}

void SetRightHandSide() {
  std::fill(std::begin(VKCORE::AppliedLoadSum), std::end(VKCORE::AppliedLoadSum), 0.0);
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    SOLVERSTA::SysRhs[i] = -SOLVERSTA::SysForces[i];
}

void WriteElementState(std::int32_t number) {
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(FILES::ElementState.name, number));
  FILEIO_WRITEVALUE(FEMODEL::NumElements);
  FILEIO_WRITEARRAY(FELOADCASE::ElementState.get(), FEMODEL::NumElements);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
}

// Last of all files of a load case: once this is written, the load case is never run again.
void MarkDone(std::int32_t number) {
  LoadCaseFlags[Slot(number)] |= LoadCaseDone;
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILES::LoadCaseFlags.name);
  FILEIO_WRITEVALUE(NumLoadCases);
  FILEIO_WRITEARRAY(LoadCaseFlags.get(), NumLoadCases);
  FILEIO_WRITEARRAY(LoadCaseValues.get(), NumLoadCases);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
}

// Posts the time since `start` behind the message text.
void PostTime(const std::string& message, std::int64_t start, std::int64_t now) {
  LOGGER_POSTINF(message + RUN_TIMETEXT(now - start, PLATFORM_CLOCKRATE()));
}

void RunLoadCase(std::int32_t number) {
  RUN::LoadCaseStartTicks = PLATFORM_CLOCKCOUNT();
  FELOADCASE_PREPARE(number, LoadCases[Slot(number)].Kind, LoadCases[Slot(number)].PatternIndex);
  RunElementPass();
  SetRightHandSide();
  PUSHALLLOADSTOSOLVER();
  VKCORE_RUNANALYSIS();
  VKCORE_COMPSAVERESPONSE();
  if (VKCORE::MatStateEnabled) WriteElementState(number);
  if (RUN_KEEPSDISPLACEMENTS(VKCORE::SolveQuality))
    FENOD_SAVEDISP(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(FILES::Displacements.name, number),
                   FELOADCASE::Displacements.get());
  MarkDone(number);
  const std::int64_t now = PLATFORM_CLOCKCOUNT();
  PostTime("LCaseTime: ", RUN::LoadCaseStartTicks, now);
  RUN::LoadCaseStartTicks = now;
}

}  // namespace

std::string RUN_TIMETEXT(std::int64_t ticks, std::int64_t rate) {
  float t = static_cast<float>(ticks) / static_cast<float>(rate);
  const auto hours = static_cast<std::int32_t>(t / 3600.0f);
  t -= static_cast<float>(hours * 3600);
  const auto minutes = static_cast<std::int32_t>(t / 60.0f);
  t -= static_cast<float>(minutes * 60);
  const auto seconds = static_cast<std::int32_t>(t);
  const auto milliseconds = static_cast<std::int32_t>((t - static_cast<float>(seconds)) * 1000.0f);
  char text[64];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", hours, minutes, seconds, milliseconds);
  return std::string(text).substr(0, 16);
}

void RUN_READINPUT() {
  ReadLoadCaseTable();
  ReadLoadCaseFlags();
  FEMODEL_LOAD();
  CheckRunOrder();
}

void RUN_LOADCASES() {
  RUN_READINPUT();
  for (std::int32_t position = 1; position <= NumLoadCases; ++position)
    if (const std::int32_t number = LoadCases[Slot(position)].RunOrder; IsToRun(number))
      RunLoadCase(number);
}

void RUN_ENTRY(std::string_view directory) {
  if (!PLATFORM_ENTERDIRECTORY(directory))
    PLATFORM_STOP(StopDirectory, "cannot enter directory \"" + std::string(directory) + "\"");
  LOGGER_OPEN(LogName);
  LOGGER_POSTINF("Tool.vk_rund.Start");
  RUN::RunStartTicks = PLATFORM_CLOCKCOUNT();
  LOGGER_POSTINF("Eng x64 TLMx/IC/ID Build 2018.06.03");
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  RUNOPT_READ(RUNOPT::Unit, RUNOPT::FileName);
  SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
  RUNOPT_SETTHREADS();
  RUN_LOADCASES();
  SOLVERSTA_RELEASE();
  PostTime("Total time: ", RUN::RunStartTicks, PLATFORM_CLOCKCOUNT());
  LOGGER_POSTINF("Tool.vk_rund.End");
  LOGGER_CLOSE();
  std::exit(0);
}
