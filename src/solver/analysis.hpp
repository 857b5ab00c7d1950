// Module VKCORE, analysis step: forms the right-hand side, solves the scaled system for the
// displacement correction, and judges the solve.
#pragma once

namespace VKCORE {

// Qualities of a solution, 0 .. 1, below which the run stops, or warns.
inline constexpr float StopQuality = 0.5f;
inline constexpr float WarningQuality = 0.9f;

}  // namespace VKCORE

// SysRhs and AppliedLoadSum: minus the internal forces of SysForces, and the nodal forces.
void VKCORE_FORMRIGHTHANDSIDE();

// Adds the nodal forces of both lists to SysRhs and to AppliedLoadSum. Loads on marked nodes are
// skipped; a load on a fixed component counts in the sum only. A list must hold a node once.
void PUSHALLLOADSTOSOLVER();

// For a new matrix: the factor, or the blocks that the sweeps of the 32-bit path stream through.
// Leaves SolverReady true. Aborts as SLEPARDISOSOLVER_PREPARE does.
void VKCORE_PREPARESOLVER();

// One linear solve. In: SysRhs, SysMatrix scaled to a unit diagonal, SysScale, Displacements as the
// start. Out: Displacements in physical form, SolveQuality, TcBlendFactor; SysRhs stays scaled.
// Aborts: quality below 0.5, allocation, the direct solver in mode 2.
void VKCORE_RUNANALYSIS();

// Weight of the earlier run's criterion values: base f for a perfect solve, towards 1 for a failed.
constexpr float VKCORE_BLENDFACTOR(float base, float quality) {
  return base + (1.0f - quality) * (1.0f - base);
}
