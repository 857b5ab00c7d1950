#include "solver/slepccgsolver.hpp"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "platform/slot.hpp"
#include "run/services/arrays.hpp"
#include "solver/sleblocks.hpp"
#include "solver/sleonepass.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/slesparse.hpp"
#include "solver/system_arrays.hpp"

namespace {

using SLEPCCGSOLVER::ICount;
using SLEPCCGSOLVER::PcgMaxIter;
using SLEPCCGSOLVER::PcgMode;
using SLEPCCGSOLVER::PcgQuality;

constexpr double Tolerance = double{1e-5f};  // on the ratio of maximum norms
static_assert(Tolerance == 9.999999747378752e-06);
constexpr double QualityRatio = double{0.001f};  // the ratio whose quality is 0.5
static_assert(QualityRatio == 0.0010000000474974513);
constexpr std::string_view WorkArraysFailure = "Error allocating work arrays.";

// Vectors of one solve, each NumEquations long.
struct WorkArrays {
  Array<double> r, z, p, q;        // residual A x - b; preconditioned; direction; A p
  Array<float> spRhs, spSolution;  // what passes through the factor
};

WorkArrays AllocateWorkArrays(std::int64_t n) {
  WorkArrays w;
  w.r = ARRAYS_ALLOCATE<double>(n, WorkArraysFailure);
  w.z = ARRAYS_ALLOCATE<double>(n, WorkArraysFailure);
  w.p = ARRAYS_ALLOCATE<double>(n, WorkArraysFailure);
  w.q = ARRAYS_ALLOCATE<double>(n, WorkArraysFailure);
  w.spRhs = ARRAYS_ALLOCATE<float>(n, WorkArraysFailure);
  w.spSolution = ARRAYS_ALLOCATE<float>(n, WorkArraysFailure);
  std::fill_n(w.spSolution.get(), n, 0.0f);  // read as it is after a failed factor solve
  return w;
}

// Largest magnitude; a NaN stays.
double MaxNorm(const double* v, std::int64_t n) {
  double norm = 0.0;
  for (std::int64_t i = 0; i < n; ++i) {
    const double magnitude = std::fabs(v[i]);
    if (magnitude > norm || std::isnan(magnitude)) norm = magnitude;
    if (std::isnan(norm)) return norm;
  }
  return norm;
}

// Vectors are worked on in shares whose bounds depend on their length alone, so that sums have the
// same bits for any team.
constexpr std::int64_t MostShares = 64;
constexpr std::int64_t SmallestShare = 2048;

// Below this length a team costs more than it saves.
constexpr std::int64_t SmallestTeamwork = 20'000;

std::int64_t ShareCount(std::int64_t n) {
  return std::clamp<std::int64_t>(n / SmallestShare, 1, MostShares);
}

// `work(share, first, end)` for each share; returns their number.
template <class Work>
std::int64_t InShares(std::int64_t n, const Work& work) {
  const std::int64_t shares = ShareCount(n);
#pragma omp parallel for schedule(static) if (n >= SmallestTeamwork)
  for (std::int64_t s = 0; s < shares; ++s) work(s, n * s / shares, n * (s + 1) / shares);
  return shares;
}

// Four partial sums keep the adders busy; their order is fixed.
double DotOfShare(const double* a, const double* b, std::int64_t first, std::int64_t end) {
  double partial[4] = {};
  std::int64_t i = first;
  for (; i + 4 <= end; i += 4)
    for (int k = 0; k < 4; ++k) partial[k] += a[i + k] * b[i + k];
  for (; i < end; ++i) partial[0] += a[i] * b[i];
  return (partial[0] + partial[1]) + (partial[2] + partial[3]);
}

double Dot(const double* a, const double* b, std::int64_t n) {
  double partial[MostShares];
  const std::int64_t shares =
      InShares(n, [&](std::int64_t share, std::int64_t first, std::int64_t end) {
        partial[share] = DotOfShare(a, b, first, end);
      });
  double sum = partial[0];
  for (std::int64_t s = 1; s < shares; ++s) sum += partial[s];
  return sum;
}

// The operations that exist for both index widths, selected by the types of the index arrays.

void Multiply(const std::int32_t* pR4, const std::int32_t* pC4, const double* matrix,
              const double* p, double* q) {
  SLESPARSE_MULTIPLY(SOLVERSTA::NumEquations, matrix, pR4, pC4, p, q);
}

void Multiply(const std::int64_t* pR8, const std::int64_t* pC8, const double* matrix,
              const double* p, double* q) {
  const std::int64_t n = SOLVERSTA::NumEquations;
  std::fill_n(q, n, 0.0);
  for (std::int64_t i = 0; i < n; ++i) {
    double sum = matrix[Slot(pR8[i])] * p[i];
    for (std::int64_t k = pR8[i] + 1; k < pR8[i + 1]; ++k) {
      const std::int64_t j = Slot(pC8[Slot(k)]);
      sum += matrix[Slot(k)] * p[j];   // the entry itself
      q[j] += matrix[Slot(k)] * p[i];  // and its mirror image
    }
    q[i] += sum;
  }
}

void SweepForward(const std::int32_t* pR4, const std::int32_t* pC4, const double* matrix,
                  const double* r, double* y) {
  SLESPARSE_SWEEPFORWARD(SOLVERSTA::NumEquations, matrix, pR4, pC4, r, y);
}

void SweepForward(const std::int64_t* pR8, const std::int64_t* pC8, const double* matrix,
                  const double* r, double* y) {
  const std::int64_t n = SOLVERSTA::NumEquations;
  std::copy_n(r, n, y);
  for (std::int64_t i = 0; i < n; ++i) {
    const double solved = y[i] / matrix[Slot(pR8[i])];
    y[i] = solved;
    for (std::int64_t k = pR8[i] + 1; k < pR8[i + 1]; ++k)
      y[Slot(pC8[Slot(k)])] -= matrix[Slot(k)] * solved;
  }
}

void SweepBackward(const std::int32_t* pR4, const std::int32_t* pC4, const double* matrix,
                   const double* y, double* z) {
  SLESPARSE_SWEEPBACKWARD(SOLVERSTA::NumEquations, matrix, pR4, pC4, y, z);
}

void SweepBackward(const std::int64_t* pR8, const std::int64_t* pC8, const double* matrix,
                   const double* y, double* z) {
  const std::int64_t n = SOLVERSTA::NumEquations;
  std::copy_n(y, n, z);
  for (std::int64_t i = n - 1; i >= 0; --i) {
    double rest = z[i];
    for (std::int64_t k = pR8[i] + 1; k < pR8[i + 1]; ++k)
      rest -= matrix[Slot(k)] * z[Slot(pC8[Slot(k)])];
    z[i] = rest / matrix[Slot(pR8[i])];
  }
}

template <class From, class To>
void Convert(const From* from, To* to, std::int64_t n) {
  InShares(n, [&](std::int64_t, std::int64_t first, std::int64_t end) {
    for (std::int64_t i = first; i < end; ++i) to[i] = static_cast<To>(from[i]);
  });
}

// z := inverse(M) r.
template <class Index>
void Precondition(const Index* pR, const Index* pC, const float* matrixSP, const double* matrix,
                  WorkArrays& w, std::int64_t n) {
  if (PcgMode == SLEPCCGSOLVER::PcgFactor) {
    Convert(w.r.get(), w.spRhs.get(), n);
    SLEPARDISOSOLVER_SOLVE(pR, pC, matrixSP, w.spRhs.get(), w.spSolution.get());
    Convert(w.spSolution.get(), w.z.get(), n);
  } else if (PcgMode == SLEPCCGSOLVER::PcgSweeps) {
    SweepForward(pR, pC, matrix, w.r.get(), w.q.get());
    SweepBackward(pR, pC, matrix, w.q.get(), w.z.get());
  } else {
    std::copy_n(w.r.get(), n, w.z.get());
  }
}

// p := beta p - z, from nothing in the first iteration.
void UpdateDirection(double beta, bool start, const double* z, double* p, std::int64_t n) {
  InShares(n, [&](std::int64_t, std::int64_t first, std::int64_t end) {
    if (start)
      for (std::int64_t i = first; i < end; ++i) p[i] = -z[i];
    else
      for (std::int64_t i = first; i < end; ++i) p[i] = beta * p[i] - z[i];
  });
}

// x := x + alpha p and r := r + alpha q; returns the maximum norm of r.
double UpdateSolution(double alpha, const WorkArrays& w, double* x, std::int64_t n) {
  double* r = w.r.get();
  const double* p = w.p.get();
  const double* q = w.q.get();
  double norms[MostShares];
  const std::int64_t shares =
      InShares(n, [&](std::int64_t share, std::int64_t first, std::int64_t end) {
        for (std::int64_t i = first; i < end; ++i) x[i] += alpha * p[i];
        for (std::int64_t i = first; i < end; ++i) r[i] += alpha * q[i];
        norms[share] = MaxNorm(r + first, end - first);
      });
  return MaxNorm(norms, shares);
}

// Iterates to the tolerance or the limit. `ratio`: 0 when converged. Returns the norm of r.
template <class Index>
double Iterate(const Index* pR, const Index* pC, const float* matrixSP, const double* matrix,
               const double* b, double* x, double bnorm, double& ratio) {
  const std::int64_t n = SOLVERSTA::NumEquations;
  WorkArrays w = AllocateWorkArrays(n);
  for (std::int64_t i = 0; i < n; ++i) w.r[i] = -b[i];
  double rnorm = bnorm;
  double rzPrevious = 0.0;
  for (std::int32_t iter = 0; iter < PcgMaxIter; ++iter) {
    --ICount;
    Precondition(pR, pC, matrixSP, matrix, w, n);
    const double rz = Dot(w.z.get(), w.r.get(), n);
    UpdateDirection(rz / rzPrevious, iter == 0, w.z.get(), w.p.get(), n);
    rzPrevious = rz;
    Multiply(pR, pC, matrix, w.p.get(), w.q.get());
    const double alpha = rz / Dot(w.q.get(), w.p.get(), n);
    rnorm = UpdateSolution(alpha, w, x, n);
    ratio = rnorm / bnorm;
    if (ratio <= Tolerance) {
      ICount = -ICount;
      ratio = 0.0;
      break;
    }
  }
  SLESPARSE_RELEASE();
  return rnorm;
}

// The same where the matrix is held in blocks. Returns the norm of r.
double IterateInBlocks(const double* b, double* x, double bnorm, double& ratio) {
  const OnePassEnd end = SLEONEPASS_ITERATE(
      b, x, {.bnorm = bnorm, .tolerance = Tolerance, .maxIterations = PcgMaxIter},
      WorkArraysFailure);
  ICount = end.converged ? end.count : -end.count;
  ratio = end.converged ? 0.0 : end.norm / bnorm;
  return end.norm;
}

// Only the 32-bit path has blocks.
template <class Index>
bool IteratesInBlocks() {
  return std::is_same_v<Index, std::int32_t> && PcgMode == SLEPCCGSOLVER::PcgSweeps &&
         SLEBLOCKS::HoldsMatrix && PcgMaxIter > 0;
}

}  // namespace

float SLEPCCGSOLVER_QUALITY(double ratio) {
  return static_cast<float>(1.0 / (1.0 + ratio / QualityRatio));
}

template <class Index>
void SLEPCCGSOLVER_COMPUTE(const Index* pR, const Index* pC, const float* matrixSP,
                           const double* matrix, const double* b, double* x) {
  const std::int64_t n = SOLVERSTA::NumEquations;
  ICount = 0;
  const double bnorm = MaxNorm(b, n);
  if (n == 0 || bnorm == 0.0) {
    std::fill_n(x, n, 0.0);
    PcgQuality = 1.0f;
    return;
  }
  double ratio = 0.0;
  const double rnorm = IteratesInBlocks<Index>()
                           ? IterateInBlocks(b, x, bnorm, ratio)
                           : Iterate(pR, pC, matrixSP, matrix, b, x, bnorm, ratio);
  if (std::isfinite(rnorm)) {
    PcgQuality = SLEPCCGSOLVER_QUALITY(ratio);
  } else {
    std::fill_n(x, n, 0.0);
    PcgQuality = 0.0f;
  }
}

template void SLEPCCGSOLVER_COMPUTE(const std::int32_t*, const std::int32_t*, const float*,
                                    const double*, const double*, double*);
template void SLEPCCGSOLVER_COMPUTE(const std::int64_t*, const std::int64_t*, const float*,
                                    const double*, const double*, double*);

void SLEPCCGSOLVER_COMPUTE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                              const float* matrixSP, const double* matrix, const double* b,
                              double* x) {
  SLEPCCGSOLVER_COMPUTE(pR4, pC4, matrixSP, matrix, b, x);
}

void SLEPCCGSOLVER_COMPUTE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                              const float* matrixSP, const double* matrix, const double* b,
                              double* x) {
  SLEPCCGSOLVER_COMPUTE(pR8, pC8, matrixSP, matrix, b, x);
}

void SLEPCCGSOLVER_MATVEC_I4(const std::int32_t* pR4, const std::int32_t* pC4, const double* matrix,
                             const double* p, double* q) {
  Multiply(pR4, pC4, matrix, p, q);
}

void SLEPCCGSOLVER_MATVEC_I8(const std::int64_t* pR8, const std::int64_t* pC8, const double* matrix,
                             const double* p, double* q) {
  Multiply(pR8, pC8, matrix, p, q);
}

void SLEPCCGSOLVER_FORWARDSOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                   const double* matrix, const double* r, double* y) {
  SweepForward(pR4, pC4, matrix, r, y);
}

void SLEPCCGSOLVER_FORWARDSOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                   const double* matrix, const double* r, double* y) {
  SweepForward(pR8, pC8, matrix, r, y);
}

void SLEPCCGSOLVER_BACKWARDSOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                    const double* matrix, const double* y, double* z) {
  SweepBackward(pR4, pC4, matrix, y, z);
}

void SLEPCCGSOLVER_BACKWARDSOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                    const double* matrix, const double* y, double* z) {
  SweepBackward(pR8, pC8, matrix, y, z);
}
