#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <tuple>
#include <utility>

#include "elements/fekernel.hpp"
#include "elements/kernel_cases.hpp"
#include "elements/kernel_constants.hpp"

namespace {

using namespace cases;

constexpr double Inf = std::numeric_limits<double>::infinity();
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

// Fills the rule tables and sets the steepness k; puts the option back afterwards.
class KernelTest : public testing::Test {
 protected:
  void SetUp() override {
    if (FEINTEG::TetRuleTable[0].weights == nullptr) FEINTEG_INITTETRULES();
    VKCORE::RunOptions.MatSlopeFactor = 500.0f;
  }
  void TearDown() override { VKCORE::RunOptions = VKCORE::RunOptionValues(); }
};

double PresenceSmoothOf(double kF) { return reference::PresenceAt(kF); }

// --- every shape, both rules, every instruction set -------------------------------------------

using Case = std::tuple<Shape, int, Variant>;

class KernelFamily : public KernelTest, public testing::WithParamInterface<Case> {
 protected:
  Shape shape() const { return std::get<0>(GetParam()); }
  int order() const { return std::get<1>(GetParam()); }
  Variant variant() const { return std::get<2>(GetParam()); }
  int dofs() const { return 3 * reference::NodeCount(shape()); }
  Element element(unsigned seed = 1) const { return Distorted(shape(), order(), seed); }
};

template <class P>
std::string ParamName(const testing::TestParamInfo<P>& parameter) {
  return NameOf(parameter.param);
}

std::string CaseName(const testing::TestParamInfo<Case>& parameter) {
  return NameOf(std::get<0>(parameter.param)) + "Order" +
         std::to_string(std::get<1>(parameter.param)) + NameOf(std::get<2>(parameter.param));
}

INSTANTIATE_TEST_SUITE_P(All, KernelFamily,
                         testing::Combine(testing::Values(Shape::Tet4, Shape::Hex8, Shape::Tet10),
                                          testing::Values(2, 3),
                                          testing::ValuesIn(AvailableVariants())),
                         CaseName);

void ExpectClose(const double* got, const double* expected, int n, double relative) {
  const double scale = Largest(expected, n);
  for (int i = 0; i < n; ++i)
    EXPECT_NEAR(got[i], expected[i], relative * scale) << "entry " << i + 1;
}

// Relative error that rounding leaves. The presence is exact to 1e-15; far below level zero, where
// it is a thousandth, that is 1e-12 of it.
double Rounding(int order) { return order == 3 ? 1e-14 : 1e-14 + 1e-15 / PresenceFloor; }

TEST_P(KernelFamily, ElementsOfTheTestsUseTheRuleTheyAreNamedAfter) {
  EXPECT_EQ(reference::Order(element()), order());
}

TEST_P(KernelFamily, ForcesAreThoseOfTheDenseTwin) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    const Element e = element(seed);
    ElementVector f, expected;
    Forces(variant(), e, f);
    reference::Forces(e, Slope(), expected);
    ExpectClose(f, expected, 30, Rounding(order()));
  }
}

TEST_P(KernelFamily, MatrixIsThatOfTheDenseTwin) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    const Element e = element(seed);
    ElementVector f;
    ElementMatrix k, expected;
    Matrix(variant(), e, f, k);
    reference::Matrix(e, Slope(), expected);
    ExpectClose(k, expected, 900, Rounding(order()));
  }
}

TEST_P(KernelFamily, ResponseEntriesAreThoseOfTheDenseTwin) {
  for (unsigned seed = 1; seed <= 5; ++seed) {
    const Element e = element(seed);
    ElementResponse r, expected;
    Response(variant(), e, r);
    reference::Response(e, Slope(), expected);
    // Twice the error where the presence is squared. Entries 8 and 9 are sums of both signs and are
    // compared with what they are sums of.
    const double scale[9] = {expected[0], expected[1], expected[2], expected[3],       expected[4],
                             expected[5], expected[6], expected[6], 0.05 * expected[2]};
    for (int i = 0; i < 9; ++i)
      EXPECT_NEAR(r[i], expected[i], 2 * Rounding(order()) * scale[i]) << "entry " << i + 1;
  }
}

TEST_P(KernelFamily, MatrixKernelDeliversTheForcesOfTheForcesKernel) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const Element e = element(seed);
    ElementVector f, g;
    ElementMatrix k;
    Forces(variant(), e, f);
    Matrix(variant(), e, g, k);
    EXPECT_EQ(std::memcmp(f, g, sizeof f), 0) << "seed " << seed;
  }
}

TEST_P(KernelFamily, MatrixIsTheDerivativeOfTheForces) {
  const Element e = element();
  ElementVector f;
  ElementMatrix k;
  Matrix(variant(), e, f, k);
  const double scale = Largest(k, 900);
  const double h = 1e-2;
  for (int j = 0; j < dofs(); ++j) {
    Element up = e, down = e;
    up.disp[j] += h;
    down.disp[j] -= h;
    ElementVector fUp, fDown;
    Forces(variant(), up, fUp);
    Forces(variant(), down, fDown);
    // All i, so that the derivative is symmetric as well.
    for (int i = 0; i < dofs(); ++i)
      EXPECT_NEAR(Symmetric(k, i, j), (fUp[i] - fDown[i]) / (2 * h), 1e-7 * scale)
          << "entry " << i + 1 << ", " << j + 1;
  }
}

TEST_P(KernelFamily, ForcesAreTheDerivativeOfTheEnergy) {
  const Element e = element();
  ElementVector f;
  Forces(variant(), e, f);
  const double h = 1e-3;
  for (int i = 0; i < dofs(); ++i) {
    Element up = e, down = e;
    up.disp[i] += h;
    down.disp[i] -= h;
    const double derivative =
        (reference::Energy(up, Slope()) - reference::Energy(down, Slope())) / (2 * h);
    EXPECT_NEAR(f[i], derivative, 1e-7 * Largest(f, 30)) << "entry " << i + 1;
  }
}

TEST_P(KernelFamily, MatrixTimesDisplacementIsTheForceWithoutFreeStrains) {
  Element e = element();
  RemoveFreeStrains(e);
  ElementVector f;
  ElementMatrix k;
  Matrix(variant(), e, f, k);
  for (int i = 0; i < dofs(); ++i) {
    double sum = 0;
    for (int j = 0; j < dofs(); ++j) sum += Symmetric(k, i, j) * e.disp[j];
    EXPECT_NEAR(sum, f[i], 1e-13 * Largest(f, 30)) << "entry " << i + 1;
  }
}

TEST_P(KernelFamily, MatrixDoesNotDependOnDisplacementsAndFreeStrains) {
  const Element e = element();
  Element other = e;
  for (double& u : other.disp) u = -3 * u + 0.1;
  for (double& t : other.scalars) t = 7 - t;
  for (double& l : other.loadData) l *= 2;
  ElementVector f;
  ElementMatrix k, l;
  Matrix(variant(), e, f, k);
  Matrix(variant(), other, f, l);
  EXPECT_EQ(std::memcmp(k, l, sizeof k), 0);
}

TEST_P(KernelFamily, SixRigidBodyModesGiveNoForce) {
  Element e = element();
  RemoveFreeStrains(e);
  ElementVector unused;
  ElementMatrix k;
  Matrix(variant(), e, unused, k);
  const double scale = Largest(k, 900);
  for (int mode = 0; mode < 6; ++mode) {
    for (int a = 0; a < reference::NodeCount(shape()); ++a) {
      const double* x = e.coords + 3 * a;
      for (int i = 0; i < 3; ++i) e.disp[3 * a + i] = mode == i ? 1.0 : 0.0;
      if (mode < 3) continue;
      const int i = (mode - 2) % 3, j = (mode - 1) % 3;  // infinitesimal turn in the plane i, j
      e.disp[3 * a + i] = -x[j];
      e.disp[3 * a + j] = x[i];
    }
    ElementVector f;
    Forces(variant(), e, f);
    EXPECT_LT(Largest(f, 30), 1e-13 * scale) << "mode " << mode + 1;
    ElementResponse r;
    Response(variant(), e, r);
    EXPECT_LT(r[6], 1e-12 * scale) << "mode " << mode + 1;
  }
}

TEST_P(KernelFamily, RigidTranslationGivesNoForce) {
  Element e = element();
  RemoveFreeStrains(e);
  for (int a = 0; a < 10; ++a) {
    e.disp[3 * a] = 1.0;
    e.disp[3 * a + 1] = -2.0;
    e.disp[3 * a + 2] = 0.5;
  }
  ElementVector f;
  Forces(variant(), e, f);
  EXPECT_LT(Largest(f, 30), 1e-13 * 20.0);
}

// Displacements of a constant strain: exx, eyy, ezz, gxy, gyz, gxz.
void SetLinearField(Element& e, const double (&strain)[6]) {
  for (int a = 0; a < reference::NodeCount(e.shape); ++a) {
    const double *x = e.coords + 3 * a, y = x[1], z = x[2];
    e.disp[3 * a] = strain[0] * x[0] + strain[3] * y + strain[5] * z;
    e.disp[3 * a + 1] = strain[1] * y + strain[4] * z;
    e.disp[3 * a + 2] = strain[2] * z;
  }
}

TEST_P(KernelFamily, LinearDisplacementsGiveTheConstantStrainStateAtEveryPoint) {
  for (const auto& constants : {Orthotropic, Isotropic}) {
    Element e = element();
    RemoveFreeStrains(e);
    for (int i = 0; i < 9; ++i) e.stiffness[i] = constants[i];
    const double s[6] = {1e-3, -2e-3, 0.5e-3, 3e-3, -1e-3, 2e-3};
    SetLinearField(e, s);
    const double* c = constants;
    const double t[6] = {c[0] * s[0] + c[1] * s[1] + c[2] * s[2],
                         c[1] * s[0] + c[3] * s[1] + c[4] * s[2],
                         c[2] * s[0] + c[4] * s[1] + c[5] * s[2],
                         c[6] / 2 * s[3],
                         c[7] / 2 * s[4],
                         c[8] / 2 * s[5]};
    double u = 0;
    for (int i = 0; i < 6; ++i) u += s[i] * t[i] / 2;
    const double mean = (t[0] + t[1] + t[2]) / 3;
    const double mises = std::sqrt(((t[0] - t[1]) * (t[0] - t[1]) + (t[1] - t[2]) * (t[1] - t[2]) +
                                    (t[2] - t[0]) * (t[2] - t[0])) /
                                       2 +
                                   3 * (t[3] * t[3] + t[4] * t[4] + t[5] * t[5]));
    ElementResponse r;
    Response(variant(), e, r);
    EXPECT_NEAR(r[5] / r[2], u, 1e-12 * u);
    EXPECT_NEAR(r[6] / r[2], mises, 1e-12 * mises);
    EXPECT_NEAR(r[3] / r[4], u / mises, 1e-12 * u / mises);
    EXPECT_NEAR(r[7] / r[2], mean, 1e-12 * mises);
    EXPECT_NEAR(r[8] / r[2], (s[0] + s[1] + s[2]) / 3, 1e-15);
  }
}

TEST_P(KernelFamily, ExpansionMatchedByTheDisplacementsGivesNoStressAndNoForce) {
  Element e = element();
  const double* l = e.loadData;
  for (double& t : e.scalars) t = 5.0;  // the same everywhere, so T is 5 at every point
  SetLinearField(e, {l[1] * 5 + l[4], l[2] * 5 + l[5], l[3] * 5 + l[6], 0, 0, 0});
  ElementVector f;
  Forces(variant(), e, f);
  ElementResponse r;
  Response(variant(), e, r);
  EXPECT_LT(Largest(f, 30), 1e-15);
  for (int i = 3; i < 9; ++i) EXPECT_LT(std::fabs(r[i]), 1e-15) << "entry " << i + 1;
}

TEST_P(KernelFamily, NothingButZeroInputGivesForcesOfExactlyZero) {
  Element e = element();
  for (double& u : e.disp) u = 0;
  for (double& t : e.scalars) t = 0;
  for (int i = 4; i < 7; ++i) e.loadData[i] = 0;
  ElementVector f;
  Forces(variant(), e, f);
  for (double v : f) EXPECT_EQ(v, 0.0);
}

TEST_P(KernelFamily, TemperatureAloneGivesTheOppositeOfTheFreeStrainLoad) {
  Element e = element();
  for (double& u : e.disp) u = 0;
  ElementVector f;
  Forces(variant(), e, f);
  ElementVector load = {};  // sum of H dV B^T M (alpha T + e0)
  for (const reference::Point& p : reference::Points(e)) {
    const reference::PointState s = reference::Evaluate(e, p, Slope());
    for (int i = 0; i < 30; ++i)
      for (int r = 0; r < 6; ++r)
        for (int q = 0; q < 3; ++q)
          load[i] += s.smooth * s.dV * s.b[r][i] * s.m[r][q] * -s.strain[q];
  }
  ASSERT_GT(Largest(load, 30), 0.0);
  for (int i = 0; i < 30; ++i) EXPECT_NEAR(f[i], -load[i], Rounding(order()) * Largest(load, 30));
}

TEST_P(KernelFamily, EverythingBehindTheElementIsZeroWhateverTheBuffersHeld) {
  const Element e = element();
  ElementVector f;
  ElementMatrix k;
  for (double& v : f) v = NaN;
  Forces(variant(), e, f);
  for (int i = dofs(); i < 30; ++i) EXPECT_EQ(f[i], 0.0);
  for (double& v : f) v = NaN;
  for (double& v : k) v = NaN;
  Matrix(variant(), e, f, k);
  for (int i = dofs(); i < 30; ++i) EXPECT_EQ(f[i], 0.0);
  for (int j = 0; j < 30; ++j)
    for (int i = 0; i < 30; ++i) {
      const double entry = k[i + 30 * j];
      if (i > j || j >= dofs()) {
        EXPECT_EQ(entry, 0.0) << i + 1 << ", " << j + 1;
      } else if (i == j) {
        EXPECT_GT(entry, 0.0) << i + 1;
      }
    }
}

TEST_P(KernelFamily, EqualLevelsGiveTheSamePresenceAtAllPoints) {
  Element e = element();
  const double level = order() == 3 ? 0.0017 : -0.31;
  for (double& p : e.phi) p = level;
  ElementResponse r;
  Response(variant(), e, r);
  EXPECT_NEAR(r[1] / r[0], PresenceSmoothOf(500.0 * level), 1e-15);
  EXPECT_NEAR(r[2] / r[0], PresenceSmoothOf(500.0 * level * 1000.0), 1e-15);
}

TEST_P(KernelFamily, WithoutSlopeThePresenceIsHalfWhateverTheLevel) {
  VKCORE::RunOptions.MatSlopeFactor = 0.0f;
  Element e = element();
  if (order() == 3)
    for (double& p : e.phi) p = 1.0;
  ElementResponse r;
  Response(variant(), e, r);
  const double half = 0.5 * 0.9989999999525025 + 0.0010000000474974513;
  EXPECT_NEAR(r[1], half * r[0], 1e-15);
  EXPECT_NEAR(r[2], half * r[0], 1e-15);
  // Forces and matrix carry the same factor.
  ElementVector f, expected;
  Forces(variant(), e, f);
  reference::Forces(e, 0.0, expected);
  ExpectClose(f, expected, 30, Rounding(order()));
}

TEST_P(KernelFamily, SlopeIsReadFromTheRunOptions) {
  VKCORE::RunOptions.MatSlopeFactor = 1234.5f;
  const Element e = element();
  ElementVector f, expected;
  Forces(variant(), e, f);
  reference::Forces(e, 1234.5, expected);
  ExpectClose(f, expected, 30, Rounding(order()));
}

TEST_P(KernelFamily, VeryLargeLevelsOfEitherSignSaturateThePresence) {
  Element e = element();
  const double level = order() == 3 ? 1e12 : -1e12;
  for (double& p : e.phi) p = level;
  ElementResponse r;
  Response(variant(), e, r);
  for (int i : {1, 2}) {
    EXPECT_NEAR(r[i] / r[0], order() == 3 ? 1.0 : PresenceFloor, 1e-12);
    EXPECT_GT(r[i] / r[0], 0.0);
  }
}

TEST_P(KernelFamily, InfiniteLevelsGiveTheLimitsOfThePresence) {
  Element e = element();
  for (double& p : e.phi) p = order() == 3 ? Inf : -Inf;
  ElementResponse r;
  Response(variant(), e, r);
  // Shape functions of both signs would make a NaN of an infinite level; those of the level field
  // are all positive inside.
  EXPECT_NEAR(r[1] / r[0], order() == 3 ? 1.0 : PresenceFloor, 1e-15);
  EXPECT_NEAR(r[2] / r[0], order() == 3 ? 1.0 : PresenceFloor, 1e-15);
}

TEST_P(KernelFamily, UndefinedLevelsFlowOn) {
  Element e = element();
  e.phi[2] = NaN;
  ElementVector f;
  Forces(variant(), e, f);
  ElementResponse r;
  Response(variant(), e, r);
  EXPECT_TRUE(std::isnan(f[0]));
  EXPECT_TRUE(std::isnan(r[1]));
  EXPECT_NEAR(
      r[0],
      [&] {
        ElementResponse expected;
        reference::Response(element(), Slope(), expected);
        return expected[0];
      }(),
      1e-14);
}

TEST_P(KernelFamily, DegenerateElementReportsNothingAndFlowsOn) {
  Element e = element();
  for (int a = 0; a < 10; ++a) e.coords[3 * a + 2] = 0.0;  // flat
  ElementVector f;
  ElementMatrix k;
  Matrix(variant(), e, f, k);
  EXPECT_FALSE(std::isfinite(f[0]));
  EXPECT_FALSE(std::isfinite(k[0]));
}

TEST_P(KernelFamily, VolumeIsTheSameForBothRules) {
  Element coarse = element(), fine = element();
  for (double& p : coarse.phi) p = -1;
  for (double& p : fine.phi) p = 1;
  if (shape() == Shape::Tet10) StraightenEdges(coarse), StraightenEdges(fine);
  ElementResponse r2, r3;
  Response(variant(), coarse, r2);
  Response(variant(), fine, r3);
  EXPECT_NEAR(r2[0], r3[0], 1e-14);
}

// H as the kernels of each instruction set compute it, against the library's arctangent.
class KernelPresence : public KernelTest, public testing::WithParamInterface<Variant> {};

INSTANTIATE_TEST_SUITE_P(All, KernelPresence, testing::ValuesIn(AvailableVariants()),
                         ParamName<Variant>);

TEST_P(KernelPresence, IsExactTo1e15OverAllArguments) {
  Element e = Distorted(Shape::Tet4, 3);
  const int steps = 20000;
  for (int n = -steps; n <= steps; ++n) {
    const double magnitude = std::pow(10.0, std::abs(n) * 30.0 / steps - 15.0);  // 1e-15 .. 1e15
    const double kF = n < 0 ? -magnitude : magnitude;
    for (double& p : e.phi) p = kF / 500.0;
    ElementResponse r;
    Response(GetParam(), e, r);
    ASSERT_NEAR(r[1] / r[0], PresenceSmoothOf(kF), 1e-15) << kF;
    ASSERT_NEAR(r[2] / r[0], PresenceSmoothOf(1000.0 * kF), 1e-15) << kF;
  }
}

// --- choice of the rule -------------------------------------------------------------------------

class KernelRuleChoice : public KernelTest, public testing::WithParamInterface<Shape> {
 protected:
  // H dV of an element whose levels are the largest at one node and -0.35 at all others, by the
  // rule of the given order.
  static double Expected(const Element& e, int order) {
    Element forced = e;
    double sum = 0;
    for (double& p : forced.phi) p = order == 3 ? 1.0 : -1.0;
    for (const reference::Point& p : reference::Points(forced)) {
      const reference::PointState s = reference::Evaluate(e, p, Slope());
      sum += s.smooth * s.dV;
    }
    return sum;
  }
};

INSTANTIATE_TEST_SUITE_P(All, KernelRuleChoice,
                         testing::Values(Shape::Tet4, Shape::Hex8, Shape::Tet10), ParamName<Shape>);

TEST_P(KernelRuleChoice, LargestLevelExactlyAtTheSwitchSelectsOrderTwo) {
  VKCORE::RunOptions.MatSlopeFactor = 10.0f;
  for (int node = 0; node < reference::LevelCount(GetParam()); ++node) {
    Element e = Distorted(GetParam(), 2);
    for (double& p : e.phi) p = -0.35;
    e.phi[node] = -0.20000000298023224;
    ASSERT_GT(std::fabs(Expected(e, 2) - Expected(e, 3)), 1e-7) << "the rules must differ here";
    ElementResponse r;
    Response(Variant::Public, e, r);
    EXPECT_NEAR(r[1], Expected(e, 2), 1e-14) << "node " << node + 1;
  }
}

TEST_P(KernelRuleChoice, AnyLargerLevelSelectsOrderThree) {
  VKCORE::RunOptions.MatSlopeFactor = 10.0f;
  for (int node = 0; node < reference::LevelCount(GetParam()); ++node) {
    Element e = Distorted(GetParam(), 2);
    for (double& p : e.phi) p = -0.35;
    e.phi[node] = std::nextafter(-0.20000000298023224, 0.0);
    ElementResponse r;
    Response(Variant::Public, e, r);
    EXPECT_NEAR(r[1], Expected(e, 3), 1e-14) << "node " << node + 1;
  }
}

TEST_P(KernelRuleChoice, LevelsBehindTheLevelNodesHaveNoEffect) {
  Element e = Distorted(GetParam(), 2), other = e;
  for (int a = reference::LevelCount(GetParam()); a < 10; ++a) other.phi[a] = NaN;
  ElementVector f, g;
  ElementMatrix k, l;
  ElementResponse r, s;
  Matrix(Variant::Public, e, f, k);
  Matrix(Variant::Public, other, g, l);
  Response(Variant::Public, e, r);
  Response(Variant::Public, other, s);
  EXPECT_EQ(std::memcmp(f, g, sizeof f), 0);
  EXPECT_EQ(std::memcmp(k, l, sizeof k), 0);
  EXPECT_EQ(std::memcmp(r, s, sizeof r), 0);
}

// --- constants ----------------------------------------------------------------------------------

TEST(FekernelConstants, AreTheStatedDoublesToTheLastBit) {
  EXPECT_EQ(PresenceFloor, 0.0010000000474974513);
  EXPECT_EQ(PresenceSpan, 0.9989999999525025);
  EXPECT_EQ(InversePi, 0.3183098861837907);
  EXPECT_EQ(RuleSwitchLevel, -0.20000000298023224);
  EXPECT_EQ(SharpSlope, 1000.0);
}

// --- single shapes ------------------------------------------------------------------------------

using FekernelTet4 = KernelTest;
using FekernelHex8 = KernelTest;
using FekernelTet10 = KernelTest;

TEST_F(FekernelTet4, FirstResponseEntryIsASixthOfTheDeterminantForEitherRule) {
  for (int order : {2, 3}) {
    Element e = Distorted(Shape::Tet4, order);
    const double* x = e.coords;
    double edge[3][3];
    for (int a = 0; a < 3; ++a)
      for (int i = 0; i < 3; ++i) edge[a][i] = x[3 * (a + 1) + i] - x[i];
    const double det = edge[0][0] * (edge[1][1] * edge[2][2] - edge[1][2] * edge[2][1]) -
                       edge[1][0] * (edge[0][1] * edge[2][2] - edge[0][2] * edge[2][1]) +
                       edge[2][0] * (edge[0][1] * edge[1][2] - edge[0][2] * edge[1][1]);
    ElementResponse r;
    Response(Variant::Public, e, r);
    EXPECT_NEAR(r[0], det / 6, 1e-15);
  }
}

TEST_F(FekernelTet4, ExchangedNodesGiveANegativeVolume) {
  Element e = Distorted(Shape::Tet4, 3), other = e;
  for (int i = 0; i < 3; ++i) std::swap(other.coords[i], other.coords[3 + i]);
  ElementResponse r, s;
  Response(Variant::Public, e, r);
  Response(Variant::Public, other, s);
  EXPECT_NEAR(s[0], -r[0], 1e-15);
}

// Unit displacement of node 2 of the unit tetrahedron under one constant at a time.
TEST_F(FekernelTet4, EachConstantActsInItsPlace) {
  Element e;
  e.shape = Shape::Tet4;
  const double corner[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
  std::copy(corner, corner + 12, e.coords);
  for (double& p : e.phi) p = 1;
  const double hv = PresenceSmoothOf(500.0) / 6;
  // grad N2 = x, grad N3 = y, grad N4 = z; rows and columns of those nodes start at 3, 6, 9.
  struct Place {
    int constant, row, column;
    double value;
  };
  const Place places[] = {{0, 3, 3, 1},   {1, 3, 7, 1},   {2, 3, 11, 1},    {3, 7, 7, 1},
                          {4, 7, 11, 1},  {5, 11, 11, 1}, {6, 6, 6, 0.5},   {6, 4, 4, 0.5},
                          {6, 4, 6, 0.5}, {7, 8, 8, 0.5}, {7, 10, 10, 0.5}, {7, 8, 10, 0.5},
                          {8, 5, 5, 0.5}, {8, 9, 9, 0.5}, {8, 5, 9, 0.5}};
  for (const Place& p : places) {
    for (double& c : e.stiffness) c = 0;
    e.stiffness[p.constant] = 1;
    ElementVector f;
    ElementMatrix k;
    Matrix(Variant::Public, e, f, k);
    EXPECT_NEAR(k[p.row + 30 * p.column], p.value * hv, 1e-15)
        << "constant " << p.constant + 1 << " at " << p.row + 1 << ", " << p.column + 1;
  }
}

Element UnitCube() {
  Element e;
  e.shape = Shape::Hex8;
  const double corner[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                               {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  for (int a = 0; a < 8; ++a) std::copy(corner[a], corner[a] + 3, e.coords + 3 * a);
  SetStiffness(e, Orthotropic);
  return e;
}

TEST_F(FekernelHex8, UnitCubeHasVolumeOneAtBothOrders) {
  Element e = UnitCube();
  for (double level : {-1.0, 1.0}) {
    for (double& p : e.phi) p = level;
    ElementResponse r;
    Response(Variant::Public, e, r);
    EXPECT_NEAR(r[0], 1.0, 4e-15);  // the literals of the rule have 15 decimals
  }
}

TEST_F(FekernelHex8, LevelOneLeavesTheElementALittleSofterThanItsMaterial) {
  Element e = UnitCube();
  for (double& p : e.phi) p = 1.0;
  ElementResponse r;
  Response(Variant::Public, e, r);
  const double h0 = double{0.001f};
  const double expected = (std::atan(500.0) / std::acos(-1.0) + 0.5) * (1 - h0) + h0;
  EXPECT_NEAR(r[1] / r[0], expected, 1e-15);
  EXPECT_LT(r[1] / r[0], 1.0);
}

TEST_F(FekernelHex8, LevelZeroGivesHalfPresenceByTheFinerRule) {
  Element e = UnitCube();
  for (double& p : e.phi) p = 0.0;
  ElementResponse r;
  Response(Variant::Public, e, r);
  EXPECT_NEAR(r[1] / r[0], 0.5 * (1 - PresenceFloor) + PresenceFloor, 1e-15);
  EXPECT_EQ(KERNELRULES_ORDER(e.phi, 8), 3);
}

TEST_F(FekernelHex8, LevelFarBelowTheSwitchLeavesAThousandthOfTheStiffness) {
  Element full = UnitCube(), empty = UnitCube();
  for (double& p : full.phi) p = 1e12;
  for (double& p : empty.phi) p = -1e12;
  EXPECT_EQ(KERNELRULES_ORDER(empty.phi, 8), 2);
  ElementVector f;
  ElementMatrix k, l;
  Matrix(Variant::Public, full, f, k);
  Matrix(Variant::Public, empty, f, l);
  for (int j = 0; j < 24; ++j)
    for (int i = 0; i <= j; ++i)
      EXPECT_NEAR(l[i + 30 * j], PresenceFloor * k[i + 30 * j], 1e-13) << i + 1 << ", " << j + 1;
}

TEST_F(FekernelHex8, ExchangedFacesGiveANegativeJacobian) {
  Element e = Distorted(Shape::Hex8, 3), other = e;
  for (int i = 0; i < 12; ++i) std::swap(other.coords[i], other.coords[12 + i]);
  ElementResponse r, s;
  Response(Variant::Public, e, r);
  Response(Variant::Public, other, s);
  EXPECT_GT(r[0], 0.0);
  EXPECT_NEAR(s[0], -r[0], 1e-14);
}

TEST_F(FekernelTet10, StraightSidedElementHasTheVolumeOfItsCorners) {
  for (int order : {2, 3}) {
    Element e = Distorted(Shape::Tet10, order), corners = e;
    StraightenEdges(e);
    corners.shape = Shape::Tet4;
    ElementResponse r, s;
    Response(Variant::Public, e, r);
    Response(Variant::Public, corners, s);
    EXPECT_NEAR(r[0], s[0], 1e-15);
  }
}

TEST_F(FekernelTet10, CurvedEdgesChangeTheVolume) {
  Element e = Distorted(Shape::Tet10, 3), straight = e;
  StraightenEdges(straight);
  ElementResponse r, s;
  Response(Variant::Public, e, r);
  Response(Variant::Public, straight, s);
  EXPECT_GT(std::fabs(r[0] - s[0]), 1e-4);
}

// With linear data a straight-sided quadratic element integrates what its corners do.
TEST_F(FekernelTet10, LinearFieldsGiveTheResponseOfTheFourNodeElement) {
  Element e = Distorted(Shape::Tet10, 3);
  StraightenEdges(e);
  for (int edge = 0; edge < 6; ++edge) {
    const int a = Edges[edge][0], b = Edges[edge][1];
    e.scalars[4 + edge] = 0.5 * (e.scalars[a] + e.scalars[b]);
    for (int i = 0; i < 3; ++i)
      e.disp[3 * (4 + edge) + i] = 0.5 * (e.disp[3 * a + i] + e.disp[3 * b + i]);
  }
  Element corners = e;
  corners.shape = Shape::Tet4;
  ElementResponse r, s;
  Response(Variant::Public, e, r);
  Response(Variant::Public, corners, s);
  for (int i = 0; i < 9; ++i) EXPECT_NEAR(r[i], s[i], 1e-13 * std::fabs(s[i])) << "entry " << i + 1;
}

TEST_F(FekernelTet10, LevelIsInterpolatedFromTheCornersAlone) {
  // A level that is linear over the corners gives the same presence as the four-node element.
  Element e = Distorted(Shape::Tet10, 3), corners = e;
  StraightenEdges(e);
  corners.shape = Shape::Tet4;
  ElementResponse r, s;
  Response(Variant::Public, e, r);
  Response(Variant::Public, corners, s);
  EXPECT_NEAR(r[1], s[1], 1e-15);
  EXPECT_NEAR(r[2], s[2], 1e-15);
}

}  // namespace
