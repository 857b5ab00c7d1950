#include "solver/sleblocks.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/memory.hpp"
#include "platform/slot.hpp"

namespace {

using SLEBLOCKS::BlockSize;
using SLEBLOCKS::Chunk;
using SLEBLOCKS::Lower;
using SLEBLOCKS::LowerSource;
using SLEBLOCKS::NumBlocks;
using SLEBLOCKS::NumRows;
using SLEBLOCKS::Triangle;
using SLEBLOCKS::Unknown;
using SLEBLOCKS::Upper;
using SLEBLOCKS::Width;

// A chunk streams about 100 kB of a triangle: long against the handing over of chunks, short enough
// to share a level out. The cut doesn't depend on the team, so that sums by chunk don't either.
constexpr std::int32_t ChunkRows = 64;

// With more padding than this, values held over entries stored, the plain sweeps move less.
constexpr std::int64_t LargestPadding = 2;

// Share of the available memory that the copy may take.
constexpr double MemoryShare = 0.8;

// The scaled diagonal is 1 up to rounding.
constexpr double DiagonalRounding = 1e-14;

// Structure in the order of the equations, while it is made.
struct Groups {
  std::int32_t count = 0;
  Array<std::int32_t> group;   // [equation] group of each equation
  Array<std::int32_t> start;   // [count + 1] first block of each group
  Array<std::int32_t> column;  // [blocks] neighbouring groups with higher equations, ascending
  Array<std::int32_t> place;   // [count] block row of each group
};

// True when row i + 1 (from 0) has the columns of row i but for i's own: the equations belong
// together.
bool SharesColumns(std::int32_t i, const std::int32_t* pR, const std::int32_t* pC) {
  const std::int64_t first = Slot(pR[i]) + 1;
  const std::int64_t next = Slot(pR[i + 1]);
  const std::int64_t length = next - first;
  return length > 0 && length == pR[i + 2] - pR[i + 1] &&
         std::memcmp(pC + first, pC + next, static_cast<std::size_t>(length) * sizeof *pC) == 0;
}

// Groups of up to three successive equations.
bool MakeGroups(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC, Groups& groups) {
  groups.group = ARRAYS_TRYALLOCATE<std::int32_t>(n);
  if (!groups.group) return false;
  std::int32_t* group = groups.group.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < n; ++i) group[i] = i + 1 < n && SharesColumns(i, pR, pC) ? 1 : 0;
  std::int32_t size = 0;
  bool joined = false;  // with the equation before
  for (std::int32_t i = 0; i < n; ++i) {
    if (!joined || size == Width) {
      ++groups.count;
      size = 0;
    }
    ++size;
    joined = group[i] != 0;
    group[i] = groups.count - 1;
  }
  return true;
}

// Calls `take` with each neighbouring group behind that of equation i, once.
template <class Take>
void ForNeighbours(std::int32_t i, const std::int32_t* pR, const std::int32_t* pC,
                   const std::int32_t* group, Take take) {
  std::int32_t last = group[i];
  for (std::int64_t k = Slot(pR[i]); k < Slot(pR[i + 1]); ++k)
    if (const std::int32_t g = group[Slot(pC[k])]; g != last) take(last = g);
}

bool IsFirst(std::int32_t i, const std::int32_t* group) {
  return i == 0 || group[i] != group[i - 1];
}

bool FindNeighbours(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                    Groups& groups) {
  groups.start = ARRAYS_TRYALLOCATE<std::int32_t>(std::int64_t{groups.count} + 1);
  if (!groups.start) return false;
  const std::int32_t* group = groups.group.get();
  std::int32_t* start = groups.start.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < n; ++i) {
    if (!IsFirst(i, group)) continue;
    std::int32_t count = 0;
    ForNeighbours(i, pR, pC, group, [&](std::int32_t) { ++count; });
    start[group[i] + 1] = count;
  }
  start[0] = 0;
  for (std::int32_t g = 0; g < groups.count; ++g) start[g + 1] += start[g];
  groups.column = ARRAYS_TRYALLOCATE<std::int32_t>(start[groups.count]);
  if (!groups.column) return false;
  std::int32_t* column = groups.column.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < n; ++i) {
    if (!IsFirst(i, group)) continue;
    std::int32_t next = start[group[i]];
    ForNeighbours(i, pR, pC, group, [&](std::int32_t g) { column[next++] = g; });
  }
  return true;
}

// Level of each group into `level`; returns the number of levels.
std::int32_t FindLevels(const Groups& groups, std::int32_t* level) {
  std::fill_n(level, groups.count, 0);
  std::int32_t highest = 0;
  for (std::int32_t g = 0; g < groups.count; ++g) {
    highest = std::max(highest, level[g]);
    for (std::int32_t k = groups.start[g]; k < groups.start[g + 1]; ++k)
      level[groups.column[k]] = std::max(level[groups.column[k]], level[g] + 1);
  }
  return groups.count > 0 ? highest + 1 : 0;
}

// Chunks of the levels, whose first rows are levelStart: a level of more than one chunk's rows is a
// stage of its own; smaller ones share a chunk, since a second thread would find nothing to do.
bool CutChunks(const std::int32_t* levelStart, std::int32_t levels) {
  SLEBLOCKS::Chunks = ARRAYS_TRYALLOCATE<Chunk>(NumRows / ChunkRows + 2 * std::int64_t{levels} + 1);
  if (!SLEBLOCKS::Chunks) return false;
  Chunk* chunks = SLEBLOCKS::Chunks.get();
  std::int32_t count = 0;
  bool joins = false;  // the last chunk takes a further small level
  for (std::int32_t l = 0; l < levels; ++l) {
    const std::int32_t first = levelStart[l];
    const std::int32_t last = levelStart[l + 1];
    const bool small = last - first <= ChunkRows;
    if (small && joins) {
      chunks[count - 1].last = last;
      continue;
    }
    joins = small;
    const std::int32_t parts = (last - first + ChunkRows - 1) / ChunkRows;
    for (std::int32_t part = 0; part < parts; ++part)
      chunks[count + part] = {
          first + static_cast<std::int32_t>(std::int64_t{last - first} * part / parts),
          first + static_cast<std::int32_t>(std::int64_t{last - first} * (part + 1) / parts), count,
          count + parts};
    count += parts;
  }
  SLEBLOCKS::NumChunks = count;
  return true;
}

// Block rows in level order, and the chunks.
bool OrderRows(Groups& groups) {
  NumRows = groups.count;
  Array<std::int32_t> level = ARRAYS_TRYALLOCATE<std::int32_t>(NumRows);
  groups.place = ARRAYS_TRYALLOCATE<std::int32_t>(NumRows);
  if (!level || !groups.place) return false;
  const std::int32_t levels = FindLevels(groups, level.get());
  Array<std::int32_t> start = ARRAYS_TRYALLOCATE<std::int32_t>(std::int64_t{levels} + 1);
  if (!start) return false;
  std::fill_n(start.get(), levels + 1, 0);
  for (std::int32_t g = 0; g < NumRows; ++g) ++start[level[g] + 1];
  for (std::int32_t l = 0; l < levels; ++l) start[l + 1] += start[l];
  if (!CutChunks(start.get(), levels)) return false;
  for (std::int32_t g = 0; g < NumRows; ++g) groups.place[g] = start[level[g]]++;
  return true;
}

bool AllocateTriangle(Triangle& triangle) {
  triangle.start = ARRAYS_TRYALLOCATE<std::int32_t>(std::int64_t{NumRows} + 1);
  triangle.column = ARRAYS_TRYALLOCATE<std::int32_t>(NumBlocks);
  // One more: the loops load a block's last column together with the value behind it.
  triangle.values = ARRAYS_TRYALLOCATE<double>(std::int64_t{NumBlocks} * BlockSize + 1);
  if (triangle.values) triangle.values[std::int64_t{NumBlocks} * BlockSize] = 0.0;
  return triangle.start && triangle.column && triangle.values;
}

void SumUp(Triangle& triangle) {
  triangle.start[0] = 0;
  for (std::int32_t r = 0; r < NumRows; ++r) triangle.start[r + 1] += triangle.start[r];
}

// Columns of both triangles, and where in Upper each block of Lower lies transposed.
void FillColumns(const Groups& groups) {
  const std::int32_t* place = groups.place.get();
  std::fill_n(Lower.start.get(), NumRows + 1, 0);
  for (std::int32_t g = 0; g < groups.count; ++g)
    Upper.start[place[g] + 1] = groups.start[g + 1] - groups.start[g];
  for (std::int32_t k = 0; k < NumBlocks; ++k) ++Lower.start[place[groups.column[k]] + 1];
  SumUp(Upper);
  SumUp(Lower);
  for (std::int32_t g = 0; g < groups.count; ++g) {
    std::int32_t upper = Upper.start[place[g]];
    for (std::int32_t k = groups.start[g]; k < groups.start[g + 1]; ++k, ++upper) {
      const std::int32_t other = place[groups.column[k]];
      Upper.column[upper] = other;
      const std::int32_t lower = Lower.start[other]++;
      Lower.column[lower] = place[g];
      LowerSource[lower] = upper;
    }
  }
  for (std::int32_t r = NumRows; r > 0; --r) Lower.start[r] = Lower.start[r - 1];
  Lower.start[0] = 0;
}

void NumberUnknowns(std::int32_t n, const Groups& groups) {
  std::int32_t lane = 0;
  for (std::int32_t i = 0; i < n; ++i) {
    lane = IsFirst(i, groups.group.get()) ? 0 : lane + 1;
    Unknown[i] = Width * groups.place[groups.group[i]] + lane;
  }
}

// False when memory is short or blocks fit the structure badly.
bool BuildStructure(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC) {
  Groups groups;
  if (!MakeGroups(n, pR, pC, groups) || !FindNeighbours(n, pR, pC, groups)) return false;
  NumBlocks = groups.start[groups.count];
  const std::int64_t held = std::int64_t{BlockSize} * (NumBlocks + std::int64_t{groups.count});
  if (held > LargestPadding * (pR[n] - 1)) return false;
  const auto available = static_cast<double>(PLATFORM_AVAILABLEMEMORY());
  if (static_cast<double>(SLEBLOCKS_BYTES(groups.count, NumBlocks)) > MemoryShare * available)
    return false;
  if (!OrderRows(groups) || !AllocateTriangle(Upper) || !AllocateTriangle(Lower)) return false;
  LowerSource = ARRAYS_TRYALLOCATE<std::int32_t>(NumBlocks);
  SLEBLOCKS::Diagonal = ARRAYS_TRYALLOCATE<double>(std::int64_t{NumRows} * Width);
  Unknown = ARRAYS_TRYALLOCATE<std::int32_t>(n);
  if (!LowerSource || !SLEBLOCKS::Diagonal || !Unknown) return false;
  FillColumns(groups);
  NumberUnknowns(n, groups);
  SLEBLOCKS::NumEquations = n;
  return true;
}

// Place of entry (lane, other) above the diagonal of a diagonal block: (1,2), (1,3), (2,3).
int DiagonalPlace(int lane, int other) { return lane + other - 1; }

// The values of equation i, whose unknown is u. False: its diagonal isn't 1.
bool FillEquation(std::int32_t i, const std::int32_t* pR, const std::int32_t* pC,
                  const double* matrix) {
  const std::int32_t row = Unknown[i] / Width;
  const int lane = Unknown[i] % Width;
  std::int64_t block = Upper.start[row];
  for (std::int64_t k = Slot(pR[i]) + 1; k < Slot(pR[i + 1]); ++k) {
    const std::int32_t other = Unknown[Slot(pC[k])];
    if (other / Width == row) {
      SLEBLOCKS::Diagonal[Width * std::int64_t{row} + DiagonalPlace(lane, other % Width)] =
          matrix[k];
      continue;
    }
    while (Upper.column[block] != other / Width) ++block;
    Upper.values[BlockSize * block + std::int64_t{Width} * (other % Width) + lane] = matrix[k];
  }
  return std::fabs(matrix[Slot(pR[i])] - 1.0) <= DiagonalRounding;
}

void ClearRow(std::int32_t row) {
  std::fill_n(&SLEBLOCKS::Diagonal[Width * std::int64_t{row}], Width, 0.0);
  std::fill(Upper.values.get() + BlockSize * std::int64_t{Upper.start[row]},
            Upper.values.get() + BlockSize * std::int64_t{Upper.start[row + 1]}, 0.0);
}

void TransposeRow(std::int32_t row) {
  for (std::int64_t k = Lower.start[row]; k < Lower.start[row + 1]; ++k) {
    const double* from = &Upper.values[BlockSize * std::int64_t{LowerSource[k]}];
    double* to = &Lower.values[BlockSize * k];
    for (std::int64_t i = 0; i < Width; ++i)
      for (std::int64_t j = 0; j < Width; ++j) to[Width * i + j] = from[Width * j + i];
  }
}

bool FillValues(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                const double* matrix) {
  bool unit = true;
#pragma omp parallel
  {
#pragma omp for schedule(static)
    for (std::int32_t row = 0; row < NumRows; ++row) ClearRow(row);
#pragma omp for schedule(static) reduction(&& : unit)
    for (std::int32_t i = 0; i < n; ++i) unit = FillEquation(i, pR, pC, matrix) && unit;
#pragma omp for schedule(static)
    for (std::int32_t row = 0; row < NumRows; ++row) TransposeRow(row);
  }
  return unit;
}

void FreeTriangle(Triangle& triangle) {
  triangle.start.reset();
  triangle.column.reset();
  triangle.values.reset();
}

}  // namespace

void SLEBLOCKS_BUILD(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                     const double* matrix) {
  SLEBLOCKS::HoldsMatrix = false;
  if (SLEBLOCKS::NumEquations != n) SLEBLOCKS_RELEASE();
  if (SLEBLOCKS::NumEquations == 0 && !BuildStructure(n, pR, pC)) return SLEBLOCKS_RELEASE();
  SLEBLOCKS::HoldsMatrix = FillValues(n, pR, pC, matrix);
}

void SLEBLOCKS_RELEASE() {
  SLEBLOCKS::HoldsMatrix = false;
  SLEBLOCKS::NumEquations = NumRows = NumBlocks = SLEBLOCKS::NumChunks = 0;
  FreeTriangle(Upper);
  FreeTriangle(Lower);
  LowerSource.reset();
  SLEBLOCKS::Diagonal.reset();
  Unknown.reset();
  SLEBLOCKS::Chunks.reset();
}
