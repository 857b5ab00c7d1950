// The integration rules as the kernels walk them: orders 2 and 3, laid out for vectors of points.
#pragma once

#include "elemlib/element_types.hpp"

inline constexpr int MaxRulePoints = 27;  // hexahedron, three points per direction
inline constexpr int RulePadding = 32;    // MaxRulePoints, rounded up to whole vectors

// An integration rule, coordinate by coordinate, so that consecutive points fill a vector. Places
// behind the last point, up to a whole vector, repeat its coordinates with the weight 0.
struct alignas(64) KernelRule {
  double weight[RulePadding];
  double coordinate[3][RulePadding];  // hexahedron xi, eta, zeta; tetrahedron L2, L3, L4
  int numPoints;
};

// 3 where the largest of the first `count` level values lies above the switch level, otherwise 2.
int KERNELRULES_ORDER(const ElementScalars& phi, int count);

// The slot of `order` (2 or 3) of TetRuleTable, which must have been filled before the first call.
const KernelRule& KERNELRULES_TET(int order);

// The product of three Gauss-Legendre rules of `order` (2 or 3) points, zeta running fastest.
const KernelRule& KERNELRULES_HEX(int order);
