#include "run/load_case_table.hpp"

#include <algorithm>

#include "model/fileio.hpp"
#include "model/files.hpp"
#include "platform/slot.hpp"
#include "run/services/logger.hpp"

namespace {

using RUN::LoadCaseFlags;
using RUN::LoadCases;
using RUN::LoadCaseValues;
using RUN::NumLoadCaseRecords;
using RUN::NumLoadCases;

void ReadRecords() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::LoadCases.name);
  NumLoadCases = FILEIO_READVALUE<std::int32_t>();
  if (FILEIO_READVALUE<std::int32_t>() != LoadCaseFormat)
    LOGGER_POSTERRABORT("Incompatible preprocessed files. Run preprocesor again.");
  LoadCases = FILEIO_READARRAY<LoadCaseRecord>(NumLoadCases);
  NumLoadCaseRecords = std::max(NumLoadCases, 0);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

// The count here replaces the one of mxs.lcdata without comparison.
void ReadFlags() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::LoadCaseFlags.name);
  LoadCaseFlags = FILEIO_READTABLE<std::int32_t>(NumLoadCases);
  LoadCaseValues = FILEIO_READARRAY<float>(NumLoadCases);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

}  // namespace

void RUN_READTABLES() {
  ReadRecords();
  ReadFlags();
}

void RUN_CHECKORDER() {
  for (std::int32_t i = 1; i <= NumLoadCases; ++i) {
    if (i > NumLoadCaseRecords) FILEIO_INVALIDINDEX(FILES::LoadCases.name);
    const std::int32_t j = LoadCases[Slot(i)].RunOrder;
    if (j < 1 || j > NumLoadCaseRecords) FILEIO_INVALIDINDEX(FILES::LoadCases.name);
    if (LoadCases[Slot(j)].Kind == LoadCaseStatic && j > NumLoadCases)
      FILEIO_INVALIDINDEX(FILES::LoadCases.name);
  }
}

bool RUN_ISTORUN(std::int32_t number) {
  if (LoadCases[Slot(number)].Kind != LoadCaseStatic) return false;
  const std::int32_t flags = LoadCaseFlags[Slot(number)];
  return (flags & LoadCaseRequested) != 0 && (flags & (LoadCaseDone | LoadCaseExcluded)) == 0;
}

void RUN_MARKDONE(std::int32_t number) {
  FILEIO_SYNCFOLDERS(FILEIO::WriteUnit);
  LoadCaseFlags[Slot(number)] |= LoadCaseDone;
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILES::LoadCaseFlags.name);
  FILEIO_WRITEVALUE(NumLoadCases);
  FILEIO_WRITEARRAY(LoadCaseFlags.get(), NumLoadCases);
  FILEIO_WRITEARRAY(LoadCaseValues.get(), NumLoadCases);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
  FILEIO_SYNCFOLDERS(FILEIO::WriteUnit);
}
