// Module SOLVERSTA, assembly: the element and support loops that fill the equation system.
// Threads own contiguous blocks of elements and work in private buffers; every add that may meet
// one of another thread is one atomic double add, with no colouring, lock or private copy of the
// system. Sums may therefore differ in the last digits from run to run.
//
// Constrained components have no row or column. A prescribed displacement reaches the right-hand
// side through the internal forces, since the gathered displacements contain it.
#pragma once

#include <cstdint>

#include "elemlib/element_types.hpp"

// SysForces at FEDOF::Displacements.
void PREPARESYSINTERNALFORCES();

// SysForces and SysMatrix; scales the matrix to a unit diagonal, records SysScale, and clears
// SolverReady: any factor is stale.
void PREPARESYSMATRIXANDINTERNALFORCES();

using SupportMatrix = double[9];  // entry (i, j), i <= j, counted from 0, at i + 3 j

// Forces of entry k (1-based) of SupportList at `solution` ([equation]). dofCount becomes 3.
void SOLVERSTA_SUPPORTFORCE(std::int32_t k, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces);
void SOLVERSTA_SUPPORTMATRIXANDFORCE(std::int32_t k, const double* solution, std::int32_t& dofCount,
                                     ElementDofs& dofs, double (&forces)[3], SupportMatrix& matrix);

// Adds an upper-triangular matrix of the given column stride and its forces to the free-free part
// of the system. `dofs` need not be sorted. An entry that the structure doesn't have is added to
// the last position that was hit, on purpose.
void SOLVERSTA_ADDTOFFUSYM(std::int32_t dofCount, const ElementDofs& dofs, const double* forces,
                           const double* matrix, std::int32_t stride);
