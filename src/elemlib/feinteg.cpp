#include "elemlib/feinteg.hpp"

#include <algorithm>
#include <cstddef>
#include <span>

#include "elemlib/feinteg_orbits.hpp"
#include "platform/slot.hpp"

namespace {

using FEINTEG::IntegrationRule;
using FEINTEG::Orbit;

constexpr std::int32_t TetPointCount[FEINTEG::NumTetRules] = {1,  4,  8,  14,  14,  24,  36,
                                                              46, 61, 81, 109, 140, 171, 236};
constexpr std::int32_t TriPointCount[FEINTEG::NumTriRules] = {
    1, 3, 6, 6, 7, 12, 15, 16, 19, 25, 28, 33, 37, 46, 52, 55, 61, 72, 73, 88, 91};

// Slot 12 of the tetrahedron holds all 140 weights but lacks the points of its fifth orbit: the
// points written after the gap stand four rows before their weights, the last four rows stay empty.
constexpr int GapOrder = 12;
constexpr int GapOrbit = 5;

// The rows of the 6-point orbit are not in lexicographic order; all others are.
constexpr int TetSixRows[6][4] = {{0, 0, 1, 1}, {0, 1, 0, 1}, {0, 1, 1, 0},
                                  {1, 0, 1, 0}, {1, 0, 0, 1}, {1, 1, 0, 0}};

// Writes row (v[label[0]], ..., v[label[k - 1]]) and steps over it.
double* WriteRow(double* out, std::span<const int> labels, const double* v) {
  return std::transform(labels.begin(), labels.end(), out, [v](int label) { return v[label]; });
}

// All distinct arrangements of the ascending labels, in lexicographic order.
template <int K>
double* WriteArrangements(double* out, const int (&ascending)[K], const double* v) {
  int labels[K];
  std::copy_n(ascending, K, labels);
  do {
    out = WriteRow(out, labels, v);
  } while (std::next_permutation(labels, labels + K));
  return out;
}

double* WriteTetOrbit(double* out, const Orbit& o) {
  const double a = o.a, b = o.b, c = o.c;
  switch (o.kind) {
    case 1:
      return std::fill_n(out, 4, 0.25);
    case 4: {
      const double v[] = {a, 1.0 - 3.0 * a};
      return WriteArrangements(out, {0, 0, 0, 1}, v);
    }
    case 6: {
      const double v[] = {a, 0.5 - a};
      for (const auto& row : TetSixRows) out = WriteRow(out, row, v);
      return out;
    }
    case 12: {
      const double v[] = {a, b, 1.0 - a - a - b};
      return WriteArrangements(out, {0, 0, 1, 2}, v);
    }
    default: {
      const double v[] = {a, b, c, 1.0 - a - b - c};
      return WriteArrangements(out, {0, 1, 2, 3}, v);
    }
  }
}

double* WriteTriOrbit(double* out, const Orbit& o) {
  const double a = o.a, b = o.b;
  switch (o.kind) {
    case 1:
      return std::fill_n(out, 3, 1.0 / 3.0);
    case 3: {
      // 1 - 1/6 - 1/6 misses the nearest double of 2/3 by one unit.
      const double v[] = {a, a == 1.0 / 6.0 ? 2.0 / 3.0 : 1.0 - a - a};
      return WriteArrangements(out, {0, 0, 1}, v);
    }
    default: {
      const double v[] = {a, b, 1.0 - a - b};
      return WriteArrangements(out, {0, 1, 2}, v);
    }
  }
}

// Empties the slot, then gives it room for n points of k coordinates. The points are not cleared:
// the unwritten rows of the irregular slot stay unwritten.
void Reallocate(IntegrationRule& rule, std::int32_t n, int k) {
  rule.weights.reset();
  rule.points.reset();
  rule.weights = std::make_unique<double[]>(static_cast<std::size_t>(n));
  rule.points = std::make_unique_for_overwrite<double[]>(static_cast<std::size_t>(n) *
                                                         static_cast<std::size_t>(k));
}

}  // namespace

void FEINTEG_INITTETRULES() {
  for (int order = 1; order <= FEINTEG::NumTetRules; ++order) {
    IntegrationRule& rule = FEINTEG::TetRuleTable[Slot(order)];
    Reallocate(rule, TetPointCount[Slot(order)], 4);
    double* weight = rule.weights.get();
    double* point = rule.points.get();
    int index = 0;
    for (const Orbit& o : FEINTEG::TetOrbits) {
      if (o.order != order) continue;
      ++index;
      weight = std::fill_n(weight, o.kind, o.weight);
      if (order != GapOrder || index != GapOrbit) point = WriteTetOrbit(point, o);
    }
  }
}

void FEINTEG_INITTRIRULES() {
  for (int order = 1; order <= FEINTEG::NumTriRules; ++order) {
    IntegrationRule& rule = FEINTEG::TriRuleTable[Slot(order)];
    Reallocate(rule, TriPointCount[Slot(order)], 3);
    double* weight = rule.weights.get();
    double* point = rule.points.get();
    for (const Orbit& o : FEINTEG::TriOrbits) {
      if (o.order != order) continue;
      weight = std::fill_n(weight, o.kind, o.weight);
      point = WriteTriOrbit(point, o);
    }
  }
}

std::int32_t FEINTEG_TETPOINTCOUNT(std::int32_t order) {
  return order >= 1 && order <= FEINTEG::NumTetRules ? TetPointCount[Slot(order)] : 0;
}

// Gauss-Legendre rules as published (Abramowitz and Stegun, Handbook of Mathematical Functions,
// table 25.4), held as literals of 15 decimals. Abscissae: positive half, ascending. Weights: from
// the outermost point inwards.
namespace {

constexpr std::int32_t MaxGaussPoints = 9;

constexpr double GaussAbscissae[MaxGaussPoints][4] = {
    {},
    {0.577350269189626},
    {0.774596669241483},
    {0.339981043584856, 0.861136311594053},
    {0.538469310105683, 0.906179845938664},
    {0.238619186083197, 0.661209386466265, 0.932469514203152},
    {0.405845151377397, 0.741531185599394, 0.949107912342759},
    {0.18343464249565, 0.525532409916329, 0.796666477413627, 0.960289856497536},
    {0.324253423403809, 0.61337143270059, 0.836031107326636, 0.968160239507626}};

constexpr double GaussWeights[MaxGaussPoints][5] = {
    {2.0},
    {1.0},
    {0.555555555555556, 0.888888888888889},
    {0.347854845137454, 0.652145154862546},
    {0.236926885056189, 0.478628670499366, 0.568888888888889},
    {0.17132449237917, 0.360761573048139, 0.467913934572691},
    {0.12948496616887, 0.279705391489277, 0.381830050505119, 0.417959183673469},
    {0.101228536290376, 0.222381034453374, 0.313706645877887, 0.362683783378362},
    {0.081274388361574, 0.180648160694857, 0.260610696402935, 0.31234707704, 0.33023935500126}};

bool HasGaussPoint(std::int32_t n, std::int32_t i) {
  return n >= 1 && n <= MaxGaussPoints && i >= 1 && i <= n;
}

}  // namespace

double FEINTEG_GAUSSPOINT(std::int32_t n, std::int32_t i) {
  if (!HasGaussPoint(n, i)) return 0.0;
  const double* half = GaussAbscissae[Slot(n)];
  const std::int32_t numHalf = n / 2;
  if (i <= numHalf) return -half[numHalf - i];
  if (i > n - numHalf) return half[Slot(i - (n - numHalf))];
  return 0.0;  // the middle point of an odd rule
}

double FEINTEG_GAUSSWEIGHT(std::int32_t n, std::int32_t i) {
  if (n == 1) return GaussWeights[0][0];  // whatever i is
  if (!HasGaussPoint(n, i)) return 0.0;
  return GaussWeights[Slot(n)][Slot(std::min(i, n + 1 - i))];
}
