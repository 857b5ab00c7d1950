// Open libraries behind the maths boundary, direct solver: the sequential single-precision MUMPS in
// SPD mode, with SCOTCH ordering, on OpenBLAS.
//
// Of the published options this serves what the program uses: positive definite matrices (mtype 2)
// in single precision, one matrix, one right-hand side, phases 11, 22, 33 and -1, 1-based indices.
// Anything else is "inconsistent input", code -1.
//
// Factor: P. R. Amestoy, I. S. Duff, J.-Y. L'Excellent, J. Koster: A fully asynchronous
// multifrontal solver using distributed dynamic scheduling, SIAM J. Matrix Anal. Appl. 23 (2001)
// 15-41.
#include <smumps_c.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "platform/maths/maths.hpp"
#include "platform/maths/open_dense.hpp"
#include "platform/memory.hpp"
#include "platform/slot.hpp"

namespace {

// Phases and result codes of the direct solver.
constexpr int PhaseAnalysis = 11;
constexpr int PhaseFactor = 22;
constexpr int PhaseSolve = 33;
constexpr int PhaseRelease = -1;

constexpr int InconsistentInput = -1;
constexpr int NoMemory = -2;
constexpr int OrderingProblem = -3;
constexpr int ZeroPivot = -4;
constexpr int InternalError = -5;
constexpr int SingularMatrix = -7;
constexpr int IndexOverflow = -8;

// Elements of the parameter table, numbered from 1.
constexpr int IparmMemory = 17;     // out of the analysis: kilobytes that factor and solve take
constexpr int IparmSingle = 28;     // in: 1 for single precision
constexpr int IparmPivot = 30;      // out: equation of the offending pivot, 0 when not known
constexpr int IparmZeroBased = 35;  // in: 1 for 0-based indices

constexpr int PositiveDefinite = 2;  // mtype

// MUMPS: values of `job`, elements of icntl and infog, numbered from 1.
constexpr int JobBegin = -1;
constexpr int JobEnd = -2;
constexpr int JobAnalysis = 1;
constexpr int JobFactor = 2;
constexpr int JobSolve = 3;
constexpr int CommunicatorWorld = -987654;

constexpr int IcntlErrorStream = 1;
constexpr int IcntlDiagnosticStream = 2;
constexpr int IcntlGlobalStream = 3;
constexpr int IcntlPrintLevel = 4;
constexpr int IcntlOrdering = 7;
constexpr int IcntlScaling = 8;
constexpr int OrderingScotch = 3;

constexpr int InfogError = 1;
constexpr int InfogNegativePivots = 12;
constexpr int InfogMegabytes = 16;

// What the first word of the handle points to, from phase 11 to phase -1.
struct Factor {
  SMUMPS_STRUC_C mumps = {};
  bool begun = false;
  bool factored = false;
};

// Not by `new`, which ends the process where memory is short.
using Numbers = std::unique_ptr<int[], MemoryDeleter>;

Numbers TryAllocate(std::int64_t count) {
  return Numbers(static_cast<int*>(PLATFORM_ALLOCATE(count * std::int64_t{sizeof(int)})));
}

// The matrix as MUMPS wants it: a row and a column number an entry. Columns that come in its
// integer width are used where they are.
struct EntryLists {
  Numbers rows;
  Numbers narrowed;
  int* columns = nullptr;
};

int CodeOfMumps(int info) {
  if (info >= 0) return 0;
  switch (info) {
    case -2:   // number of entries out of range
    case -3:   // job out of sequence
    case -16:  // order out of range
      return InconsistentInput;
    case -6:  // structurally singular
      return SingularMatrix;
    case -10:  // a pivot of zero
    case -40:  // not positive definite
      return ZeroPivot;
    case -5:  // failed allocations, and work arrays that the estimate made too small
    case -7:
    case -8:
    case -9:
    case -11:
    case -13:
    case -14:
    case -15:
    case -17:
    case -18:
    case -19:
    case -20:
      return NoMemory;
    case -38:  // the ordering library failed
      return OrderingProblem;
    case -51:  // the graph is too large for the ordering library's integers
    case -52:
      return IndexOverflow;
    default:
      return InternalError;
  }
}

int RunMumps(Factor& factor, int job) {
  if (!OPENDENSE_PREPARE()) return NoMemory;
  factor.mumps.job = job;
  smumps_c(&factor.mumps);
  return CodeOfMumps(factor.mumps.infog[Slot(InfogError)]);
}

int Begin(Factor& factor) {
  // SCOTCH's threads race, which gives another ordering in every run; one thread repeats itself.
  setenv("SCOTCH_PTHREAD_NUMBER", "1", 0);
  factor.mumps.sym = 1;  // symmetric positive definite
  factor.mumps.par = 1;
  factor.mumps.comm_fortran = CommunicatorWorld;
  const int code = RunMumps(factor, JobBegin);
  if (code != 0) return code;
  factor.begun = true;
  int* icntl = factor.mumps.icntl;
  icntl[Slot(IcntlErrorStream)] = 0;  // silent
  icntl[Slot(IcntlDiagnosticStream)] = 0;
  icntl[Slot(IcntlGlobalStream)] = 0;
  icntl[Slot(IcntlPrintLevel)] = 0;
  icntl[Slot(IcntlOrdering)] = OrderingScotch;
  icntl[Slot(IcntlScaling)] = 0;  // the matrix comes scaled
  return 0;
}

void Release(void* pt) {
  auto** handle = static_cast<Factor**>(pt);
  if (*handle == nullptr) return;
  if ((*handle)->begun) RunMumps(**handle, JobEnd);
  PLATFORM_FREE(*handle);
  *handle = nullptr;
}

// True when the row starts ascend from 1 and every column lies between its row and n.
template <class Int>
bool IsUpperTriangle(Int n, const Int* ia, const Int* ja) {
  if (ia[0] != 1) return false;
  for (Int row = 1; row <= n; ++row) {
    if (ia[row] < ia[row - 1]) return false;
    for (Int entry = ia[row - 1]; entry < ia[row]; ++entry)
      if (ja[Slot(entry)] < row || ja[Slot(entry)] > n) return false;
  }
  return true;
}

// MUMPS reads its column list only.
bool ListColumns(std::int64_t, const int* ja, EntryLists& lists) {
  lists.columns = const_cast<int*>(ja);
  return true;
}

// Every column is known to be at most n, which fits.
bool ListColumns(std::int64_t count, const long long* ja, EntryLists& lists) {
  lists.narrowed = TryAllocate(count);
  if (!lists.narrowed) return false;
  std::transform(ja, ja + count, lists.narrowed.get(),
                 [](long long column) { return static_cast<int>(column); });
  lists.columns = lists.narrowed.get();
  return true;
}

// False when memory is short.
template <class Int>
bool ListEntries(Int n, const Int* ia, const Int* ja, EntryLists& lists) {
  const std::int64_t count = ia[n] - 1;
  lists.rows = TryAllocate(count);
  if (!lists.rows) return false;
  for (Int row = 1; row <= n; ++row)
    std::fill(lists.rows.get() + Slot(ia[row - 1]), lists.rows.get() + Slot(ia[row]),
              static_cast<int>(row));
  return ListColumns(count, ja, lists);
}

// Runs a job that reads the matrix. The lists live for this call only.
template <class Int>
int RunOnMatrix(Factor& factor, int job, Int n, const void* a, const Int* ia, const Int* ja) {
  if (!IsUpperTriangle(n, ia, ja)) return InconsistentInput;
  EntryLists lists;
  if (!ListEntries(n, ia, ja, lists)) return NoMemory;
  SMUMPS_STRUC_C& mumps = factor.mumps;
  mumps.n = static_cast<int>(n);
  mumps.nnz = ia[n] - 1;
  mumps.irn = lists.rows.get();
  mumps.jcn = lists.columns;
  mumps.a = const_cast<float*>(static_cast<const float*>(a));  // read only
  const int code = RunMumps(factor, job);
  mumps.irn = nullptr;
  mumps.jcn = nullptr;
  mumps.a = nullptr;
  return code;
}

template <class Int>
int Analyse(void* pt, Int n, const void* a, const Int* ia, const Int* ja, Int* iparm) {
  if (n > std::numeric_limits<int>::max()) return IndexOverflow;
  Release(pt);
  void* memory = PLATFORM_ALLOCATE(sizeof(Factor));
  if (memory == nullptr) return NoMemory;
  auto* factor = new (memory) Factor;
  *static_cast<Factor**>(pt) = factor;  // which owns it from here on
  int code = Begin(*factor);
  if (code == 0) code = RunOnMatrix(*factor, JobAnalysis, n, a, ia, ja);
  if (code != 0) return code;
  const std::int64_t lists = (ia[n] - 1) * std::int64_t{4 + (sizeof(Int) > 4 ? 4 : 0)};
  const std::int64_t kilobytes =
      std::int64_t{1024} * factor->mumps.infog[Slot(InfogMegabytes)] + lists / 1024 + 1;
  iparm[Slot(IparmMemory)] =
      static_cast<Int>(std::min<std::int64_t>(kilobytes, std::numeric_limits<Int>::max()));
  return 0;
}

bool AllFinite(const float* values, std::int64_t count) {
  return std::all_of(values, values + count, [](float value) { return std::isfinite(value); });
}

template <class Int>
int Factorise(Factor& factor, const void* a, const Int* ia, const Int* ja, Int* iparm) {
  factor.factored = false;
  // MUMPS would carry a NaN through to the solution without a word.
  int code = AllFinite(static_cast<const float*>(a), ia[factor.mumps.n] - 1)
                 ? RunOnMatrix(factor, JobFactor, Int{factor.mumps.n}, a, ia, ja)
                 : ZeroPivot;
  // A negative pivot is no error to MUMPS: it goes on with the indefinite factor.
  if (code == 0 && factor.mumps.infog[Slot(InfogNegativePivots)] > 0) code = ZeroPivot;
  if (code == ZeroPivot) iparm[Slot(IparmPivot)] = 0;
  factor.factored = code == 0;
  return code;
}

// MUMPS solves in place.
int Solve(Factor& factor, std::int64_t nrhs, const void* b, void* x) {
  if (!factor.factored || nrhs != 1) return InconsistentInput;
  SMUMPS_STRUC_C& mumps = factor.mumps;
  std::memcpy(x, b, static_cast<std::size_t>(mumps.n) * sizeof(float));
  mumps.rhs = static_cast<float*>(x);
  mumps.nrhs = 1;
  mumps.lrhs = mumps.n;
  const int code = RunMumps(factor, JobSolve);
  mumps.rhs = nullptr;
  return code;
}

template <class Int>
int RunPhase(void* pt, Int mtype, Int phase, Int n, const void* a, const Int* ia, const Int* ja,
             Int nrhs, Int* iparm, const void* b, void* x) {
  if (phase == PhaseRelease) {
    Release(pt);
    return 0;
  }
  if (mtype != PositiveDefinite || n < 1 || iparm[Slot(IparmSingle)] != 1 ||
      iparm[Slot(IparmZeroBased)] != 0)
    return InconsistentInput;
  if (phase == PhaseAnalysis) return Analyse(pt, n, a, ia, ja, iparm);
  Factor* factor = *static_cast<Factor**>(pt);
  if (factor == nullptr || factor->mumps.n != n) return InconsistentInput;
  if (phase == PhaseFactor) return Factorise(*factor, a, ia, ja, iparm);
  if (phase == PhaseSolve) return Solve(*factor, nrhs, b, x);
  return InconsistentInput;
}

}  // namespace

void pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
             const int* n, const void* a, const int* ia, const int* ja, int* /*perm*/,
             const int* nrhs, int* iparm, const int* /*msglvl*/, void* b, void* x, int* error) {
  *error = *maxfct != 1 || *mnum != 1
               ? InconsistentInput
               : RunPhase(pt, *mtype, *phase, *n, a, ia, ja, *nrhs, iparm, b, x);
}

void pardiso_64(void* pt, const long long* maxfct, const long long* mnum, const long long* mtype,
                const long long* phase, const long long* n, const void* a, const long long* ia,
                const long long* ja, long long* /*perm*/, const long long* nrhs, long long* iparm,
                const long long* /*msglvl*/, void* b, void* x, long long* error) {
  *error = *maxfct != 1 || *mnum != 1
               ? InconsistentInput
               : RunPhase(pt, *mtype, *phase, *n, a, ia, ja, *nrhs, iparm, b, x);
}

// Analysis and factorisation take more than that an entry together. Where memory runs out within
// the analysis SCOTCH frees what it hasn't got.
bool MATHS_RESERVE(std::int64_t entries) {
  constexpr std::int64_t bytesPerEntry = 48;
  return OPENDENSE_PREPARE() && PLATFORM_CANMAP(std::max<std::int64_t>(entries, 1) * bytesPerEntry);
}

void MATHS_ENDTHREADS() { OPENDENSE_ENDTHREADS(); }

std::string_view MATHS_NAME() { return VK_MATHS_NAME; }
