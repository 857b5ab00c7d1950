// Module FELOADCASE: the data of the load case that runs, and the numbering of its pattern.
// Load cases that share a PatternIndex have the same constraints: NodeDofState, NodeDofMap and
// Displacements live until the pattern changes, everything else until the next load case.
#pragma once

#include <cstdint>

#include "model/records.hpp"
#include "run/services/arrays.hpp"

namespace FELOADCASE {

inline std::int32_t PreviousPattern = 0;  // pattern of the last load case that ran

inline std::int32_t NumNodalConstraints = 0;
inline Array<NodalConstraintRecord> NodalConstraints;
inline std::int32_t NumNodalForces2 = 0;
inline Array<NodalForceRecord> NodalForces2;
inline std::int32_t NumNodalForces3 = 0;
inline Array<NodalForceRecord> NodalForces3;

inline std::int32_t NumSupports = 0;
inline Array<std::int32_t> SupportList;  // 1-based rows of NodalConstraints, elastic supports

inline Array<float> NodalScalars;  // [node]; valid while VKCORE::NoNodalScalars is false

// A node's state: bits 0, 1, 2 set where x, y, z get no equation. 63, "?": no component is free.
inline constexpr std::uint8_t NodeStateUnused = 63;
inline constexpr std::uint8_t NodeStateActive = 56;
inline Array<std::uint8_t> NodeDofState;  // [node]

// > 0 equation number; 0 fixed at zero or unused; < 0 minus the row of NodalConstraints that holds
// the prescribed displacement.
inline Array<std::int32_t> NodeDofMap;       // [node][xyz]
inline std::int32_t LastPrescribingRow = 0;  // highest row that NodeDofMap refers to
inline std::int32_t NumEquations = 0;
inline Array<double> Displacements;  // [equation]

inline Array<float> ElementState;  // [element]; only with yielding or compression-only
                                   // materials
}  // namespace FELOADCASE

// Prepares load case `number`: run flags, element state from ws.mstate.NNNN, mxs.lcmap.NNNN,
// SupportList, on a change of pattern the numbering, start vector from ws.sstate.NNNN. Aborts: file
// and allocation failures, an index outside its array, no degrees of freedom.
void FELOADCASE_PREPARE(std::int32_t number, std::int32_t kind, std::int32_t patternIndex);

// NodeDofState, NodeDofMap and NumEquations from the active elements and the prescribed
// displacements; equations ascend with node number, then x, y, z. Aborts: no degrees of freedom.
void FELOADCASE_BUILDNUMBERING();

// Displacement of direction `direction` (0, 1, 2) of a node whose NodeDofMap entry is `dof`: from
// `solution` ([equation]), from the prescribing row, or 0.0.
inline double FELOADCASE_DOFVALUE(std::int32_t dof, int direction, const double* solution) {
  if (dof > 0) return solution[dof - 1];
  if (dof < 0) return static_cast<double>(FELOADCASE::NodalConstraints[-dof - 1].Value[direction]);
  return 0.0;
}
