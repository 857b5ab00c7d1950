#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "elements/kernel_rules.hpp"
#include "elemlib/feinteg.hpp"
#include "platform/slot.hpp"

namespace {

class KernelRules : public testing::Test {
 protected:
  void SetUp() override {
    if (FEINTEG::TetRuleTable[0].weights == nullptr) FEINTEG_INITTETRULES();
  }
};

struct Point {
  double xi, eta, zeta, weight;
};

constexpr double Two = 0.577350269189626;

// Of two points a direction, written out.
constexpr Point EightPoints[8] = {{-Two, -Two, -Two, 1}, {-Two, -Two, Two, 1}, {-Two, Two, -Two, 1},
                                  {-Two, Two, Two, 1},   {Two, -Two, -Two, 1}, {Two, -Two, Two, 1},
                                  {Two, Two, -Two, 1},   {Two, Two, Two, 1}};

constexpr double Three[3] = {-0.774596669241483, 0.0, 0.774596669241483};
constexpr double ThreeWeights[3] = {0.555555555555556, 0.888888888888889, 0.555555555555556};

// The number of a point, from 0, in base 3 gives its places: xi first, zeta last.
Point OfThree(int number) {
  const int i = number / 9, j = number / 3 % 3, k = number % 3;
  return {Three[i], Three[j], Three[k], ThreeWeights[i] * ThreeWeights[j] * ThreeWeights[k]};
}

void ExpectPoint(const KernelRule& rule, int p, const Point& expected) {
  EXPECT_EQ(rule.coordinate[0][p], expected.xi) << "point " << p + 1;
  EXPECT_EQ(rule.coordinate[1][p], expected.eta) << "point " << p + 1;
  EXPECT_EQ(rule.coordinate[2][p], expected.zeta) << "point " << p + 1;
  EXPECT_EQ(rule.weight[p], expected.weight) << "point " << p + 1;
}

// Places up to a whole vector of eight.
void ExpectPadding(const KernelRule& rule) {
  const int n = rule.numPoints;
  for (int p = n; p % 8 != 0; ++p)
    ExpectPoint(
        rule, p,
        {rule.coordinate[0][n - 1], rule.coordinate[1][n - 1], rule.coordinate[2][n - 1], 0.0});
}

TEST_F(KernelRules, HexahedronOfEightPointsRunsZetaFirstAndXiLast) {
  const KernelRule& rule = KERNELRULES_HEX(2);
  ASSERT_EQ(rule.numPoints, 8);
  for (int p = 0; p < 8; ++p) ExpectPoint(rule, p, EightPoints[p]);
}

TEST_F(KernelRules, HexahedronOfTwentySevenPointsRunsZetaFirstAndXiLast) {
  const KernelRule& rule = KERNELRULES_HEX(3);
  ASSERT_EQ(rule.numPoints, 27);
  ExpectPoint(rule, 0, {Three[0], Three[0], Three[0], OfThree(0).weight});
  ExpectPoint(rule, 1, {Three[0], Three[0], Three[1], OfThree(1).weight});
  ExpectPoint(rule, 3, {Three[0], Three[1], Three[0], OfThree(3).weight});
  ExpectPoint(rule, 9, {Three[1], Three[0], Three[0], OfThree(9).weight});
  for (int p = 0; p < 27; ++p) ExpectPoint(rule, p, OfThree(p));
  ExpectPadding(rule);
}

TEST_F(KernelRules, TetrahedronWalksItsSlotByTheCoordinatesTwoToFour) {
  for (const int order : {2, 3}) {
    const KernelRule& rule = KERNELRULES_TET(order);
    const FEINTEG::IntegrationRule& slot = FEINTEG::TetRuleTable[Slot(order)];
    ASSERT_EQ(rule.numPoints, FEINTEG_TETPOINTCOUNT(order));
    for (int p = 0; p < rule.numPoints; ++p)
      ExpectPoint(rule, p,
                  {slot.points[4 * static_cast<std::size_t>(p) + 1],
                   slot.points[4 * static_cast<std::size_t>(p) + 2],
                   slot.points[4 * static_cast<std::size_t>(p) + 3],
                   slot.weights[static_cast<std::size_t>(p)]});
    ExpectPadding(rule);
  }
}

TEST_F(KernelRules, LargestOfTheFirstLevelsChoosesTheOrder) {
  ElementScalars phi;
  std::fill(std::begin(phi), std::end(phi), -1.0);
  EXPECT_EQ(KERNELRULES_ORDER(phi, 4), 2);
  phi[4] = 1.0;
  EXPECT_EQ(KERNELRULES_ORDER(phi, 4), 2);
  EXPECT_EQ(KERNELRULES_ORDER(phi, 8), 3);
  phi[4] = double{-0.2f};
  EXPECT_EQ(KERNELRULES_ORDER(phi, 8), 2);
  phi[7] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(KERNELRULES_ORDER(phi, 8), 3);
}

}  // namespace
