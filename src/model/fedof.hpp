// Module FEDOF: which component of which node has which equation, and the displacements they hold.
// Load cases that share a pattern of constraints share the numbering: NodeDofState, NodeDofMap and
// Displacements live until the pattern changes. The constraint rows are those of the load case that
// runs; FELOADCASE_PREPARE reads them, has the numbering built and fills the start vector.
#pragma once

#include <cstdint>

#include "model/records.hpp"
#include "run/services/arrays.hpp"

namespace FEDOF {

inline std::int32_t NumNodalConstraints = 0;
inline Array<NodalConstraintRecord> NodalConstraints;

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

}  // namespace FEDOF

// True for an elastic support, false for a prescribed displacement.
inline bool FEDOF_ISSUPPORT(const NodalConstraintRecord& row) {
  return (row.Kind & ConstraintPenalty) != 0;
}

// NodeDofState, NodeDofMap and NumEquations from the active elements and the prescribed
// displacements, and Displacements of that size, uncleared; equations ascend with node number, then
// x, y, z. Aborts: allocation failures.
void FEDOF_BUILDNUMBERING();

// Aborts unless there is a numbering, with at least one equation.
void FEDOF_REQUIREEQUATIONS();

// Displacement of direction `direction` (0, 1, 2) of a node whose NodeDofMap entry is `dof`: from
// `solution` ([equation]), from the prescribing row, or 0.0.
inline double FEDOF_VALUE(std::int32_t dof, int direction, const double* solution) {
  if (dof > 0) return solution[dof - 1];
  if (dof < 0) return static_cast<double>(FEDOF::NodalConstraints[-dof - 1].Value[direction]);
  return 0.0;
}
