#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "elemlib/feinteg.hpp"
#include "platform/slot.hpp"

namespace {

using FEINTEG::IntegrationRule;

constexpr int TetDegree[14] = {1, 2, 3, 5, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
constexpr int TriPoints[21] = {1,  3,  6,  6,  7,  12, 15, 16, 19, 25, 28,
                               33, 37, 46, 52, 55, 61, 72, 73, 88, 91};

class FeintegTables : public testing::Test {
 protected:
  void SetUp() override {
    FEINTEG_INITTETRULES();
    FEINTEG_INITTRIRULES();
  }
};
using FeintegTet = FeintegTables;
using FeintegTri = FeintegTables;

// A rule as plain rows, for either family.
struct Rows {
  int coordinates;
  std::vector<double> weights;
  std::vector<double> points;
};

Rows RowsOf(const IntegrationRule& rule, int count, int pointCount, int coordinates) {
  return {coordinates,
          {rule.weights.get(), rule.weights.get() + count},
          {rule.points.get(), rule.points.get() + pointCount * coordinates}};
}

Rows TetRows(int order) {
  const int n = FEINTEG_TETPOINTCOUNT(order);
  return RowsOf(FEINTEG::TetRuleTable[Slot(order)], n, order == 12 ? n - 4 : n, 4);
}

Rows TriRows(int order) {
  const int n = TriPoints[Slot(order)];
  return RowsOf(FEINTEG::TriRuleTable[Slot(order)], n, n, 3);
}

double SumOfWeights(const Rows& r) {
  long double sum = 0;
  for (double w : r.weights) sum += static_cast<long double>(w);
  return static_cast<double>(sum);
}

long double Factorial(int n) {
  return n < 2 ? 1.0L : static_cast<long double>(n) * Factorial(n - 1);
}

// Largest relative error over all monomials x^i y^j (z^k) of total degree `degree`, where x, y, z
// are coordinates 2, 3, 4. Exact: the mean of the monomial over the simplex of dimension d is
// d! i! j! k! / (d + i + j + k)!.
double WorstMonomialError(const Rows& r, int degree) {
  const int dim = r.coordinates - 1;
  double worst = 0;
  for (int i = 0; i <= degree; ++i)
    for (int j = 0; i + j <= degree; ++j) {
      const int k = degree - i - j;
      if (dim == 2 && k > 0) continue;
      long double sum = 0;
      for (std::size_t p = 0; p < r.weights.size(); ++p) {
        const double* c = &r.points[p * static_cast<std::size_t>(r.coordinates)];
        long double term = static_cast<long double>(r.weights[p]);
        for (int m = 0; m < i; ++m) term *= static_cast<long double>(c[1]);
        for (int m = 0; m < j; ++m) term *= static_cast<long double>(c[2]);
        for (int m = 0; m < k; ++m) term *= static_cast<long double>(c[3]);
        sum += term;
      }
      const long double exact =
          Factorial(dim) * Factorial(i) * Factorial(j) * Factorial(k) / Factorial(dim + degree);
      worst = std::max(worst, static_cast<double>(std::fabs(sum - exact) / exact));
    }
  return worst;
}

// The exact degree of a rule: all monomials up to it, and not those of the next degree.
void ExpectExactDegree(const Rows& r, int degree) {
  for (int d = 0; d <= degree; ++d) EXPECT_LT(WorstMonomialError(r, d), 2e-15) << "degree " << d;
  EXPECT_GT(WorstMonomialError(r, degree + 1), 1e-10) << "degree " << degree + 1;
}

// Sizes of the orbits, in stored order: runs of points that are arrangements of one another.
std::vector<int> OrbitSizes(const Rows& r) {
  std::vector<int> sizes;
  std::vector<double> last;
  const auto k = static_cast<std::size_t>(r.coordinates);
  for (std::size_t p = 0; p + k <= r.points.size(); p += k) {
    std::vector<double> sorted(r.points.begin() + static_cast<std::ptrdiff_t>(p),
                               r.points.begin() + static_cast<std::ptrdiff_t>(p + k));
    std::sort(sorted.begin(), sorted.end());
    if (sizes.empty() || sorted != last) sizes.push_back(0);
    ++sizes.back();
    last = sorted;
  }
  return sizes;
}

void ExpectCoordinatesInsideAndDistinct(const Rows& r) {
  const auto k = static_cast<std::size_t>(r.coordinates);
  std::set<std::vector<double>> seen;
  for (std::size_t p = 0; p + k <= r.points.size(); p += k) {
    const std::vector<double> row(r.points.begin() + static_cast<std::ptrdiff_t>(p),
                                  r.points.begin() + static_cast<std::ptrdiff_t>(p + k));
    double sum = 0;
    for (double c : row) {
      EXPECT_GE(c, 0.0);
      sum += c;
    }
    EXPECT_NEAR(sum, 1.0, 5e-16);
    EXPECT_TRUE(seen.insert(row).second) << "point " << p / k + 1 << " twice";
  }
}

TEST_F(FeintegTet, PointCountOutsideTheTableIsZero) {
  EXPECT_EQ(FEINTEG_TETPOINTCOUNT(0), 0);
  EXPECT_EQ(FEINTEG_TETPOINTCOUNT(15), 0);
  EXPECT_EQ(FEINTEG_TETPOINTCOUNT(-1), 0);
}

TEST_F(FeintegTet, PointCountOfEachOrder) {
  const int expected[14] = {1, 4, 8, 14, 14, 24, 36, 46, 61, 81, 109, 140, 171, 236};
  for (int order = 1; order <= 14; ++order)
    EXPECT_EQ(FEINTEG_TETPOINTCOUNT(order), expected[Slot(order)]) << "order " << order;
}

TEST_F(FeintegTet, OrdersFourAndFiveDifferOnlyInTheOrderOfTheirFirstTwoOrbits) {
  EXPECT_EQ(FEINTEG_TETPOINTCOUNT(4), 14);
  EXPECT_EQ(FEINTEG_TETPOINTCOUNT(5), 14);
  const Rows four = TetRows(4), five = TetRows(5);
  for (std::size_t p = 0; p < 14; ++p) {
    const std::size_t q = p < 4 ? p + 4 : p < 8 ? p - 4 : p;
    EXPECT_EQ(four.weights[p], five.weights[q]);
    for (std::size_t c = 0; c < 4; ++c) EXPECT_EQ(four.points[4 * p + c], five.points[4 * q + c]);
  }
  EXPECT_EQ(five.weights[0], 0.11268792571801585);
  EXPECT_EQ(five.weights[4], 0.07349304311636196);
}

TEST_F(FeintegTet, WeightsOfEachSlotSumToOne) {
  for (int order = 1; order <= 14; ++order)
    EXPECT_NEAR(SumOfWeights(TetRows(order)), 1.0, 4e-16) << "order " << order;
}

TEST_F(FeintegTri, WeightsOfEachSlotSumToOne) {
  for (int order = 1; order <= 21; ++order)
    EXPECT_NEAR(SumOfWeights(TriRows(order)), 1.0, 4e-16) << "order " << order;
}

TEST_F(FeintegTet, EveryWeightIsPositive) {
  for (int order = 1; order <= 14; ++order)
    for (double w : TetRows(order).weights) EXPECT_GT(w, 0.0) << "order " << order;
}

TEST_F(FeintegTri, EveryWeightIsPositive) {
  for (int order = 1; order <= 21; ++order)
    for (double w : TriRows(order).weights) EXPECT_GT(w, 0.0) << "order " << order;
}

TEST_F(FeintegTet, PointsLieInsideAndNoneTwice) {
  for (int order = 1; order <= 14; ++order) ExpectCoordinatesInsideAndDistinct(TetRows(order));
}

TEST_F(FeintegTri, PointsLieInsideAndNoneTwice) {
  for (int order = 1; order <= 21; ++order) ExpectCoordinatesInsideAndDistinct(TriRows(order));
}

TEST_F(FeintegTet, EachSlotHasItsExactDegree) {
  for (int order = 1; order <= 14; ++order) {
    SCOPED_TRACE(order);
    if (order != 12) ExpectExactDegree(TetRows(order), TetDegree[Slot(order)]);
  }
}

TEST_F(FeintegTri, EachSlotHasItsExactDegree) {
  for (int order = 1; order <= 21; ++order) {
    SCOPED_TRACE(order);
    ExpectExactDegree(TriRows(order), order);
  }
}

TEST_F(FeintegTet, OrbitsOfEachSlotStandInTheirOrder) {
  const std::vector<int> expected[14] = {
      {1},
      {4},
      {4, 4},
      {4, 4, 6},
      {4, 4, 6},
      {4, 4, 4, 12},
      {4, 4, 4, 12, 12},
      {4, 4, 4, 4, 6, 12, 12},
      {1, 4, 4, 4, 12, 12, 12, 12},
      {1, 4, 4, 12, 12, 12, 12, 12, 12},
      {1, 4, 4, 4, 12, 12, 12, 12, 12, 12, 24},
      {4, 4, 4, 4, 6, 6, 12, 12, 12, 12, 12, 24, 24},
      {1, 4, 4, 6, 6, 6, 12, 12, 12, 12, 12, 12, 24, 24, 24},
      {4, 4, 4, 4, 4, 12, 12, 12, 12, 24, 24, 24, 24, 24, 24, 24}};
  for (int order = 1; order <= 14; ++order)
    EXPECT_EQ(OrbitSizes(TetRows(order)), expected[Slot(order)]) << "order " << order;
}

TEST_F(FeintegTri, OrbitsHaveOneThreeOrSixPoints) {
  for (int order = 1; order <= 21; ++order) {
    const Rows r = TriRows(order);
    int points = 0;
    for (int size : OrbitSizes(r)) {
      EXPECT_TRUE(size == 1 || size == 3 || size == 6) << "order " << order;
      points += size;
    }
    EXPECT_EQ(points, TriPoints[Slot(order)]);
  }
}

TEST_F(FeintegTet, RowsOfAFourPointOrbit) {
  const double a = 0.1381966011250105, b = 0.5854101966249685;
  const std::vector<double> expected = {a, a, a, b, a, a, b, a, a, b, a, a, b, a, a, a};
  EXPECT_EQ(TetRows(2).points, expected);
}

TEST_F(FeintegTet, RowsOfASixPointOrbit) {
  const double a = 0.04550370412564965, b = 0.45449629587435036;
  const std::vector<double> expected = {a, a, b, b, a, b, a, b, a, b, b, a,
                                        b, a, b, a, b, a, a, b, b, b, a, a};
  const std::vector<double> points = TetRows(4).points;
  EXPECT_EQ(std::vector<double>(points.begin() + 32, points.end()), expected);
}

TEST_F(FeintegTri, RowsOfAThreePointOrbit) {
  const double a = 1.0 / 6.0, b = 2.0 / 3.0;
  const std::vector<double> expected = {a, a, b, a, b, a, b, a, a};
  EXPECT_EQ(TriRows(2).points, expected);
}

TEST_F(FeintegTet, ValuesOfTheSmallSlotsToTheLastBit) {
  struct Value {
    int order;
    std::size_t point;
    double weight, a, b;
  };
  const Value values[] = {{2, 0, 0.25, 0.1381966011250105, 0.5854101966249685},
                          {3, 0, 0.13852796651186214, 0.3280546967114267, 0.01583590986571992},
                          {3, 4, 0.11147203348813786, 0.10695227393293068, 0.679143178201208},
                          {4, 0, 0.07349304311636196, 0.09273525031089122, 0.7217942490673264},
                          {4, 4, 0.11268792571801585, 0.3108859192633006, 0.06734224221009821},
                          {4, 8, 0.042546020777081466, 0.04550370412564965, 0.45449629587435036}};
  for (const Value& v : values) {
    const Rows r = TetRows(v.order);
    EXPECT_EQ(r.weights[v.point], v.weight);
    EXPECT_EQ(r.points[4 * v.point], v.a);
    EXPECT_EQ(r.points[4 * v.point + 3], v.b);
  }
  EXPECT_EQ(TetRows(1).weights[0], 1.0);
  EXPECT_EQ(TetRows(1).points, std::vector<double>(4, 0.25));
}

TEST_F(FeintegTri, ValuesOfTheSmallSlotsToTheLastBit) {
  struct Value {
    int order;
    std::size_t point;
    double weight, a, b;
  };
  const Value values[] = {{2, 0, 1.0 / 3.0, 1.0 / 6.0, 2.0 / 3.0},
                          {3, 0, 1.0 / 30.0, 0.5, 0.0},
                          {3, 3, 0.3, 1.0 / 6.0, 2.0 / 3.0},
                          {4, 0, 0.22338158967801147, 0.4459484909159649, 0.10810301816807022},
                          {4, 3, 0.10995174365532187, 0.09157621350977074, 0.8168475729804585},
                          {5, 0, 0.12593918054482714, 0.10128650732345634, 0.7974269853530873},
                          {5, 3, 0.1323941527885062, 0.4701420641051151, 0.05971587178976984},
                          {5, 6, 0.225, 1.0 / 3.0, 1.0 / 3.0}};
  for (const Value& v : values) {
    const Rows r = TriRows(v.order);
    EXPECT_EQ(r.weights[v.point], v.weight);
    EXPECT_EQ(r.points[3 * v.point], v.a);
    EXPECT_EQ(r.points[3 * v.point + 2], v.b);
  }
}

TEST_F(FeintegTet, SlotTwelveLacksThePointsOfItsFifthOrbit) {
  const Rows r = TetRows(12);
  ASSERT_EQ(r.weights.size(), 140U);
  ASSERT_EQ(r.points.size(), 4U * 136U);
  for (std::size_t p = 136; p < 140; ++p) EXPECT_EQ(r.weights[p], 0.005203878652885614);
  // Five 4-orbits of weights, but the fifth group of points is already a 6-orbit.
  EXPECT_EQ(r.weights[16], r.weights[19]);
  EXPECT_NE(r.weights[19], r.weights[20]);
  EXPECT_EQ(OrbitSizes(r)[4], 6);
}

TEST_F(FeintegTet, FillingAgainGivesTheSameTables) {
  std::vector<Rows> before;
  for (int order = 1; order <= 14; ++order) before.push_back(TetRows(order));
  FEINTEG_INITTETRULES();
  for (int order = 1; order <= 14; ++order) {
    EXPECT_EQ(TetRows(order).weights, before[static_cast<std::size_t>(Slot(order))].weights);
    EXPECT_EQ(TetRows(order).points, before[static_cast<std::size_t>(Slot(order))].points);
  }
}

TEST_F(FeintegTri, FillingASlotOfWhichOnlyOneArrayIsAllocated) {
  FEINTEG::TriRuleTable[0].weights.reset();
  FEINTEG_INITTRIRULES();
  EXPECT_EQ(TriRows(1).weights, std::vector<double>(1, 1.0));
  EXPECT_EQ(TriRows(1).points, std::vector<double>(3, 1.0 / 3.0));
}

TEST(FeintegGauss, MiddlePointsAreExactlyZero) {
  EXPECT_EQ(FEINTEG_GAUSSPOINT(3, 2), 0.0);
  EXPECT_EQ(FEINTEG_GAUSSPOINT(5, 3), 0.0);
  EXPECT_FALSE(std::signbit(FEINTEG_GAUSSPOINT(3, 2)));
}

TEST(FeintegGauss, IndicesAndCountsOutsideGiveZero) {
  EXPECT_EQ(FEINTEG_GAUSSPOINT(3, 4), 0.0);
  EXPECT_EQ(FEINTEG_GAUSSWEIGHT(3, 4), 0.0);
  EXPECT_EQ(FEINTEG_GAUSSPOINT(10, 1), 0.0);
  EXPECT_EQ(FEINTEG_GAUSSWEIGHT(10, 1), 0.0);
  for (int n : {-1, 0, 2, 9, 10}) {
    EXPECT_EQ(FEINTEG_GAUSSPOINT(n, 0), 0.0);
    EXPECT_EQ(FEINTEG_GAUSSWEIGHT(n, 0), 0.0);
    EXPECT_EQ(FEINTEG_GAUSSWEIGHT(n, n + 1), 0.0);
    EXPECT_EQ(FEINTEG_GAUSSPOINT(n, -1), 0.0);
  }
}

TEST(FeintegGauss, OnePointRuleIgnoresTheIndex) {
  EXPECT_EQ(FEINTEG_GAUSSWEIGHT(1, 7), 2.0);
  EXPECT_EQ(FEINTEG_GAUSSWEIGHT(1, -3), 2.0);
  EXPECT_EQ(FEINTEG_GAUSSPOINT(1, 7), 0.0);
}

TEST(FeintegGauss, IndexRunsFromTheMostNegativePointUp) {
  EXPECT_EQ(FEINTEG_GAUSSPOINT(4, 1), -0.861136311594053);
  EXPECT_EQ(FEINTEG_GAUSSWEIGHT(4, 1), 0.347854845137454);
  for (int n = 2; n <= 9; ++n)
    for (int i = 1; i < n; ++i) EXPECT_LT(FEINTEG_GAUSSPOINT(n, i), FEINTEG_GAUSSPOINT(n, i + 1));
}

// Abscissae above 0, ascending; weights from the outermost point inwards; as they are printed.
struct GaussRule {
  std::vector<double> above, weights;
};
const GaussRule GaussRules[9] = {
    {{}, {2.0}},
    {{0.577350269189626}, {1.0}},
    {{0.774596669241483}, {0.555555555555556, 0.888888888888889}},
    {{0.339981043584856, 0.861136311594053}, {0.347854845137454, 0.652145154862546}},
    {{0.538469310105683, 0.906179845938664},
     {0.236926885056189, 0.478628670499366, 0.568888888888889}},
    {{0.238619186083197, 0.661209386466265, 0.932469514203152},
     {0.17132449237917, 0.360761573048139, 0.467913934572691}},
    {{0.405845151377397, 0.741531185599394, 0.949107912342759},
     {0.12948496616887, 0.279705391489277, 0.381830050505119, 0.417959183673469}},
    {{0.18343464249565, 0.525532409916329, 0.796666477413627, 0.960289856497536},
     {0.101228536290376, 0.222381034453374, 0.313706645877887, 0.362683783378362}},
    {{0.324253423403809, 0.61337143270059, 0.836031107326636, 0.968160239507626},
     {0.081274388361574, 0.180648160694857, 0.260610696402935, 0.31234707704, 0.33023935500126}}};

TEST(FeintegGauss, LiteralsOfAllNineRulesToTheLastBit) {
  for (std::size_t n = 1; n <= 9; ++n) {
    const GaussRule& rule = GaussRules[n - 1];
    ASSERT_EQ(rule.above.size(), n / 2);
    ASSERT_EQ(rule.weights.size(), (n + 1) / 2);
    const auto count = static_cast<std::int32_t>(n);
    for (std::int32_t i = 1; i <= count; ++i) {
      const std::int32_t mirrored = count + 1 - i;
      const std::int32_t inwards = std::min(i, mirrored);  // from the outermost, 1
      const double abscissa =
          i == mirrored ? 0.0
                        : std::copysign(rule.above[n / 2 - static_cast<std::size_t>(inwards)],
                                        i < mirrored ? -1.0 : 1.0);
      EXPECT_EQ(std::bit_cast<std::uint64_t>(FEINTEG_GAUSSPOINT(count, i)),
                std::bit_cast<std::uint64_t>(abscissa))
          << n << " points, abscissa " << i;
      EXPECT_EQ(std::bit_cast<std::uint64_t>(FEINTEG_GAUSSWEIGHT(count, i)),
                std::bit_cast<std::uint64_t>(rule.weights[static_cast<std::size_t>(inwards) - 1]))
          << n << " points, weight " << i;
    }
  }
}

// The 15 decimals of the literals limit the accuracy.
TEST(FeintegGauss, NPointsIntegrateMonomialsUpToDegreeTwoNMinusOne) {
  for (int n = 1; n <= 9; ++n)
    for (int degree = 0; degree <= 2 * n; ++degree) {
      double sum = 0;
      for (int i = 1; i <= n; ++i)
        sum += FEINTEG_GAUSSWEIGHT(n, i) * std::pow(FEINTEG_GAUSSPOINT(n, i), degree);
      const double exact = degree % 2 == 0 ? 2.0 / (degree + 1) : 0.0;
      if (degree < 2 * n)
        EXPECT_NEAR(sum, exact, 1e-14) << n << " points, degree " << degree;
      else
        EXPECT_GT(std::fabs(sum - exact), 1e-6) << n << " points, degree " << degree;
    }
}

}  // namespace
