// What every element operation shares: the sizes of the element buffers.
// All are sized for the largest element, the 10-node tetrahedron: 30 equations, 10 nodes.
// Vectors run node by node, x, y, z within a node. Buffers are fixed arrays passed by reference, so
// the compiler checks every size; each lives in its caller's stack frame for one call.
#pragma once

#include <cstdint>

inline constexpr int MaxElementNodes = 10;
inline constexpr int MaxElementDofs = 30;

using ElementDofs = std::int32_t[MaxElementDofs];  // equation numbers, <= 0: no equation
using ElementVector = double[MaxElementDofs];      // coordinates, displacements or forces
using ElementScalars = double[MaxElementNodes];    // one value per node
using ElementMatrix =
    double[MaxElementDofs * MaxElementDofs];  // entry (i, j), i <= j, counted
                                              // from 0, at i + 30 j: upper triangle only
using MaterialLoadData = double[7];           // RefValue; expansion x, y, z; initial strain x, y, z
using MaterialConstants = double[9];  // C11 C12 C13 C22 C23 C33, then twice the shear moduli
                                      // of xy, yz, xz
// The sums over the integration points of one element that a response kernel returns. H is the
// smooth presence, P the sharp one.
enum ResponseSum {
  SumVolume,        // dV
  SumSmoothVolume,  // H dV
  SumSharpVolume,   // P dV
  SumSmoothEnergy,  // energy density H H dV
  SumSmoothStress,  // equivalent stress H H dV
  SumEnergy,        // energy density P dV
  SumStress,        // equivalent stress P dV
  SumMeanStress,    // mean stress P dV
  SumMeanStrain,    // mean strain P dV
  NumResponseSums
};
using ElementResponse = double[NumResponseSums];
static_assert(NumResponseSums == 9);
