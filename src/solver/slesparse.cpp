#include "solver/slesparse.hpp"

#include <omp.h>

#include <algorithm>
#include <cstdint>

#include "platform/process.hpp"

namespace {

using SLESPARSE::SpillCapacity;
using SLESPARSE::Spills;

// Sums side by side, so that an addition needn't wait for the one before it.
constexpr int Lanes = 4;

// Entries between the one that is worked on and the one that is fetched: the processor's own
// fetching doesn't reach across the gathers.
constexpr int Ahead = 512;

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

bool ReserveSpills(std::int64_t count) {
  if (count <= SpillCapacity) return true;
  Spills.reset();
  Spills = ARRAYS_TRYALLOCATE<double>(count);
  SpillCapacity = Spills ? count : 0;
  return Spills != nullptr;
}

// Shares of about equal numbers of entries. False when memory for the spills is short.
bool ShareRows(std::int32_t n, const std::int32_t* pR, int team, RowShare* shares) {
  const std::int64_t entries = pR[n] - 1;
  int first = 0;
  std::int64_t spillCount = 0;
  for (int t = 0; t < team; ++t) {
    const auto target = static_cast<int>(entries * (t + 1) / team + 1);
    const auto last =
        t + 1 == team ? n : static_cast<int>(std::lower_bound(pR + first, pR + n, target) - pR);
    shares[t] = {first, last, last, nullptr};
    first = last;
    spillCount += n - last;
  }
  if (!ReserveSpills(spillCount)) return false;
  double* spill = Spills.get();
  for (int t = 0; t < team; ++t) {
    shares[t].spill = spill;
    spill += n - shares[t].last;
  }
  return true;
}

// One row: adds a x(row) to the columns' sums and returns the row's own sum. Entries [begin, end)
// all lie above the diagonal; column - offset is the place in `sums`. Nothing is fetched from
// `fetchEnd` on.
double MultiplyRow(const double* a, const std::int32_t* pC, int begin, int end, int fetchEnd,
                   const double* x, double xRow, double* sums, int offset) {
  double lane[Lanes] = {};
  int entry = begin;
  for (; entry + Lanes <= end; entry += Lanes) {
    const int fetched = entry < fetchEnd - Ahead ? entry + Ahead : entry;
    __builtin_prefetch(a + fetched);
    __builtin_prefetch(pC + fetched);
    for (int k = 0; k < Lanes; ++k) {
      const int column = pC[entry + k] - 1;
      lane[k] += a[entry + k] * x[column];
      sums[column - offset] += a[entry + k] * xRow;
    }
  }
  for (; entry < end; ++entry) {
    const int column = pC[entry] - 1;
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
void MultiplyShare(RowShare& share, const double* a, const std::int32_t* pR, const std::int32_t* pC,
                   const double* x, double* y) {
  std::fill(y + share.first, y + share.last, 0.0);
  const int fetchEnd = pR[share.last] - 1;
  for (int row = share.first; row < share.last; ++row) {
    const int begin = pR[row] - 1;
    const int end = pR[row + 1] - 1;
    ClearSpill(share, pC[end - 1]);
    // The columns ascend, so those of other threads are the tail of the row.
    const int own = pC[end - 1] <= share.last
                        ? end
                        : static_cast<int>(std::upper_bound(pC + begin, pC + end, share.last) - pC);
    y[row] += a[begin] * x[row] + MultiplyRow(a, pC, begin + 1, own, fetchEnd, x, x[row], y, 0) +
              MultiplyRow(a, pC, own, end, fetchEnd, x, x[row], share.spill, share.last);
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

// Sum of a x over the entries [begin, end).
double DotRow(const double* a, const std::int32_t* pC, std::int32_t begin, std::int32_t end,
              const double* x) {
  double lane[Lanes] = {};
  std::int32_t entry = begin;
  for (; entry + Lanes <= end; entry += Lanes)
    for (int k = 0; k < Lanes; ++k) lane[k] += a[entry + k] * x[pC[entry + k] - 1];
  for (; entry < end; ++entry) lane[0] += a[entry] * x[pC[entry] - 1];
  return (lane[0] + lane[1]) + (lane[2] + lane[3]);
}

}  // namespace

void SLESPARSE_MULTIPLY(std::int32_t n, const double* a, const std::int32_t* pR,
                        const std::int32_t* pC, const double* x, double* y) {
  const int wanted =
      pR[n] - 1 < SmallestTeamwork ? 1 : std::min(omp_get_max_threads(), LargestTeam);
  RowShare shares[LargestTeam];
  if (wanted == 1 || !ShareRows(n, pR, wanted, shares)) {
    shares[0] = {0, n, n, nullptr};
    MultiplyShare(shares[0], a, pR, pC, x, y);
    return;
  }
  // The loops hand out every share also to a team that comes smaller than wanted.
#pragma omp parallel num_threads(wanted)
  {
#pragma omp for schedule(static, 1)
    for (int t = 0; t < wanted; ++t) MultiplyShare(shares[t], a, pR, pC, x, y);
#pragma omp for schedule(static, 1)
    for (int t = 0; t < wanted; ++t) CollectSpills(shares, t, y);
  }
}

// By columns of the transpose, which are the rows of U.
void SLESPARSE_SWEEPFORWARD(std::int32_t n, const double* a, const std::int32_t* pR,
                            const std::int32_t* pC, const double* x, double* y) {
  std::copy_n(x, n, y);
  for (std::int32_t row = 0; row < n; ++row) {
    const double value = y[row];
    for (std::int32_t entry = pR[row]; entry < pR[row + 1] - 1;
         ++entry)  // from behind the diagonal
      y[pC[entry] - 1] -= a[entry] * value;
  }
}

void SLESPARSE_SWEEPBACKWARD(std::int32_t n, const double* a, const std::int32_t* pR,
                             const std::int32_t* pC, const double* x, double* y) {
  for (std::int32_t row = n - 1; row >= 0; --row) {
    const std::int32_t diagonal = pR[row] - 1;
    y[row] = (x[row] - DotRow(a, pC, diagonal + 1, pR[row + 1] - 1, y)) / a[diagonal];
  }
}

void SLESPARSE_RELEASE() {
  Spills.reset();
  SpillCapacity = 0;
}
