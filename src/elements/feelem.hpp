// Module FEELEM: turns one element record into one kernel call, and runs the response pass.
// The element's type code selects everything by plain branching; excluded elements and unknown
// types never reach these operations' kernels.
#pragma once

#include <cstdint>

#include "elemlib/element_types.hpp"

// Model totals of the response pass, counted from 0: 0 energy, 1 volume, 2 smooth material volume,
// 3 sharp material volume, 4 total 3 / total 1, 5 boundary stress, 6 largest element stress, 7 0.0.
using ResponseTotals = double[8];

// Internal forces of element `element` (1-based, active) at the displacements `solution`
// ([equation]). Pure but for the caller's buffers: called concurrently for different elements.
void FEELEM_INTERNALFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                           ElementDofs& dofs, ElementVector& forces);

// The same forces and the stiffness matrix, upper triangle.
void FEELEM_MATRIXANDFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces, ElementMatrix& matrix);

// Response of all active elements at `solution`: adds into the RESPONSE arrays, updates
// FELOADCASE::ElementState for the next assembly, delivers the totals. One thread only.
void FEELEM_RESPONSE(const double* solution, ResponseTotals& totals);
