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
// The nine sums over the integration points of one element: dV, H dV, P dV, U H H dV, V H H dV,
// U P dV, V P dV, mean stress P dV, mean strain P dV.
using ElementResponse = double[9];
