#include "run/driver.hpp"

#include <cstdio>

#include "elements/assembly.hpp"
#include "elemlib/feinteg.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fenod.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "platform/ending.hpp"
#include "platform/memory.hpp"
#include "platform/process.hpp"
#include "platform/slot.hpp"
#include "platform/stop.hpp"
#include "response/compsave.hpp"
#include "run/load_case_table.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"
#include "solver/solversta.hpp"

namespace {

// The matrix is rebuilt on a change of pattern or where a saved element state was taken; otherwise
// matrix and factor stay as the last load case left them.
void RunElementPass() {
  if (VKCORE::PatternChanged) SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, FILES::Addresses.name);
  if (VKCORE::PatternChanged || (VKCORE::MatStateEnabled && !VKCORE::MatStateMissing))
    PREPARESYSMATRIXANDINTERNALFORCES();
  else
    PREPARESYSINTERNALFORCES();
}

// Posts the time since `start` behind the line's text.
void PostTime(const LOGLINES::Line& line, std::int64_t start, std::int64_t now) {
  LOGGER_POSTINF(std::string(line.text) + RUN_TIMETEXT(now - start, PLATFORM_CLOCKRATE()));
}

void RunLoadCase(std::int32_t number) {
  RUN::LoadCaseStartTicks = PLATFORM_CLOCKCOUNT();
  const LoadCaseRecord& record = RUN::LoadCases[Slot(number)];
  FELOADCASE_PREPARE(number, record.Kind, record.PatternIndex);
  RunElementPass();
  VKCORE_FORMRIGHTHANDSIDE();
  VKCORE_RUNANALYSIS();
  VKCORE_COMPSAVERESPONSE();
  if (VKCORE::MatStateEnabled) FELOADCASE_SAVESTATE(number);
  if (RUN_KEEPSDISPLACEMENTS(VKCORE::SolveQuality))
    FENOD_SAVEDISP(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(FILES::Displacements.name, number),
                   FEDOF::Displacements.get());
  RUN_MARKDONE(number);
  const std::int64_t now = PLATFORM_CLOCKCOUNT();
  PostTime(LOGLINES::LCaseTime, RUN::LoadCaseStartTicks, now);
  RUN::LoadCaseStartTicks = now;
}

// Enters the directory and takes its lock, which is held to the end of the process: two runs on one
// directory would mix their files. False where there are no locks to be had.
bool TakeDirectory(std::string_view directory) {
  const std::string quoted = '"' + std::string(directory) + '"';
  std::string reason;
  if (!PLATFORM_ENTERDIRECTORY(directory, reason))
    PLATFORM_STOP(StopDirectory, "cannot enter directory " + quoted + " (" + reason + ")");
  const DirectoryLock lock = PLATFORM_LOCKDIRECTORY();
  if (lock.state == DirectoryLock::State::HeldByOther)
    PLATFORM_STOP(StopLog,
                  "another run holds the directory " + quoted +
                      (lock.otherId == 0 ? std::string()
                                         : " (process " + std::to_string(lock.otherId) + ")"));
  if (lock.state == DirectoryLock::State::Failed)
    PLATFORM_STOP(StopLog, "cannot lock the directory " + quoted + " (" + lock.reason + ")");
  return lock.state == DirectoryLock::State::Held;
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
  RUN_READTABLES();
  FEMODEL_LOAD();
  FELOADCASE::PreviousPattern = 0;
  RUN_CHECKORDER();
}

void RUN_LOADCASES() {
  RUN_READINPUT();
  for (std::int32_t position = 1; position <= RUN::NumLoadCases; ++position)
    if (const std::int32_t number = RUN::LoadCases[Slot(position)].RunOrder; RUN_ISTORUN(number))
      RunLoadCase(number);
}

void RUN_ENTRY(std::string_view directory) {
  PLATFORM_GUARDEND(LOGGER_POSTLAST);
  PLATFORM_SPAREADDRESSES();
  const bool alone = TakeDirectory(directory);
  LOGGER_OPEN(LOGGER::FileName);
  if (alone) FILEIO_CLEARUNFINISHED();
  LOGGER_POSTINF(LOGLINES::Start.text);
  RUN::RunStartTicks = PLATFORM_CLOCKCOUNT();
  LOGGER_POSTINF(LOGLINES::Banner.text);
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  RUNOPT_READ(RUNOPT::Unit, RUNOPT::FileName);
  SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
  RUNOPT_SETTHREADS();
  RUN_LOADCASES();
  SOLVERSTA_RELEASE();
  PostTime(LOGLINES::TotalTime, RUN::RunStartTicks, PLATFORM_CLOCKCOUNT());
  LOGGER_POSTINF(LOGLINES::End.text);
  LOGGER_CLOSE();
  PLATFORM_END();
}
