#include "solver/sleblocks.hpp"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <utility>

#include "platform/memory.hpp"
#include "platform/slot.hpp"

namespace {

using SLEBLOCKS::BlockSize;
using SLEBLOCKS::Chunk;
using SLEBLOCKS::Lower;
using SLEBLOCKS::LowerPlace;
using SLEBLOCKS::NumBlocks;
using SLEBLOCKS::NumRows;
using SLEBLOCKS::Triangle;
using SLEBLOCKS::Unknown;
using SLEBLOCKS::Upper;
using SLEBLOCKS::Width;

// A chunk streams up to 100 kB of a triangle: long against the handing over of chunks, short enough
// to share a level out. Small levels are cut finer, down to what takes a microsecond or two. The
// cut doesn't depend on the team, so that sums by chunk don't either.
constexpr std::int32_t ChunkRows = 64;
constexpr std::int32_t FewestChunkBlocks = 256;
constexpr std::int32_t SmallLevelParts = 4;

// With more padding than this, values held over entries stored, the plain sweeps move less.
constexpr std::int64_t LargestPadding = 2;

// Share of the available memory that the copy may take.
constexpr double MemoryShare = 0.8;

// The scaled diagonal is 1 up to rounding.
constexpr double DiagonalRounding = 1e-14;

// Parts of the groups, at most, whose blocks are put in place side by side.
constexpr int MostParts = 8;

// Blocks of Lower are written where they come; so many of them are fetched ahead.
constexpr std::int64_t BlocksAhead = 12;

// Structure in the order of the equations, while it is made.
struct Groups {
  std::int32_t count = 0;
  Array<std::int32_t> group;   // [equation] group of each equation
  Array<std::int64_t> start;   // [count] place of each group's first block in column
  Array<std::int32_t> length;  // [count] blocks of each group
  Array<std::int32_t> column;  // neighbouring groups with higher equations, ascending
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

bool IsFirst(std::int32_t i, const std::int32_t* group) {
  return i == 0 || group[i] != group[i - 1];
}

// The neighbouring groups behind that of equation i, each once, to `column`; returns their end.
std::int32_t* TakeNeighbours(std::int32_t i, const std::int32_t* pR, const std::int32_t* pC,
                             const std::int32_t* group, std::int32_t* column) {
  const std::int64_t end = Slot(pR[i + 1]);
  std::int32_t last = group[i];
  for (std::int64_t k = Slot(pR[i]); k < end;) {
    const std::int32_t g = group[Slot(pC[k])];
    if (g != last) *column++ = last = g;
    // Columns ascend, so what lies between two of one group is of that group too.
    const bool whole = k + Width <= end && group[Slot(pC[k + Width - 1])] == g;
    k += whole ? Width : 1;
  }
  return column;
}

// Of the groups that begin at equations [first, last), whose blocks come to `place` on.
void FindNeighbours(std::int32_t first, std::int32_t last, const std::int32_t* pR,
                    const std::int32_t* pC, Groups& groups, std::int64_t place) {
  for (std::int32_t i = first; i < last; ++i) {
    if (!IsFirst(i, groups.group.get())) continue;
    std::int32_t* column = &groups.column[place];
    const auto length =
        static_cast<std::int32_t>(TakeNeighbours(i, pR, pC, groups.group.get(), column) - column);
    groups.start[groups.group[i]] = place;
    groups.length[groups.group[i]] = length;
    place += length;
  }
}

// Each thread takes equations of its own, and room for as many blocks as these have entries: what
// isn't written to takes no memory.
bool FindNeighbours(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                    Groups& groups) {
  groups.start = ARRAYS_TRYALLOCATE<std::int64_t>(groups.count);
  groups.length = ARRAYS_TRYALLOCATE<std::int32_t>(groups.count);
  groups.column = ARRAYS_TRYALLOCATE<std::int32_t>(pR[n] - 1);
  if (!groups.start || !groups.length || !groups.column) return false;
#pragma omp parallel
  {
    const std::int64_t team = omp_get_num_threads(), thread = omp_get_thread_num();
    const auto first = static_cast<std::int32_t>(n * thread / team);
    const auto last = static_cast<std::int32_t>(n * (thread + 1) / team);
    FindNeighbours(first, last, pR, pC, groups, Slot(pR[first]));
  }
  return true;
}

// Level of each group into `level`; returns the number of levels.
std::int32_t FindLevels(const Groups& groups, std::int32_t* level) {
  std::fill_n(level, groups.count, 0);
  std::int32_t highest = 0;
  for (std::int32_t g = 0; g < groups.count; ++g) {
    highest = std::max(highest, level[g]);
    const std::int32_t* column = &groups.column[groups.start[g]];
    for (std::int32_t k = 0; k < groups.length[g]; ++k)
      level[column[k]] = std::max(level[column[k]], level[g] + 1);
  }
  return groups.count > 0 ? highest + 1 : 0;
}

// Rows of the smallest chunk that is worth handing over.
std::int32_t FewestChunkRows() {
  const std::int64_t rows = std::int64_t{FewestChunkBlocks} * NumRows / std::max(NumBlocks, 1);
  return static_cast<std::int32_t>(std::clamp<std::int64_t>(rows, 1, ChunkRows));
}

// Chunks of a level of so many rows.
std::int32_t PartsOfLevel(std::int32_t rows, std::int32_t fewest) {
  const std::int32_t whole = (rows + ChunkRows - 1) / ChunkRows;
  return std::max(whole, std::min(rows / fewest, SmallLevelParts));
}

// Chunks of the levels, whose first rows are levelStart: a level that is worth more than one chunk
// is a stage of its own; smaller ones share a chunk, since a second thread would find nothing to
// do.
bool CutChunks(const std::int32_t* levelStart, std::int32_t levels) {
  const std::int32_t fewest = FewestChunkRows();
  SLEBLOCKS::Chunks = ARRAYS_TRYALLOCATE<Chunk>(NumRows / fewest + std::int64_t{levels} + 1);
  if (!SLEBLOCKS::Chunks) return false;
  Chunk* chunks = SLEBLOCKS::Chunks.get();
  std::int32_t count = 0;
  bool joins = false;  // the last chunk takes a further small level
  for (std::int32_t l = 0; l < levels; ++l) {
    const std::int32_t first = levelStart[l];
    const std::int32_t last = levelStart[l + 1];
    const std::int32_t parts = PartsOfLevel(last - first, fewest);
    const bool small = parts == 1;
    if (small && joins) {
      chunks[count - 1].last = last;
      continue;
    }
    joins = small;
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

void FillUpperStarts(const Groups& groups) {
  for (std::int32_t g = 0; g < groups.count; ++g) Upper.start[groups.place[g]] = groups.length[g];
  std::int32_t next = 0;
  for (std::int32_t r = 0; r < NumRows; ++r) next += std::exchange(Upper.start[r], next);
  Upper.start[NumRows] = next;
}

// The columns of groups [first, last) of Upper; counts in `lengths` the blocks that the rows of
// Lower get from them.
void FillUpperColumns(const Groups& groups, std::int32_t first, std::int32_t last,
                      std::int32_t* lengths) {
  std::fill_n(lengths, NumRows, 0);
  for (std::int32_t g = first; g < last; ++g) {
    const std::int32_t* column = &groups.column[groups.start[g]];
    std::int32_t* upper = &Upper.column[Upper.start[groups.place[g]]];
    for (std::int32_t k = 0; k < groups.length[g]; ++k) {
      upper[k] = groups.place[column[k]];
      ++lengths[upper[k]];
    }
  }
}

// Turns the lengths that `parts` parts of the groups give to each row into their places.
void FillLowerStarts(int parts, std::int32_t* lengths) {
  std::int32_t next = 0;
  for (std::int32_t r = 0; r < NumRows; ++r) {
    Lower.start[r] = next;
    for (int part = 0; part < parts; ++part)
      next += std::exchange(lengths[r + std::int64_t{part} * NumRows], next);
  }
  Lower.start[NumRows] = next;
}

// The blocks of groups [first, last) transposed, at `places` in each row.
void FillLowerColumns(const Groups& groups, std::int32_t first, std::int32_t last,
                      std::int32_t* places) {
  for (std::int32_t g = first; g < last; ++g) {
    const std::int32_t row = groups.place[g];
    for (std::int32_t upper = Upper.start[row]; upper < Upper.start[row + 1]; ++upper) {
      const std::int32_t lower = places[Upper.column[upper]]++;
      Lower.column[lower] = row;
      LowerPlace[upper] = lower;
    }
  }
}

// Columns of both triangles, and where in Lower each block of Upper lies transposed. The columns of
// a row of Lower stand in the order of the equations, as the parts do.
bool FillColumns(const Groups& groups) {
  const int parts = std::min(omp_get_max_threads(), MostParts);
  Array<std::int32_t> places = ARRAYS_TRYALLOCATE<std::int32_t>(std::int64_t{NumRows} * parts);
  if (!places) return false;
  FillUpperStarts(groups);
  const auto begin = [&](int part) {
    return static_cast<std::int32_t>(std::int64_t{NumRows} * part / parts);
  };
  const auto of = [&](int part) { return &places[std::int64_t{NumRows} * part]; };
#pragma omp parallel for schedule(static)
  for (int part = 0; part < parts; ++part)
    FillUpperColumns(groups, begin(part), begin(part + 1), of(part));
  FillLowerStarts(parts, places.get());
#pragma omp parallel for schedule(static)
  for (int part = 0; part < parts; ++part)
    FillLowerColumns(groups, begin(part), begin(part + 1), of(part));
  return true;
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
  NumBlocks = std::accumulate(&groups.length[0], &groups.length[groups.count], 0);
  const std::int64_t held = std::int64_t{BlockSize} * (NumBlocks + std::int64_t{groups.count});
  if (held > LargestPadding * (pR[n] - 1)) return false;
  const auto available = static_cast<double>(PLATFORM_AVAILABLEMEMORY());
  if (static_cast<double>(SLEBLOCKS_BYTES(groups.count, NumBlocks)) > MemoryShare * available)
    return false;
  if (!OrderRows(groups) || !AllocateTriangle(Upper) || !AllocateTriangle(Lower)) return false;
  LowerPlace = ARRAYS_TRYALLOCATE<std::int32_t>(NumBlocks);
  SLEBLOCKS::Diagonal = ARRAYS_TRYALLOCATE<double>(std::int64_t{NumRows} * Width);
  Unknown = ARRAYS_TRYALLOCATE<std::int32_t>(n);
  if (!LowerPlace || !SLEBLOCKS::Diagonal || !Unknown) return false;
  if (!FillColumns(groups)) return false;
  NumberUnknowns(n, groups);
  SLEBLOCKS::NumEquations = n;
  return true;
}

// The equations of a block row as the matrix stores them. Behind the diagonal block all have the
// same columns.
struct StoredRow {
  int width;                      // equations
  const double* diagonal[Width];  // each one's diagonal entry and what is left of its block
  const double* values[Width];    // and the entries behind the block
  const std::int32_t* columns;
  std::int64_t length;  // of values and columns
};

StoredRow RowAt(std::int32_t equation, std::int32_t n, const std::int32_t* pR,
                const std::int32_t* pC, const double* matrix) {
  StoredRow stored{};
  const std::int32_t row = Unknown[equation] / Width;
  while (stored.width < Width && equation + stored.width < n &&
         Unknown[equation + stored.width] / Width == row)
    ++stored.width;
  for (int lane = 0; lane < stored.width; ++lane) {
    stored.diagonal[lane] = matrix + Slot(pR[equation + lane]);
    stored.values[lane] = stored.diagonal[lane] + (stored.width - lane);
  }
  const std::int32_t last = equation + stored.width - 1;
  stored.columns = pC + Slot(pR[last]) + 1;
  stored.length = pR[last + 1] - pR[last] - 1;
  return stored;
}

// The entries above the diagonal in the order (1,2), (1,3), (2,3). False: the diagonal isn't 1.
bool FillDiagonal(const StoredRow& stored, double* entries) {
  bool unit = true;
  std::fill_n(entries, Width, 0.0);
  for (int lane = 0; lane < stored.width; ++lane) {
    unit = unit && std::fabs(stored.diagonal[lane][0] - 1.0) <= DiagonalRounding;
    for (int other = lane + 1; other < stored.width; ++other)
      entries[lane + other - 1] = stored.diagonal[lane][other - lane];
  }
  return unit;
}

// True when entries k, k + 1 and k + 2 are the columns of a block without padding, the first of
// them that of unknown u.
bool IsWhole(const StoredRow& stored, std::int64_t k, std::int32_t u) {
  return stored.width == Width && k + Width <= stored.length && u % Width == 0 &&
         stored.columns[k + 2] == stored.columns[k] + 2 &&
         Unknown[Slot(stored.columns[k + 2])] == u + 2;
}

// Copies the entries from k on that belong to one block, column by column; returns their end.
std::int64_t FillBlock(const StoredRow& stored, std::int64_t k, double* block) {
  std::int32_t u = Unknown[Slot(stored.columns[k])];
  if (IsWhole(stored, k, u)) {
    for (int lane = 0; lane < Width; ++lane)
      for (int other = 0; other < Width; ++other)
        block[Width * other + lane] = stored.values[lane][k + other];
    return k + Width;
  }
  const std::int32_t row = u / Width;
  std::fill_n(block, BlockSize, 0.0);
  do {
    for (int lane = 0; lane < stored.width; ++lane)
      block[Width * (u % Width) + lane] = stored.values[lane][k];
    if (++k < stored.length) u = Unknown[Slot(stored.columns[k])];
  } while (k < stored.length && u / Width == row);
  return k;
}

// Fetches the place of a block that is written soon.
void PrefetchBlock(const double* block) {
  constexpr int write = 1;
  __builtin_prefetch(block, write);
  __builtin_prefetch(block + BlockSize - 1, write);
}

// The values of a block row, in both triangles. False: its diagonal isn't 1.
bool FillRow(const StoredRow& stored, std::int64_t row) {
  std::int64_t place = Upper.start[row];
  for (std::int64_t k = 0; k < stored.length; ++place) {
    PrefetchBlock(
        &Lower.values[BlockSize * std::int64_t{LowerPlace[std::min(place + BlocksAhead,
                                                                   std::int64_t{NumBlocks} - 1)]}]);
    double* upper = &Upper.values[BlockSize * place];
    double* lower = &Lower.values[BlockSize * std::int64_t{LowerPlace[place]}];
    k = FillBlock(stored, k, upper);
    for (int i = 0; i < Width; ++i)
      for (int j = 0; j < Width; ++j) lower[Width * i + j] = upper[Width * j + i];
  }
  return FillDiagonal(stored, &SLEBLOCKS::Diagonal[Width * row]);
}

bool FillValues(std::int32_t n, const std::int32_t* pR, const std::int32_t* pC,
                const double* matrix) {
  bool unit = true;
#pragma omp parallel for schedule(static) reduction(&& : unit)
  for (std::int32_t i = 0; i < n; ++i)
    if (Unknown[i] % Width == 0)
      unit = FillRow(RowAt(i, n, pR, pC, matrix), Unknown[i] / Width) && unit;
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
  LowerPlace.reset();
  SLEBLOCKS::Diagonal.reset();
  Unknown.reset();
  SLEBLOCKS::Chunks.reset();
}
