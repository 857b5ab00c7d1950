#include "elements/kernel_rules.hpp"

#include <algorithm>
#include <cstddef>

#include "elements/kernel_constants.hpp"
#include "elemlib/feinteg.hpp"
#include "platform/slot.hpp"

namespace {

constexpr int WidestVector = 8;  // doubles

// Repeats the last point with weight 0 up to a whole number of the widest vectors.
void PadRule(KernelRule& rule) {
  const int n = rule.numPoints;
  for (int p = n; p % WidestVector != 0; ++p) {
    rule.weight[p] = 0.0;
    for (auto& coordinate : rule.coordinate) coordinate[p] = n > 0 ? coordinate[n - 1] : 0.0;
  }
}

// The points of the slot of `order`. The first coordinate of a point is not read.
KernelRule MakeTetRule(int order) {
  const FEINTEG::IntegrationRule& slot = FEINTEG::TetRuleTable[Slot(order)];
  KernelRule rule = {};
  rule.numPoints = FEINTEG_TETPOINTCOUNT(order);
  for (int p = 0; p < rule.numPoints; ++p) {
    const double* row = slot.points.get() + std::ptrdiff_t{4} * p;
    rule.weight[p] = slot.weights.get()[p];
    for (int k = 0; k < 3; ++k) rule.coordinate[k][p] = row[k + 1];
  }
  PadRule(rule);
  return rule;
}

// The product of three n-point Gauss-Legendre rules, xi outermost, zeta innermost.
KernelRule MakeHexRule(int n) {
  KernelRule rule = {};
  int p = 0;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j)
      for (int m = 1; m <= n; ++m, ++p) {
        rule.coordinate[0][p] = FEINTEG_GAUSSPOINT(n, i);
        rule.coordinate[1][p] = FEINTEG_GAUSSPOINT(n, j);
        rule.coordinate[2][p] = FEINTEG_GAUSSPOINT(n, m);
        rule.weight[p] =
            FEINTEG_GAUSSWEIGHT(n, i) * FEINTEG_GAUSSWEIGHT(n, j) * FEINTEG_GAUSSWEIGHT(n, m);
      }
  rule.numPoints = p;
  PadRule(rule);
  return rule;
}

}  // namespace

int KERNELRULES_ORDER(const ElementScalars& phi, int count) {
  return *std::max_element(phi, phi + count) > RuleSwitchLevel ? 3 : 2;
}

// Taken from the table at the first call: it is filled at start and never changes after that.
const KernelRule& KERNELRULES_TET(int order) {
  static const KernelRule rules[] = {MakeTetRule(2), MakeTetRule(3)};
  return rules[order - 2];
}

const KernelRule& KERNELRULES_HEX(int order) {
  static const KernelRule rules[] = {MakeHexRule(2), MakeHexRule(3)};
  return rules[order - 2];
}
