// Module RUN, state: the table of load cases, read once, which of them are to run, and their flags,
// the restart point.
#pragma once

#include <cstdint>

#include "model/records.hpp"
#include "run/services/arrays.hpp"

namespace RUN {

inline std::int32_t NumLoadCases = 0;        // the count of mxs.lcflags
inline std::int32_t NumLoadCaseRecords = 0;  // rows of mxs.lcdata, where the two counts differ
inline Array<LoadCaseRecord> LoadCases;      // [load case]
inline Array<std::int32_t> LoadCaseFlags;    // [load case]; the restart point, rewritten as we go
inline Array<float> LoadCaseValues;          // [load case]; carried along unread

}  // namespace RUN

// Reads mxs.lcdata and mxs.lcflags. Aborts: format number, file and allocation failures.
void RUN_READTABLES();

// Aborts unless every position of the pass has a record, and every load case that can run its
// flags.
void RUN_CHECKORDER();

// True for a load case that is requested, not done and not excluded, of the kind that runs.
bool RUN_ISTORUN(std::int32_t number);

// Sets the done flag and rewrites mxs.lcflags. Last of all files of a load case: once this is
// written, the load case is never run again. The others are on the disk before it, and it is when
// this returns.
void RUN_MARKDONE(std::int32_t number);
