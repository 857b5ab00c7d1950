#include "solver/analysis.hpp"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "platform/slot.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/vkcore.hpp"
#include "solver/sleblocks.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/slepccgsolver.hpp"
#include "solver/system_arrays.hpp"

namespace {

constexpr std::int32_t FactorIterations = 300;

// The run's mode, once it is resolved, is the number of its preconditioner.
static_assert(SLEPCCGSOLVER::PcgSweeps == SOLVERSTA::ModeIterative);
static_assert(SLEPCCGSOLVER::PcgFactor == SOLVERSTA::ModeFactorised);

void PushLoad(const NodalForceRecord& load, double* rhs) {
  if (FEMODEL_ISMARKED(load.Node)) return;
  const double force[3] = {static_cast<double>(load.Fx), static_cast<double>(load.Fy),
                           static_cast<double>(load.Fz)};
  const std::int32_t* dofs = &FEDOF::NodeDofMap[3 * Slot(load.Node)];
  for (int k = 0; k < 3; ++k) {
    if (dofs[k] > 0) rhs[Slot(dofs[k])] += force[k];
#pragma omp atomic
    VKCORE::AppliedLoadSum[k] += force[k];
  }
}

void PushLoads(const NodalForceRecord* loads, std::int32_t count) {
  if (count < 1) return;
  double* rhs = SOLVERSTA::SysRhs.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < count; ++i) PushLoad(loads[i], rhs);
}

// To the variables of the unit-diagonal matrix.
void ScaleSystem() {
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i) {
    FEDOF::Displacements[i] /= SOLVERSTA::SysScale[i];
    SOLVERSTA::SysRhs[i] *= SOLVERSTA::SysScale[i];
  }
}

void UnscaleDisplacements() {
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    FEDOF::Displacements[i] *= SOLVERSTA::SysScale[i];
}

void Solve() {
  SOLVERSTA_WITHINDICES([](const auto& pR, const auto& pC) {
    SLEPCCGSOLVER_COMPUTE(pR.get(), pC.get(), SOLVERSTA::SysMatrixSP.get(),
                          SOLVERSTA::SysMatrix.get(), SOLVERSTA::SysRhs.get(),
                          FEDOF::Displacements.get());
  });
}

void JudgeQuality() {
  if (VKCORE::SolveQuality < VKCORE::StopQuality)
    LOGGER_POSTERRABORT("No convergence in static response analysis process.");
  if (VKCORE::SolveQuality < VKCORE::WarningQuality)
    LOGGER_POSTWARN("Convergence problems in static response analysis process.");
}

}  // namespace

void PUSHALLLOADSTOSOLVER() {
  PushLoads(FELOADCASE::NodalForces2.get(), FELOADCASE::NumNodalForces2);
  PushLoads(FELOADCASE::NodalForces3.get(), FELOADCASE::NumNodalForces3);
}

void VKCORE_FORMRIGHTHANDSIDE() {
  std::fill(std::begin(VKCORE::AppliedLoadSum), std::end(VKCORE::AppliedLoadSum), 0.0);
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    SOLVERSTA::SysRhs[i] = -SOLVERSTA::SysForces[i];
  PUSHALLLOADSTOSOLVER();
}

void VKCORE_PREPARESOLVER() {
  using namespace SOLVERSTA;
  SLEPARDISOSOLVER_PREPARE();
  SLEBLOCKS::HoldsMatrix = false;
  if (IMode == ModeIterative && UseIm4)
    SLEBLOCKS_BUILD(NumEquations, pR4.get(), pC4.get(), SysMatrix.get());
}

void VKCORE_RUNANALYSIS() {
  VKCORE::SolveQuality = 0.0f;
  ScaleSystem();
  if (!SOLVERSTA::SolverReady) VKCORE_PREPARESOLVER();
  SLEPCCGSOLVER::PcgMode = SOLVERSTA::IMode;
  SLEPCCGSOLVER::PcgMaxIter = SOLVERSTA::IMode == SOLVERSTA::ModeFactorised
                                  ? FactorIterations
                                  : SOLVERSTA::NumEquations / 10 + 1000;
  Solve();
  VKCORE::SolveQuality = SLEPCCGSOLVER::PcgQuality;
  UnscaleDisplacements();
  LOGGER_POSTINF(LOGLINES::IMode.text, SOLVERSTA::IMode);
  LOGGER_POSTINF(LOGLINES::ICount.text, SLEPCCGSOLVER::ICount);
  VKCORE::TcBlendFactor =
      VKCORE_BLENDFACTOR(VKCORE::RunOptions.ResponseDumpFac, VKCORE::SolveQuality);
  LOGGER_POSTDATA(LOGLINES::ARQua.text, VKCORE::SolveQuality);
  JudgeQuality();
  LOGGER::StopHint.clear();  // of a factor that wasn't needed for this solution
}
