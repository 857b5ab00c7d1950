#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

#include "solver/slesparse.hpp"
#include "support/module_state.hpp"
#include "support/sparse_triangle.hpp"

namespace {

constexpr double NotANumber = std::numeric_limits<double>::quiet_NaN();
constexpr double Infinity = std::numeric_limits<double>::infinity();

class Slesparse : public testing::Test {
 protected:
  void SetUp() override {
    ResetModules();
    threads_ = omp_get_max_threads();
  }

  void TearDown() override {
    omp_set_num_threads(threads_);
    ResetModules();
  }

 private:
  int threads_ = 1;
};

std::vector<double> NaiveProduct(const Triangle<int>& matrix, const std::vector<double>& x) {
  std::vector<double> y(x.size(), 0.0);
  for (std::size_t row = 0; row < x.size(); ++row)
    for (auto e = static_cast<std::size_t>(matrix.ia[row] - 1);
         e < static_cast<std::size_t>(matrix.ia[row + 1] - 1); ++e) {
      const auto column = static_cast<std::size_t>(matrix.ja[e] - 1);
      y[row] += matrix.a[e] * x[column];
      if (column != row) y[column] += matrix.a[e] * x[row];
    }
  return y;
}

std::vector<double> Product(const Triangle<int>& matrix, const std::vector<double>& x) {
  std::vector<double> y(x.size(), NotANumber);
  SLESPARSE_MULTIPLY(matrix.n, matrix.a.data(), matrix.ia.data(), matrix.ja.data(), x.data(),
                     y.data());
  return y;
}

std::vector<double> SweptForward(const Triangle<int>& matrix, const std::vector<double>& x) {
  std::vector<double> y(x.size(), NotANumber);
  SLESPARSE_SWEEPFORWARD(matrix.n, matrix.a.data(), matrix.ia.data(), matrix.ja.data(), x.data(),
                         y.data());
  return y;
}

std::vector<double> SweptBackward(const Triangle<int>& matrix, const std::vector<double>& x) {
  std::vector<double> y(x.size(), NotANumber);
  SLESPARSE_SWEEPBACKWARD(matrix.n, matrix.a.data(), matrix.ia.data(), matrix.ja.data(), x.data(),
                          y.data());
  return y;
}

std::size_t CountNotANumber(const std::vector<double>& v) {
  std::size_t count = 0;
  for (const double value : v) count += std::isnan(value) ? 1 : 0;
  return count;
}

}  // namespace

TEST_F(Slesparse, ProductAgreesWithTheNaiveLoopForEveryTeamSize) {
  for (const Triangle<int>& matrix :
       {Laplacian<int>(30, 30, 30), RandomTriangle(3001, 30), Laplacian<int>(2, 1, 1)}) {
    const std::vector<double> x = RandomVector(matrix.n);
    const std::vector<double> expected = NaiveProduct(matrix, x);
    for (const int team : {1, 2, 3, 5, 16}) {
      omp_set_num_threads(team);
      ExpectNear(Product(matrix, x), expected, 1e-13);
    }
  }
}

TEST_F(Slesparse, ProductRepeatsBitByBitForAGivenTeamSize) {
  for (const Triangle<int>& matrix : {Laplacian<int>(30, 30, 30), RandomTriangle(3001, 30)}) {
    const std::vector<double> x = RandomVector(matrix.n);
    for (const int team : {1, 2, 3, 16}) {
      omp_set_num_threads(team);
      const std::vector<double> first = Product(matrix, x);
      for (int repeat = 0; repeat < 3; ++repeat) ASSERT_EQ(Product(matrix, x), first) << team;
    }
  }
}

TEST_F(Slesparse, ProductKeepsItsBitsWhenTheTeamComesSmallerThanItsSize) {
  const Triangle<int> matrix = RandomTriangle(3001, 30);
  const std::vector<double> x = RandomVector(matrix.n);
  omp_set_num_threads(3);
  const std::vector<double> expected = Product(matrix, x);
  std::vector<double> alone;
  int team = 0;
#pragma omp parallel num_threads(2)
#pragma omp master
  {
    omp_set_num_threads(3);
    alone = Product(matrix, x);  // no regions within regions: one thread
    team = omp_get_num_threads();
  }
  EXPECT_EQ(team, 2);
  EXPECT_EQ(alone, expected);
}

TEST_F(Slesparse, ProductWithoutMemoryForTheSpillsIsThatOfOneThread) {
  const Triangle<int> matrix = RandomTriangle(3001, 30);
  const std::vector<double> x = RandomVector(matrix.n);
  omp_set_num_threads(1);
  const std::vector<double> expected = Product(matrix, x);
  omp_set_num_threads(3);
  ARRAYS::LargestBytes = 1000;
  EXPECT_EQ(Product(matrix, x), expected);
  EXPECT_EQ(SLESPARSE::SpillCapacity, 0);
}

TEST_F(Slesparse, SpillsGrowWithTheTeamAndGoWithTheRelease) {
  const Triangle<int> matrix = RandomTriangle(3001, 30);
  const std::vector<double> x = RandomVector(matrix.n);
  omp_set_num_threads(2);
  Product(matrix, x);
  const std::int64_t ofTwo = SLESPARSE::SpillCapacity;
  EXPECT_GT(ofTwo, 0);
  omp_set_num_threads(5);
  ExpectNear(Product(matrix, x), NaiveProduct(matrix, x), 1e-13);
  EXPECT_GT(SLESPARSE::SpillCapacity, ofTwo);
  SLESPARSE_RELEASE();
  EXPECT_EQ(SLESPARSE::Spills, nullptr);
  ExpectNear(Product(matrix, x), NaiveProduct(matrix, x), 1e-13);
}

TEST_F(Slesparse, NotANumberReachesTheRowsThatTouchItAndNoOther) {
  for (const int edge : {4, 32}) {  // serial, and in a team
    const Triangle<int> matrix = Laplacian<int>(edge, edge, edge);
    std::vector<double> x(static_cast<std::size_t>(matrix.n), 1.0);
    const std::size_t middle = x.size() / 2 + static_cast<std::size_t>(edge / 2 * (edge + 1));
    x[middle] = NotANumber;
    omp_set_num_threads(3);
    const std::vector<double> y = Product(matrix, x);
    const auto step = static_cast<std::size_t>(edge);
    for (const std::size_t distance : {std::size_t{0}, std::size_t{1}, step, step * step}) {
      EXPECT_TRUE(std::isnan(y[middle - distance])) << edge << ": " << distance;
      if (middle + distance >= y.size()) continue;
      EXPECT_TRUE(std::isnan(y[middle + distance])) << edge << ": " << distance;
    }
    EXPECT_EQ(CountNotANumber(y), 7);
  }
}

TEST_F(Slesparse, InfinitiesThatMeetInARowAreNotANumberThere) {
  const Triangle<int> matrix = Laplacian<int>(5, 1, 1);
  const std::vector<double> y = Product(matrix, {Infinity, 1.0, -Infinity, 1.0, 1.0});
  EXPECT_EQ(y[0], Infinity);
  EXPECT_TRUE(std::isnan(y[1]));
  EXPECT_EQ(y[2], -Infinity);
  EXPECT_EQ(y[3], Infinity);
  EXPECT_TRUE(std::isfinite(y[4]));
}

TEST_F(Slesparse, ForwardSweepSolvesWithTheTransposeTakingAUnitDiagonal) {
  const Triangle<int> matrix = RandomTriangle(150, 12);
  const std::vector<double> x = RandomVector(matrix.n);
  std::vector<double> lower = Dense(matrix);
  for (std::size_t i = 0; i < x.size(); ++i) {
    lower[i * x.size() + i] = 1.0;  // not the stored one, which is far from 1
    for (std::size_t j = i + 1; j < x.size(); ++j) lower[i * x.size() + j] = 0.0;
  }
  ExpectNear(SweptForward(matrix, x), SolveDense(lower, x), 1e-12);
}

TEST_F(Slesparse, BackwardSweepSolvesWithTheTriangleAndItsStoredDiagonal) {
  const Triangle<int> matrix = RandomTriangle(150, 12);
  const std::vector<double> x = RandomVector(matrix.n);
  std::vector<double> upper = Dense(matrix);
  for (std::size_t i = 0; i < x.size(); ++i)
    for (std::size_t j = 0; j < i; ++j) upper[i * x.size() + j] = 0.0;
  ExpectNear(SweptBackward(matrix, x), SolveDense(upper, x), 1e-12);
}

TEST_F(Slesparse, SweepsRepeatBitByBitForEveryTeamSize) {
  const Triangle<int> matrix = RandomTriangle(3001, 30);
  const std::vector<double> x = RandomVector(matrix.n);
  omp_set_num_threads(1);
  const std::vector<double> forward = SweptForward(matrix, x), backward = SweptBackward(matrix, x);
  omp_set_num_threads(3);
  EXPECT_EQ(SweptForward(matrix, x), forward);
  EXPECT_EQ(SweptBackward(matrix, x), backward);
}

TEST_F(Slesparse, SweepsCarryNotANumberInTheirDirectionOnly) {
  const Triangle<int> matrix = Laplacian<int>(9, 1, 1);
  std::vector<double> x(9, 1.0);
  x[4] = NotANumber;
  const std::vector<double> forward = SweptForward(matrix, x), backward = SweptBackward(matrix, x);
  for (std::size_t i = 0; i < x.size(); ++i) {
    EXPECT_EQ(std::isnan(forward[i]), i >= 4) << i;
    EXPECT_EQ(std::isnan(backward[i]), i <= 4) << i;
  }
}

TEST_F(Slesparse, BackwardSweepDividesByAZeroDiagonalWithoutEndingTheRun) {
  Triangle<int> matrix = Laplacian<int>(3, 1, 1);
  matrix.a[static_cast<std::size_t>(matrix.ia[1] - 1)] = 0.0;
  const std::vector<double> z = SweptBackward(matrix, {1.0, 1.0, 1.0});
  EXPECT_EQ(z[2], 1.0);
  EXPECT_EQ(z[1], Infinity);
  EXPECT_EQ(z[0], Infinity);
}
