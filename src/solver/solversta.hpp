// Module SOLVERSTA, set-up: makes and frees the equation system of a constraint pattern.
#pragma once

#include <cstdint>
#include <string_view>

#include "solver/system_arrays.hpp"

namespace SOLVERSTA {

// Stored entries from which on a system takes 64-bit indices, in the iterative mode and in the
// others. Tests lower them to lead small systems down that path.
inline std::int64_t IterativeLimit = 2147000000;
inline std::int64_t FactorisedLimit = 500000000;

}  // namespace SOLVERSTA

// Reads the raw structure of all 3 x nodes components, drops the constrained ones, chooses the
// index path, posts the "SysConfig" line and allocates the system arrays, uncleared. Aborts: file
// and allocation failures; a raw structure that would lead outside its arrays or breaks the
// invariant.
void SOLVERSTA_CONFIGURE(int unit, std::string_view fileName);

// Reads NumRawRows, MaxBW, NumRawEntries, RawColumn and RawRowStart.
void SOLVERSTA_READADDRESSES(int unit, std::string_view fileName);
void SOLVERSTA_FREEADDRESSES();

// Frees the system arrays and a held factorisation. Called once, at the end of the run.
void SOLVERSTA_RELEASE();

// The index path for a system of `numEntries` entries in mode `iMode`: true for 32 bits.
inline bool SOLVERSTA_USESIM4(std::int64_t numEntries, std::int32_t iMode) {
  using namespace SOLVERSTA;
  return numEntries < (iMode == ModeIterative ? IterativeLimit : FactorisedLimit);
}
