// Open back end of the maths boundary, sparse operations: the symmetric product and the triangular
// sweeps on the stored upper triangle. The diagonal stands first in its row, the columns ascend.
#include <omp.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/maths/maths.hpp"
#include "platform/memory.hpp"
#include "platform/process.hpp"

namespace {

// Sums side by side, so that an addition needn't wait for the one before it.
constexpr int Lanes = 4;

// Below this many entries a team costs more than it saves.
constexpr std::int64_t SmallestTeamwork = 30'000;

// One thread's rows [first, last) of the product, and its sums for rows from `last` on, which other
// threads own: spill[row - last], cleared and valid up to spillEnd.
struct RowShare {
  int first = 0;
  int last = 0;
  int spillEnd = 0;
  double* spill = nullptr;
};

// Kept between calls, since a solve multiplies hundreds of times.
struct SpillStore {
  std::unique_ptr<double[], MemoryDeleter> values;
  std::int64_t capacity = 0;
};
SpillStore Spills;

bool ReserveSpills(std::int64_t count) {
  if (count <= Spills.capacity) return true;
  Spills.values.reset(
      static_cast<double*>(PLATFORM_ALLOCATE(count * std::int64_t{sizeof(double)})));
  Spills.capacity = Spills.values ? count : 0;
  return Spills.values != nullptr;
}

// Shares of about equal numbers of entries. False when memory for the spills is short.
bool ShareRows(int m, const int* ia, int team, RowShare* shares) {
  const std::int64_t entries = ia[m] - 1;
  int first = 0;
  std::int64_t spillCount = 0;
  for (int t = 0; t < team; ++t) {
    const auto target = static_cast<int>(entries * (t + 1) / team + 1);
    const auto last =
        t + 1 == team ? m : static_cast<int>(std::lower_bound(ia + first, ia + m, target) - ia);
    shares[t] = {first, last, last, nullptr};
    first = last;
    spillCount += m - last;
  }
  if (!ReserveSpills(spillCount)) return false;
  double* spill = Spills.values.get();
  for (int t = 0; t < team; ++t) {
    shares[t].spill = spill;
    spill += m - shares[t].last;
  }
  return true;
}

// One row: adds a x(row) to the columns' sums and returns the row's own sum. Entries [begin, end)
// all lie above the diagonal; column - offset is the place in `sums`.
double MultiplyRow(const double* a, const int* ja, int begin, int end, const double* x, double xRow,
                   double* sums, int offset) {
  double lane[Lanes] = {};
  int entry = begin;
  for (; entry + Lanes <= end; entry += Lanes)
    for (int k = 0; k < Lanes; ++k) {
      const int column = ja[entry + k] - 1;
      lane[k] += a[entry + k] * x[column];
      sums[column - offset] += a[entry + k] * xRow;
    }
  for (; entry < end; ++entry) {
    const int column = ja[entry] - 1;
    lane[0] += a[entry] * x[column];
    sums[column - offset] += a[entry] * xRow;
  }
  return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

void ClearSpill(RowShare& share, int end) {
  if (end <= share.spillEnd) return;
  std::fill(share.spill + (share.spillEnd - share.last), share.spill + (end - share.last), 0.0);
  share.spillEnd = end;
}

// y(rows of the share) := their part of the product; the rest goes into the spill.
void MultiplyShare(RowShare& share, const double* a, const int* ia, const int* ja, const double* x,
                   double* y) {
  std::fill(y + share.first, y + share.last, 0.0);
  for (int row = share.first; row < share.last; ++row) {
    const int begin = ia[row] - 1;
    const int end = ia[row + 1] - 1;
    if (begin == end) continue;
    ClearSpill(share, ja[end - 1]);
    // The columns ascend, so those of other threads are the tail of the row.
    const int own = ja[end - 1] <= share.last
                        ? end
                        : static_cast<int>(std::upper_bound(ja + begin, ja + end, share.last) - ja);
    y[row] += a[begin] * x[row] + MultiplyRow(a, ja, begin + 1, own, x, x[row], y, 0) +
              MultiplyRow(a, ja, std::max(own, begin + 1), end, x, x[row], share.spill, share.last);
  }
}

// Adds what the threads before this one have summed for its rows.
void CollectSpills(const RowShare* shares, int thread, double* y) {
  const RowShare& mine = shares[thread];
  for (int t = 0; t < thread; ++t) {
    const int begin = std::max(mine.first, shares[t].last);
    const int end = std::min(mine.last, shares[t].spillEnd);
    const double* spill = shares[t].spill - shares[t].last;
    for (int row = begin; row < end; ++row) y[row] += spill[row];
  }
}

}  // namespace

void mkl_dcsrsymv([[maybe_unused]] const char* uplo, const int* m, const double* a, const int* ia,
                  const int* ja, const double* x, double* y) {
  assert(*uplo == 'U');
  const int wanted =
      ia[*m] - 1 < SmallestTeamwork ? 1 : std::min(omp_get_max_threads(), LargestTeam);
  RowShare shares[LargestTeam];
  if (wanted == 1 || !ShareRows(*m, ia, wanted, shares)) {
    shares[0] = {0, *m, *m, nullptr};
    MultiplyShare(shares[0], a, ia, ja, x, y);
    return;
  }
  // The loops hand out every share also to a team that comes smaller than wanted.
#pragma omp parallel num_threads(wanted)
  {
#pragma omp for schedule(static, 1)
    for (int t = 0; t < wanted; ++t) MultiplyShare(shares[t], a, ia, ja, x, y);
#pragma omp for schedule(static, 1)
    for (int t = 0; t < wanted; ++t) CollectSpills(shares, t, y);
  }
}

namespace {

// U-transposed y = x: column-oriented, since the rows of U are the columns of its transpose.
void ForwardSweep(bool unitDiagonal, int m, const double* a, const int* ia, const int* ja,
                  double* y) {
  for (int row = 0; row < m; ++row) {
    const int begin = ia[row] - 1;
    if (!unitDiagonal) y[row] /= a[begin];
    const double value = y[row];
    for (int entry = begin + 1; entry < ia[row + 1] - 1; ++entry)
      y[ja[entry] - 1] -= a[entry] * value;
  }
}

// Sum of a x over the entries [begin, end).
double DotRow(const double* a, const int* ja, int begin, int end, const double* x) {
  double lane[Lanes] = {};
  int entry = begin;
  for (; entry + Lanes <= end; entry += Lanes)
    for (int k = 0; k < Lanes; ++k) lane[k] += a[entry + k] * x[ja[entry + k] - 1];
  for (; entry < end; ++entry) lane[0] += a[entry] * x[ja[entry] - 1];
  return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

// U y = x, from the last row up.
void BackwardSweep(bool unitDiagonal, int m, const double* a, const int* ia, const int* ja,
                   double* y) {
  for (int row = m - 1; row >= 0; --row) {
    const int begin = ia[row] - 1;
    const double value = y[row] - DotRow(a, ja, begin + 1, ia[row + 1] - 1, y);
    y[row] = unitDiagonal ? value : value / a[begin];
  }
}

}  // namespace

void mkl_dcsrtrsv([[maybe_unused]] const char* uplo, const char* transa, const char* diag,
                  const int* m, const double* a, const int* ia, const int* ja, const double* x,
                  double* y) {
  assert(*uplo == 'U');
  std::copy(x, x + *m, y);
  const bool unitDiagonal = *diag == 'U';
  if (*transa == 'T')
    ForwardSweep(unitDiagonal, *m, a, ia, ja, y);
  else
    BackwardSweep(unitDiagonal, *m, a, ia, ja, y);
}
