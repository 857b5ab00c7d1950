// Module FEINTEG: every numerical integration rule of the element library.
// The two tables are filled once at start, before any element is touched, and are read-only after
// that. Weights are relative to the measure of the simplex: each slot sums to 1. Coordinates are
// barycentric. The Gauss-Legendre rules are pure functions.
#pragma once

#include <cstdint>
#include <memory>

namespace FEINTEG {

struct IntegrationRule {
  std::unique_ptr<double[]> weights;  // [point]
  std::unique_ptr<double[]> points;  // [point][coordinate], 4 on the tetrahedron, 3 on the triangle
};

inline constexpr int NumTetRules = 14;
inline constexpr int NumTriRules = 21;

inline IntegrationRule TetRuleTable[NumTetRules];  // [order - 1]
inline IntegrationRule TriRuleTable[NumTriRules];  // [order - 1]

}  // namespace FEINTEG

// Empty and refill all slots. Not to be called while kernels run.
void FEINTEG_INITTETRULES();
void FEINTEG_INITTRIRULES();

// Points of the tetrahedron rule of `order`; 0 for an order outside 1 .. 14.
std::int32_t FEINTEG_TETPOINTCOUNT(std::int32_t order);

// Abscissa and weight number i (from 1, ascending) of the n-point Gauss-Legendre rule on -1 .. 1.
// 0.0 for n outside 1 .. 9 or i outside 1 .. n; n = 1 ignores i.
double FEINTEG_GAUSSPOINT(std::int32_t n, std::int32_t i);
double FEINTEG_GAUSSWEIGHT(std::int32_t n, std::int32_t i);
