// Module FEELEM: turns one element record into one kernel call, and runs the response pass.
// The element's type code selects everything by plain branching; excluded elements and unknown
// types never reach these operations' kernels.
#pragma once

#include <cstdint>

#include "elemlib/element_types.hpp"
#include "model/femodel.hpp"

// Model totals of the response pass, by position.
enum ResponseTotal {
  TotalEnergy,
  TotalVolume,
  TotalSmoothVolume,  // of material, by the smooth presence
  TotalSharpVolume,   // of material, by the sharp presence
  TotalSharpShare,    // sharp volume / volume
  TotalBoundaryStress,
  TotalLargestStress,  // of an element at the boundary
  TotalUnused,         // 0.0
  NumResponseTotals
};
using ResponseTotals = double[NumResponseTotals];
static_assert(NumResponseTotals == 8);

// Internal forces of an element that is not excluded at the displacements `solution` ([equation]).
// An unknown type leaves the buffers as they were. Pure but for the caller's buffers: called
// concurrently for different elements.
void FEELEM_INTERNALFORCES(const ElementView& element, const double* solution,
                           std::int32_t& dofCount, ElementDofs& dofs, ElementVector& forces);

// The same forces and the stiffness matrix, upper triangle.
void FEELEM_MATRIXANDFORCES(const ElementView& element, const double* solution,
                            std::int32_t& dofCount, ElementDofs& dofs, ElementVector& forces,
                            ElementMatrix& matrix);

// The same by the number of the element, 1-based.
void FEELEM_INTERNALFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                           ElementDofs& dofs, ElementVector& forces);
void FEELEM_MATRIXANDFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces, ElementMatrix& matrix);

// Response of all active elements at `solution`: adds into the RESPONSE arrays, updates
// FELOADCASE::ElementState for the next assembly, delivers the totals. One thread only.
void FEELEM_RESPONSE(const double* solution, ResponseTotals& totals);
