#include "solver/solversta.hpp"

#include <algorithm>
#include <cstdio>
#include <string>

#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "platform/slot.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "solver/sleblocks.hpp"
#include "solver/slepardisosolver.hpp"

namespace {

constexpr std::string_view IndexArraysFailure = "Error allocating pC and pR arrays.";

// The raw structure; lives only during SOLVERSTA_CONFIGURE. 1-based values.
std::int32_t NumRawRows = 0;
std::int64_t NumRawEntries = 0;
Array<std::int32_t> RawColumn;
Array<std::int64_t> RawRowStart;

// What the compression trusts of a row that is kept: its entries lie inside the file's, and its
// first one, the place of its diagonal, not among those already written.
bool IsRowSound(std::int64_t row, std::int64_t written) {
  const std::int64_t first = RawRowStart[Slot(row)];
  const std::int64_t end = RawRowStart[Slot(row + 1)];
  return first > written && first <= NumRawEntries && end >= first && end <= NumRawEntries + 1;
}

// Drops the rows and columns of components without equation, in place: the write position never
// passes the read position. Returns the number of entries kept; NumRawRows becomes the rows kept.
// `map` ([components]): equation number of each raw row, not positive for none. The columns that
// are kept must ascend from the diagonal; dropped rows and columns may stand in any order.
std::int64_t CompressAddresses(const std::int32_t* map, std::int64_t components,
                               std::string_view fileName) {
  std::int64_t written = 0;
  std::int64_t rows = 0;
  for (std::int64_t r = 1; r <= NumRawRows; ++r) {
    const std::int32_t equation = map[Slot(r)];
    if (equation <= 0) continue;
    if (!IsRowSound(r, written)) FILEIO_INVALIDINDEX(fileName);
    const std::int64_t first = RawRowStart[Slot(r)];
    const std::int64_t end = RawRowStart[Slot(r + 1)];
    RawRowStart[Slot(++rows)] = ++written;
    RawColumn[Slot(written)] = equation;
    std::int32_t previous = equation;
    for (std::int64_t k = first + 1; k < end; ++k) {
      const std::int32_t component = RawColumn[Slot(k)];
      if (component < 1 || component > components) FILEIO_INVALIDINDEX(fileName);
      const std::int32_t column = map[Slot(component)];
      if (column <= 0) continue;
      if (column <= previous) FILEIO_INVALIDINDEX(fileName);
      RawColumn[Slot(++written)] = previous = column;
    }
  }
  if (rows != FEDOF::NumEquations) FILEIO_INVALIDINDEX(fileName);
  RawRowStart[Slot(rows + 1)] = written + 1;
  NumRawRows = static_cast<std::int32_t>(rows);
  return written;
}

void PostConfiguration() {
  const float equations = static_cast<float>(SOLVERSTA::NumEquations) / 1e6f;
  const float entries = static_cast<float>(SOLVERSTA::NumEntries) / 1e6f;
  char numbers[49];
  std::snprintf(numbers, sizeof numbers, "%d/%.2f/%.2f", SOLVERSTA::MaxBW,
                static_cast<double>(equations), static_cast<double>(entries));
  const LOGLINES::Line& line = SOLVERSTA::UseIm4 ? LOGLINES::SysConfig32 : LOGLINES::SysConfig64;
  LOGGER_POSTINF(std::string(line.text) + numbers);
}

template <class Index>
void CopyAddresses(std::int64_t entries, Array<Index>& pR, Array<Index>& pC) {
  pC = ARRAYS_ALLOCATE<Index>(SOLVERSTA::NumEntries, IndexArraysFailure);
  pR = ARRAYS_ALLOCATE<Index>(std::int64_t{SOLVERSTA::NumEquations} + 1, IndexArraysFailure);
  std::transform(RawColumn.get(), RawColumn.get() + entries, pC.get(),
                 [](std::int32_t v) { return static_cast<Index>(v); });
  std::transform(RawRowStart.get(), RawRowStart.get() + SOLVERSTA::NumEquations + 1, pR.get(),
                 [](std::int64_t v) { return static_cast<Index>(v); });
}

void FreeIndexPairs() {
  SOLVERSTA::pC4.reset();
  SOLVERSTA::pR4.reset();
  SOLVERSTA::pC8.reset();
  SOLVERSTA::pR8.reset();
}

void FreeSystemArrays() {
  SLEBLOCKS_RELEASE();
  SOLVERSTA::SysForces.reset();
  SOLVERSTA::SysMatrix.reset();
  SOLVERSTA::SysRhs.reset();
  SOLVERSTA::SysScale.reset();
  SOLVERSTA::SysMatrixSP.reset();
}

void AllocateSystemArrays() {
  FreeSystemArrays();
  SOLVERSTA::SysForces = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
  SOLVERSTA::SysMatrix = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEntries);
  SOLVERSTA::SysRhs = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
  SOLVERSTA::SysScale = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
}

}  // namespace

void SOLVERSTA_READADDRESSES(int unit, std::string_view fileName) {
  FILEIO_OPENREAD(unit, fileName);
  NumRawRows = FILEIO_READVALUE<std::int32_t>();
  SOLVERSTA::MaxBW = FILEIO_READVALUE<std::int32_t>();
  NumRawEntries = FILEIO_READVALUE<std::int64_t>();
  if (NumRawRows > 0) {
    NumRawEntries = std::max<std::int64_t>(NumRawEntries, 0);
    const std::int64_t starts = std::int64_t{NumRawRows} + 1;
    FILEIO_REQUIRE(NumRawEntries, sizeof(std::int32_t));
    FILEIO_REQUIRE(starts, sizeof(std::int64_t));
    RawColumn = ARRAYS_ALLOCATE<std::int32_t>(NumRawEntries, IndexArraysFailure);
    RawRowStart = ARRAYS_ALLOCATE<std::int64_t>(starts, IndexArraysFailure);
    FILEIO_READBLOCK(RawColumn.get(), NumRawEntries * std::int64_t{sizeof(std::int32_t)});
    FILEIO_READBLOCK(RawRowStart.get(), starts * std::int64_t{sizeof(std::int64_t)});
  }
  FILEIO_CLOSEREAD(unit);
}

void SOLVERSTA_FREEADDRESSES() {
  RawColumn.reset();
  RawRowStart.reset();
}

void SOLVERSTA_CONFIGURE(int unit, std::string_view fileName) {
  SOLVERSTA_FREEADDRESSES();
  SOLVERSTA_READADDRESSES(unit, fileName);
  const std::int64_t components = 3 * std::int64_t{FEMODEL::NumNodes};
  if (NumRawRows < 1 || NumRawRows > components) FILEIO_INVALIDINDEX(fileName);
  Array<std::int32_t> map = ARRAYS_ALLOCATE<std::int32_t>(components);
  std::copy_n(FEDOF::NodeDofMap.get(), components, map.get());
  const std::int64_t entries = CompressAddresses(map.get(), components, fileName);
  map.reset();

  SOLVERSTA::NumEquations = NumRawRows;
  SOLVERSTA::NumEntries = static_cast<std::int32_t>(entries);
  SOLVERSTA::UseIm4 = SOLVERSTA_USESIM4(SOLVERSTA::NumEntries, SOLVERSTA::IMode);
  PostConfiguration();
  FreeIndexPairs();
  // A wrapped count is outside what the index arrays can be made for.
  if (SOLVERSTA::NumEntries != entries) LOGGER_POSTERRABORT(IndexArraysFailure);
  SOLVERSTA_WITHINDICES([entries](auto& pR, auto& pC) { CopyAddresses(entries, pR, pC); });
  SOLVERSTA_FREEADDRESSES();
  AllocateSystemArrays();
}

void SOLVERSTA_RELEASE() {
  FreeIndexPairs();
  FreeSystemArrays();
  if (SLEPARDISOSOLVER_HASFACTOR()) SLEPARDISOSOLVER_RELEASE();
}
