#include "solver/slepardisosolver.hpp"

#include <algorithm>
#include <bit>
#include <iterator>
#include <string>

#include "platform/maths/maths.hpp"
#include "platform/memory.hpp"
#include "platform/slot.hpp"
#include "platform/watch.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/vkcore.hpp"
#include "solver/system_arrays.hpp"

namespace {

using SLEPARDISOSOLVER::ErrorTextLength;
using SLEPARDISOSOLVER::iparm;
using SLEPARDISOSOLVER::iparm8;
using SLEPARDISOSOLVER::PardisoError;
using SLEPARDISOSOLVER::PardisoErrorText;
using SLEPARDISOSOLVER::PardisoFactorHeld;
using SLEPARDISOSOLVER::pt;

constexpr std::int32_t PhaseAnalysis = 11;
constexpr std::int32_t PhaseFactor = 22;
constexpr std::int32_t PhaseSolve = 33;
constexpr std::int32_t PhaseRelease = -1;
constexpr std::int32_t ErrorNoMemory = -2;
constexpr std::int32_t ErrorZeroPivot = -4;

constexpr int IparmMemory = 17;  // out of the analysis: kilobytes that factor and solve take

// The scalars of a call; the 64-bit entry takes 64-bit copies.
std::int32_t maxfct = 1;  // factors held at a time
std::int32_t mnum = 1;    // the one that is meant
std::int32_t mtype = 2;   // real symmetric positive definite
std::int32_t nrhs = 1;
std::int32_t msglvl = 0;  // prints nothing
std::int32_t n = 0;
std::int32_t error = 0;
long long maxfct8 = 1, mnum8 = 1, mtype8 = 2, nrhs8 = 1, msglvl8 = 0, n8 = 0, error8 = 0;

// The scaled diagonal is 1; the factor takes two units in the last place more.
constexpr float FactorDiagonal = std::bit_cast<float>(0x3f800002u);
static_assert(double{FactorDiagonal} == 1.0000002384185791);

// The estimate of the analysis comes in kilobytes; a factor is affordable when the estimate, with a
// margin for what the library takes beside it, fits the budget. The 64-bit path has its own margin,
// 1.15, in one constant with the unit.
constexpr float GigabytesPerKilobyte = 0x1p-20f;
constexpr float EstimateMargin = 1.1f;
static_assert(double{EstimateMargin} == 1.10000002384185791015625);
constexpr float GigabytesWithMargin8 = 1.15f * GigabytesPerKilobyte;
static_assert(std::bit_cast<std::uint32_t>(GigabytesWithMargin8) == 0x35933333u);

void SetParameters() {
  std::fill(std::begin(pt), std::end(pt), nullptr);
  std::fill(std::begin(iparm), std::end(iparm), 0);
  iparm[Slot(1)] = 1;   // this table is supplied
  iparm[Slot(2)] = 3;   // parallel nested dissection reordering
  iparm[Slot(6)] = 0;   // the solution goes to x
  iparm[Slot(8)] = 0;   // the library's own choice of refinement steps
  iparm[Slot(10)] = 8;  // pivot perturbation 1e-8
  iparm[Slot(11)] = 0;  // no scaling: the matrix is scaled already
  iparm[Slot(28)] = 1;  // single precision
  iparm[Slot(60)] = 0;  // in core
  n = SOLVERSTA::NumEquations;
  mtype = 2;
  error = 0;
  maxfct8 = maxfct;
  mnum8 = mnum;
  mtype8 = mtype;
  nrhs8 = nrhs;
  msglvl8 = msglvl;
  n8 = n;
  error8 = error;
  std::copy(std::begin(iparm), std::end(iparm), std::begin(iparm8));
}

// One call of the 32-bit entry; arguments that a phase doesn't use are dummies.
void CallPardiso(std::int32_t phase, const float* matrix, const std::int32_t* pR,
                 const std::int32_t* pC, float* b, float* x) {
  std::int32_t permutation = 0;
  const WATCH::What watched = PLATFORM_WATCH(WATCH::What::Progress);
  pardiso(pt, &maxfct, &mnum, &mtype, &phase, &n, matrix, pR, pC, &permutation, &nrhs, iparm,
          &msglvl, b, x, &error);
  PLATFORM_WATCH(watched);
}

static_assert(sizeof(long long) == sizeof(std::int64_t));

// The same for the 64-bit entry; the code is the low 32 bits of what it returns.
void CallPardiso(std::int32_t phase, const float* matrix, const std::int64_t* pR,
                 const std::int64_t* pC, float* b, float* x) {
  const long long phase8 = phase;
  long long permutation = 0;
  const WATCH::What watched = PLATFORM_WATCH(WATCH::What::Progress);
  pardiso_64(pt, &maxfct8, &mnum8, &mtype8, &phase8, &n8, matrix,
             reinterpret_cast<const long long*>(pR), reinterpret_cast<const long long*>(pC),
             &permutation, &nrhs8, iparm8, &msglvl8, b, x, &error8);
  PLATFORM_WATCH(watched);
  error = static_cast<std::int32_t>(error8);
}

// A factorisation that fails on a pivot leaves the equation's number in the parameter table; the
// stop, should it come to one, can name it.
void HintAtPivot(std::int64_t equation) {
  if (error != ErrorZeroPivot || equation < 1 || equation > n) return;
  LOGGER::StopHint = "the pivot of equation " + std::to_string(equation) +
                     " is not positive: a part without enough supports, or an element turned "
                     "inside out";
}

std::string_view ErrorText(std::int32_t code) {
  switch (code) {
    case -1:
      return " Inconsistent input.";
    case -2:
      return " Not enough memory.";
    case -3:
      return " Reordering problem.";
    case -4:
      return " Zero pivot or refinement problem.";
    case -5:
      return " Unclassified (internal) error.";
    case -6:
      return " Reordering failed.";
    case -7:
      return " Diagonal matrix is singular.";
    case -8:
      return " 32-bit integer overflow problem.";
    case -9:
      return " Not enough memory for OOC.";
    case -10:
      return " Error opening OOC files.";
    case -11:
      return " Read/write error with OOC files.";
    case -12:
      return " Pardiso_64 called from 32-bit library.";
    default:
      return {};
  }
}

// The entry that made the handle, which alone can release it: when a pattern on the other index
// path has come since, its own entry would end in an access violation.
bool HandleIs64 = false;

template <class Index>
void CallRelease() {
  const Index dummyIndex = 0;
  float dummy = 0.0f;
  CallPardiso(PhaseRelease, &dummy, &dummyIndex, &dummyIndex, &dummy, &dummy);
}

template <class Index>
void Analyse(const Index* pR, const Index* pC, const float* matrix) {
  HandleIs64 = sizeof(Index) == sizeof(std::int64_t);
  float dummy = 0.0f;
  if (MATHS_RESERVE(SOLVERSTA::NumEntries))
    CallPardiso(PhaseAnalysis, matrix, pR, pC, &dummy, &dummy);
  else
    error = ErrorNoMemory;
  HANDLEERROR(error, "Stiffness matrix reorder phase error.");
}

// After a failed analysis the factorisation fails with the same code. It is not called for it: with
// some of the codes it would read what the analysis didn't leave. Nor is it called where the memory
// of the estimate can't be had, with which some libraries end the process or wait for ever.
template <class Index>
void Factorise(const Index* pR, const Index* pC, const float* matrix, std::int64_t kilobytes) {
  if (PardisoError != 0) return;
  float dummy = 0.0f;
  if (PLATFORM_CANMAP(std::max<std::int64_t>(kilobytes, 1) * 1024))
    CallPardiso(PhaseFactor, matrix, pR, pC, &dummy, &dummy);
  else
    error = ErrorNoMemory;
}

template <class Index>
void CopyToSinglePrecision(const Index* pR) {
  const double* matrix = SOLVERSTA::SysMatrix.get();
  float* single = SOLVERSTA::SysMatrixSP.get();
  for (std::int64_t i = 0; i < SOLVERSTA::NumEntries; ++i)
    single[i] = static_cast<float>(matrix[i]);
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i) single[Slot(pR[i])] = FactorDiagonal;
}

void CopyMatrix() {
  if (!SOLVERSTA::SysMatrixSP)
    SOLVERSTA::SysMatrixSP = ARRAYS_ALLOCATE<float>(SOLVERSTA::NumEntries);
  SOLVERSTA_WITHINDICES([](const auto& pR, const auto&) { CopyToSinglePrecision(pR.get()); });
}

// The 32-bit path posts the estimate and compares it with the budget.
void Factor(const std::int32_t* pR4, const std::int32_t* pC4, const float* matrix, float& budget) {
  if (PardisoError != 0) return;
  Analyse(pR4, pC4, matrix);
  if (PardisoError == 0) {
    const float estimate = static_cast<float>(iparm[Slot(17)]) * GigabytesPerKilobyte;
    LOGGER_POSTINF(LOGLINES::EstDecMemReq.text, estimate);
    if (budget > 0.0f) {
      budget -= EstimateMargin * estimate;
      if (budget < 0.0f) return;
    }
  }
  Factorise(pR4, pC4, matrix, iparm[Slot(IparmMemory)]);
  HintAtPivot(iparm[Slot(30)]);
  HANDLEERROR(error, "Stiffness matrix factorization error.");
}

// The 64-bit path posts nothing, and its comparison never fails.
void Factor(const std::int64_t* pR8, const std::int64_t* pC8, const float* matrix, float& budget) {
  if (PardisoError != 0) return;
  Analyse(pR8, pC8, matrix);
  if (PardisoError == 0 && budget > 0.0f) {
    // The 32-bit table, which this entry doesn't fill: the deduction is zero on purpose, a system
    // of this size is always factorised.
    budget -= static_cast<float>(iparm[Slot(17)]) * GigabytesWithMargin8;
    if (budget < 0.0f) return;
  }
  Factorise(pR8, pC8, matrix, iparm8[Slot(IparmMemory)]);
  HintAtPivot(iparm8[Slot(30)]);
  HANDLEERROR(error, "Stiffness matrix factorization error.");
}

[[noreturn]] void AbortWithErrorText() {
  if (ErrorText(PardisoError).empty())
    LOGGER::StopHint = "the direct solver's code is " + std::to_string(PardisoError);
  char text[ErrorTextLength];
  SLEPARDISOSOLVER_GETERRORTEXT(text);
  LOGGER_POSTERRABORT({text, ErrorTextLength});
}

}  // namespace

void SLEPARDISOSOLVER_PREPARE() {
  SOLVERSTA::SolverReady = true;
  if (SOLVERSTA::IMode == SOLVERSTA::ModeIterative) return;
  CopyMatrix();
  if (PardisoFactorHeld) SLEPARDISOSOLVER_RELEASE();
  PardisoError = 0;
  PardisoErrorText.assign(ErrorTextLength, ' ');
  SetParameters();
  const bool automatic = SOLVERSTA::IMode == SOLVERSTA::ModeAutomatic;
  // Zero and less stand for no budget.
  float budget = automatic ? std::max(VKCORE::RunOptions.AvailableMemGB, 0.0f) : 0.0f;
  PardisoFactorHeld = true;
  SOLVERSTA_WITHINDICES([&budget](const auto& pR, const auto& pC) {
    Factor(pR.get(), pC.get(), SOLVERSTA::SysMatrixSP.get(), budget);
  });
  if (!automatic) {
    if (SLEPARDISOSOLVER_HASERROR()) AbortWithErrorText();
    return;
  }
  if (!SLEPARDISOSOLVER_HASERROR() && !(budget < 0.0f)) {
    SOLVERSTA::IMode = SOLVERSTA::ModeFactorised;
    return;
  }
  if (PardisoFactorHeld) SLEPARDISOSOLVER_RELEASE();
  SOLVERSTA::SysMatrixSP.reset();
  SOLVERSTA::IMode = SOLVERSTA::ModeIterative;
}

void SLEPARDISOSOLVER_FACTOR_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                const float* matrix, float& budget) {
  Factor(pR4, pC4, matrix, budget);
}

void SLEPARDISOSOLVER_FACTOR_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                const float* matrix, float& budget) {
  Factor(pR8, pC8, matrix, budget);
}

template <class Index>
void SLEPARDISOSOLVER_SOLVE(const Index* pR, const Index* pC, const float* matrix, float* b,
                            float* x) {
  if (PardisoError != 0) return;
  CallPardiso(PhaseSolve, matrix, pR, pC, b, x);
  HANDLEERROR(error, "SLE solution phase error.");
}

template void SLEPARDISOSOLVER_SOLVE(const std::int32_t*, const std::int32_t*, const float*, float*,
                                     float*);
template void SLEPARDISOSOLVER_SOLVE(const std::int64_t*, const std::int64_t*, const float*, float*,
                                     float*);

void SLEPARDISOSOLVER_SOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                               const float* matrix, float* b, float* x) {
  SLEPARDISOSOLVER_SOLVE(pR4, pC4, matrix, b, x);
}

void SLEPARDISOSOLVER_SOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                               const float* matrix, float* b, float* x) {
  SLEPARDISOSOLVER_SOLVE(pR8, pC8, matrix, b, x);
}

void SLEPARDISOSOLVER_RELEASE() {
  if (HandleIs64)
    CallRelease<std::int64_t>();
  else
    CallRelease<std::int32_t>();
  HANDLEERROR(error, "SLE solver memory release phase error.");
  PardisoFactorHeld = false;
}

void SLEPARDISOSOLVER_RELEASE_I4() { SLEPARDISOSOLVER_RELEASE(); }
void SLEPARDISOSOLVER_RELEASE_I8() { SLEPARDISOSOLVER_RELEASE(); }

bool SLEPARDISOSOLVER_HASERROR() { return PardisoError != 0; }
bool SLEPARDISOSOLVER_HASFACTOR() { return PardisoFactorHeld; }

void SLEPARDISOSOLVER_GETERRORTEXT(char (&buffer)[ErrorTextLength]) {
  std::copy_n(PardisoErrorText.begin(), ErrorTextLength, buffer);
}

void HANDLEERROR(std::int32_t code, std::string_view phaseText) {
  if (code == 0) return;
  PardisoError = code;
  if (const std::string_view detail = ErrorText(code); !detail.empty()) {
    PardisoErrorText = std::string(phaseText) + std::string(detail);
    PardisoErrorText.resize(ErrorTextLength, ' ');
  }
  LOGGER_POSTWARN(PardisoErrorText);
}
