#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

#include "solver/slepccgsolver.hpp"
#include "support/small_model.hpp"
#include "support/sparse_triangle.hpp"

namespace {

using SLEPCCGSOLVER::ICount;
using SLEPCCGSOLVER::PcgMaxIter;
using SLEPCCGSOLVER::PcgMode;
using SLEPCCGSOLVER::PcgQuality;

constexpr double Tolerance = 9.999999747378752e-06;

// Symmetric, diagonally dominant, unit diagonal; about a third of the entries.
DenseMatrix RandomMatrix(std::size_t n) {
  std::mt19937 random(3);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  DenseMatrix a(n, std::vector<double>(n, 0.0));
  for (std::size_t i = 0; i < n; ++i) {
    a[i][i] = 1.0;
    for (std::size_t j = i + 1; j < n; ++j)
      if (random() % 3 == 0) a[i][j] = value(random) / static_cast<double>(n);
  }
  return a;
}

// Second differences on a line, unit diagonal: without a preconditioner a load on the first
// equation travels one equation an iteration and leaves the residual 1 / (k + 1) after k of them.
DenseMatrix Line(std::size_t n) {
  DenseMatrix a(n, std::vector<double>(n, 0.0));
  for (std::size_t i = 0; i < n; ++i) {
    a[i][i] = 1.0;
    if (i + 1 < n) a[i][i + 1] = -0.5;
  }
  return a;
}

class Slepccgsolver : public SmallModel, public testing::WithParamInterface<bool> {
 protected:
  void Set(const DenseMatrix& upper) { SetMatrix(upper, GetParam()); }

  // So long that a team works on the vectors, and no multiple of anything.
  void SetLong() {
    const Triangle<int> grid = Laplacian<int>(31, 29, 30);
    SetStructure({grid.ia.begin(), grid.ia.end()}, {grid.ja.begin(), grid.ja.end()}, GetParam());
    std::copy(grid.a.begin(), grid.a.end(), SOLVERSTA::SysMatrix.get());
  }

  void Prepare(std::int32_t mode) {
    SOLVERSTA::IMode = mode;
    SLEPARDISOSOLVER_PREPARE();
  }

  std::vector<double> Solve(std::int32_t mode, std::int32_t limit, const std::vector<double>& b,
                            std::vector<double> x) {
    PcgMode = mode;
    PcgMaxIter = limit;
    if (GetParam())
      SLEPCCGSOLVER_COMPUTE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                               SOLVERSTA::SysMatrixSP.get(), SOLVERSTA::SysMatrix.get(), b.data(),
                               x.data());
    else
      SLEPCCGSOLVER_COMPUTE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                               SOLVERSTA::SysMatrixSP.get(), SOLVERSTA::SysMatrix.get(), b.data(),
                               x.data());
    return x;
  }

  // b must be the residual of x: the correction is what is solved for.
  void ExpectSolved(std::int32_t mode, std::int32_t mostIterations) {
    const std::size_t n = 40;
    Set(RandomMatrix(n));
    Prepare(mode == 2 ? 2 : 1);
    const DenseMatrix a = DenseOf(SOLVERSTA::SysMatrix.get());
    const std::vector<double> b = RandomVector(static_cast<int>(n));
    const std::vector<double> start(n, 0.25);
    const std::vector<double> expected = SolveDense(a, b);
    const std::vector<double> x = Solve(mode, 300, b, start);
    for (std::size_t i = 0; i < n; ++i) EXPECT_NEAR(x[i], 0.25 + expected[i], 5e-5);
    EXPECT_GT(ICount, 0);
    EXPECT_LE(ICount, mostIterations);
    EXPECT_EQ(PcgQuality, 1.0f);
  }
};

INSTANTIATE_TEST_SUITE_P(IndexWidths, Slepccgsolver, testing::Bool(),
                         [](const auto& width) { return width.param ? "Im4" : "Im8"; });

TEST_P(Slepccgsolver, FactorAsPreconditionerSolvesInFewIterations) { ExpectSolved(2, 3); }
TEST_P(Slepccgsolver, SweepsAsPreconditionerSolve) { ExpectSolved(1, 12); }
TEST_P(Slepccgsolver, NoPreconditionerSolves) { ExpectSolved(0, 40); }

TEST_P(Slepccgsolver, LineNeedsFewIterationsWithTheFactorMoreWithTheSweepsAndMostWithoutEither) {
  const std::size_t n = 400;
  Set(Line(n));
  const std::vector<double> b = RandomVector(static_cast<int>(n));
  Prepare(2);
  Solve(2, 300, b, std::vector<double>(n, 0.0));
  const std::int32_t withFactor = ICount;
  Solve(1, 2000, b, std::vector<double>(n, 0.0));
  const std::int32_t withSweeps = ICount;
  Solve(0, 2000, b, std::vector<double>(n, 0.0));
  EXPECT_GE(withFactor, 1);
  EXPECT_LE(withFactor, 8);
  EXPECT_GT(withSweeps, withFactor);
  EXPECT_GT(ICount, withSweeps);
}

TEST_P(Slepccgsolver, ProductIsThatOfTheFullMatrix) {
  const std::size_t n = 33;
  Set(RandomMatrix(n));
  const std::vector<double> p = RandomVector(static_cast<int>(n));
  std::vector<double> q(n, 1e9);
  if (GetParam())
    SLEPCCGSOLVER_MATVEC_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), SOLVERSTA::SysMatrix.get(),
                            p.data(), q.data());
  else
    SLEPCCGSOLVER_MATVEC_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(), SOLVERSTA::SysMatrix.get(),
                            p.data(), q.data());
  const std::vector<double> expected = Multiply(DenseOf(SOLVERSTA::SysMatrix.get()), p);
  for (std::size_t i = 0; i < n; ++i) EXPECT_NEAR(q[i], expected[i], 1e-14);
}

TEST_P(Slepccgsolver, SweepsInvertTheTriangleAndItsTranspose) {
  const std::size_t n = 33;
  const DenseMatrix upper = RandomMatrix(n);
  Set(upper);
  const std::vector<double> r = RandomVector(static_cast<int>(n));
  std::vector<double> y(n), z(n);
  if (GetParam()) {
    SLEPCCGSOLVER_FORWARDSOLVE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                                  SOLVERSTA::SysMatrix.get(), r.data(), y.data());
    SLEPCCGSOLVER_BACKWARDSOLVE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                                   SOLVERSTA::SysMatrix.get(), y.data(), z.data());
  } else {
    SLEPCCGSOLVER_FORWARDSOLVE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                                  SOLVERSTA::SysMatrix.get(), r.data(), y.data());
    SLEPCCGSOLVER_BACKWARDSOLVE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                                   SOLVERSTA::SysMatrix.get(), y.data(), z.data());
  }
  for (std::size_t i = 0; i < n; ++i) {
    double forward = 0.0, backward = 0.0;
    for (std::size_t j = 0; j < n; ++j) {
      if (j <= i) forward += upper[j][i] * y[j];
      if (j >= i) backward += upper[i][j] * z[j];
    }
    EXPECT_NEAR(forward, r[i], 1e-14);
    EXPECT_NEAR(backward, y[i], 1e-14);
  }
}

TEST_P(Slepccgsolver, ForwardSweepDividesByTheStoredDiagonalOn64BitsOnly) {
  Set({{2.0, 1.0}, {0.0, 4.0}});
  const std::vector<double> r = {6.0, 5.0};
  std::vector<double> y(2), z(2);
  if (GetParam()) {
    SLEPCCGSOLVER_FORWARDSOLVE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                                  SOLVERSTA::SysMatrix.get(), r.data(), y.data());
    EXPECT_EQ(y, (std::vector<double>{6.0, -1.0}));
    SLEPCCGSOLVER_BACKWARDSOLVE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                                   SOLVERSTA::SysMatrix.get(), r.data(), z.data());
  } else {
    SLEPCCGSOLVER_FORWARDSOLVE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                                  SOLVERSTA::SysMatrix.get(), r.data(), y.data());
    EXPECT_EQ(y, (std::vector<double>{3.0, 0.5}));
    SLEPCCGSOLVER_BACKWARDSOLVE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                                   SOLVERSTA::SysMatrix.get(), r.data(), z.data());
  }
  EXPECT_EQ(z, (std::vector<double>{2.375, 1.25}));  // both forms divide on the way back
}

TEST_P(Slepccgsolver, ZeroRightHandSideClearsTheStart) {
  Set({{1.0, 0.5}, {0.0, 1.0}});
  ARRAYS::LargestBytes = 0;  // no work array is allocated
  ICount = 99;
  const std::vector<double> x = Solve(1, 10, {0.0, -0.0}, {3.0, 4.0});
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0}));
  EXPECT_EQ(ICount, 0);
  EXPECT_EQ(PcgQuality, 1.0f);
}

TEST_P(Slepccgsolver, NoEquationsAreASolvedSystem) {
  Set({{1.0}});
  SOLVERSTA::NumEquations = 0;
  Solve(1, 10, {5.0}, {3.0});
  EXPECT_EQ(ICount, 0);
  EXPECT_EQ(PcgQuality, 1.0f);
}

TEST_P(Slepccgsolver, DiagonalMatrixConvergesInOneIteration) {
  Set({{1.0, 0.0, 0.0}, {0.0, 1.0, 0.0}, {0.0, 0.0, 1.0}});
  const std::vector<double> x = Solve(1, 10, {1.0, -2.0, 3.0}, {0.5, 0.5, 0.5});
  EXPECT_EQ(x, (std::vector<double>{1.5, -1.5, 3.5}));
  EXPECT_EQ(ICount, 1);
  EXPECT_EQ(PcgQuality, 1.0f);
}

// With the diagonal 1 + t, 1 - t and the load 1, 1 the first step leaves exactly t, -t.
TEST_P(Slepccgsolver, RatioOfExactlyTheToleranceCountsAsConverged) {
  Set({{1.0 + Tolerance, 0.0}, {0.0, 1.0 - Tolerance}});
  Solve(0, 1, {1.0, 1.0}, {0.0, 0.0});
  EXPECT_EQ(ICount, 1);
  EXPECT_EQ(PcgQuality, 1.0f);
}

TEST_P(Slepccgsolver, RatioJustAboveTheToleranceDoesNot) {
  const double above = Tolerance + 0x1p-50;
  Set({{1.0 + above, 0.0}, {0.0, 1.0 - above}});
  Solve(0, 1, {1.0, 1.0}, {0.0, 0.0});
  EXPECT_EQ(ICount, -1);
  EXPECT_NEAR(PcgQuality, 1.0 / 1.01, 1e-6);
}

TEST_P(Slepccgsolver, LimitReachedAtHalfAThousandthHasTheQualityTwoThirds) {
  const double half = 0.5 * 0.0010000000474974513;
  Set({{1.0 + half, 0.0}, {0.0, 1.0 - half}});
  Solve(0, 1, {1.0, 1.0}, {0.0, 0.0});
  EXPECT_EQ(ICount, -1);
  EXPECT_EQ(PcgQuality, static_cast<float>(2.0 / 3.0));
}

TEST_P(Slepccgsolver, LimitReachedLeavesMinusTheLimitAndTheImprovedSolution) {
  const std::size_t n = 50;
  Set(Line(n));
  std::vector<double> b(n, 0.0);
  b[0] = 1.0;
  const std::vector<double> x = Solve(0, 20, b, std::vector<double>(n, 0.0));
  EXPECT_EQ(ICount, -20);
  EXPECT_NEAR(PcgQuality, 1.0 / (1.0 + 1.0 / 21.0 / 0.0010000000474974513), 1e-6);
  EXPECT_NEAR(x[0], 2.0 * 20.0 / 21.0, 1e-10);  // solution of the first twenty equations
}

TEST_P(Slepccgsolver, LastAllowedIterationMayConverge) {
  Set({{1.0, 0.0}, {0.0, 1.0}});
  Solve(1, 1, {1.0, 2.0}, {0.0, 0.0});
  EXPECT_EQ(ICount, 1);
}

TEST_P(Slepccgsolver, HugeComponentOfTheRightHandSideMakesTheTestPassEarly) {
  const std::size_t n = 100;
  Set(Line(n));
  std::vector<double> b(n, 0.0);
  b[60] = 1.0;
  Solve(1, 500, b, std::vector<double>(n, 0.0));
  const std::int32_t alone = ICount;
  // A component without coupling dwarfs the rest: its own error is gone after few iterations.
  DenseMatrix a = Line(n + 1);
  a[n - 1][n] = 0.0;
  Set(a);
  b.push_back(1e9);
  Solve(1, 500, b, std::vector<double>(n + 1, 0.0));
  EXPECT_GT(ICount, 0);
  EXPECT_LT(ICount, alone);
  EXPECT_EQ(PcgQuality, 1.0f);
}

TEST_P(Slepccgsolver, UndefinedRightHandSideRunsToTheLimitAndIsCleared) {
  Set({{1.0, 0.5}, {0.0, 1.0}});
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> x = Solve(1, 7, {1.0, nan}, {3.0, 4.0});
  EXPECT_EQ(ICount, -7);
  EXPECT_EQ(PcgQuality, 0.0f);
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0}));
}

TEST_P(Slepccgsolver, UndefinedMatrixRunsToTheLimitAndIsCleared) {
  Set({{1.0, std::numeric_limits<double>::quiet_NaN()}, {0.0, 1.0}});
  const std::vector<double> x = Solve(1, 7, {1.0, 2.0}, {3.0, 4.0});
  EXPECT_EQ(ICount, -7);
  EXPECT_EQ(PcgQuality, 0.0f);
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0}));
}

TEST_P(Slepccgsolver, OverflowIsClearedLikeAnUndefinedResult) {
  Set({{1.0, 0.5}, {0.0, 1.0}});
  const std::vector<double> x = Solve(1, 3, {1e200, 1e200}, {3.0, 4.0});
  EXPECT_EQ(PcgQuality, 0.0f);
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0}));
}

TEST_P(Slepccgsolver, FailedFactorSolveLeavesTheLoopWithoutConvergence) {
  Set({{1.0, 0.5}, {0.0, 1.0}});
  Prepare(2);
  HANDLEERROR(-4, "SLE solution phase error.");
  const std::vector<double> x = Solve(2, 5, {1.0, 2.0}, {3.0, 4.0});
  EXPECT_EQ(ICount, -5);
  EXPECT_EQ(PcgQuality, 0.0f);
  EXPECT_EQ(x, (std::vector<double>{0.0, 0.0}));
  EXPECT_EQ(CountInLog("SLE solution phase error."), 1);  // later solves do nothing at all
}

TEST_P(Slepccgsolver, LongVectorsAreSolvedByEveryTeamAndRepeatBitByBit) {
  SetLong();
  const int n = SOLVERSTA::NumEquations;
  const std::vector<double> b = RandomVector(n), start(b.size(), 0.25);
  std::vector<double> q(b.size());
  for (const int team : {1, 2, 3, 16}) {
    SCOPED_TRACE(team);
    omp_set_num_threads(team);
    const std::vector<double> x = Solve(0, 500, b, start);
    EXPECT_GT(ICount, 20);
    EXPECT_EQ(PcgQuality, 1.0f);
    std::vector<double> correction(x);
    for (double& value : correction) value -= 0.25;
    if (GetParam())
      SLEPCCGSOLVER_MATVEC_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                              SOLVERSTA::SysMatrix.get(), correction.data(), q.data());
    else
      SLEPCCGSOLVER_MATVEC_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                              SOLVERSTA::SysMatrix.get(), correction.data(), q.data());
    ExpectNear(q, b, 1.01e-5);  // the tolerance, the largest component of b being below 1
    EXPECT_EQ(Solve(0, 500, b, start), x);
  }
}

TEST_P(Slepccgsolver, VectorsHaveTheSameBitsForEveryTeam) {
  SetLong();
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  // Without coupling, so that the product has no order of sums.
  for (std::int64_t row = 1; row <= SOLVERSTA::NumEquations; ++row)
    for (std::int64_t p = RowStart(row) + 1; p < RowStart(row + 1); ++p)
      SOLVERSTA::SysMatrix[Slot(p)] = 0.0;
  for (std::int64_t row = 1; row <= SOLVERSTA::NumEquations; ++row)
    SOLVERSTA::SysMatrix[Slot(RowStart(row))] = 1.0 + static_cast<double>(row % 97) / 100.0;
  const std::vector<double> start(b.size(), 0.0);
  omp_set_num_threads(1);
  const std::vector<double> alone = Solve(0, 500, b, start);
  const std::int32_t count = ICount;
  EXPECT_GT(count, 3);
  for (const int team : {2, 3, 16}) {
    omp_set_num_threads(team);
    EXPECT_EQ(Solve(0, 500, b, start), alone) << team;
    EXPECT_EQ(ICount, count);
  }
}

TEST_P(Slepccgsolver, LongVectorsPassThroughTheFactor) {
  SetLong();
  omp_set_num_threads(3);
  Prepare(2);
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  const std::vector<double> start(b.size(), 0.0);
  const std::vector<double> x = Solve(2, 300, b, start);
  EXPECT_GE(ICount, 1);
  EXPECT_LE(ICount, 3);
  EXPECT_EQ(PcgQuality, 1.0f);
  ExpectNear(x, Solve(0, 500, b, start), 2e-4);
}

TEST_P(Slepccgsolver, NotANumberAnywhereInALongVectorRunsToTheLimitAndIsCleared) {
  SetLong();
  omp_set_num_threads(3);
  const std::vector<double> start(static_cast<std::size_t>(SOLVERSTA::NumEquations), 1.0);
  for (const std::size_t place : {std::size_t{0}, start.size() / 2, start.size() - 1}) {
    std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
    b[place] = std::numeric_limits<double>::quiet_NaN();
    const std::vector<double> x = Solve(0, 2, b, start);
    EXPECT_EQ(ICount, -2);
    EXPECT_EQ(PcgQuality, 0.0f);
    EXPECT_EQ(x, std::vector<double>(b.size(), 0.0));
  }
}

TEST_P(Slepccgsolver, NothingOfAProductIsKeptBehindTheSolve) {
  SetLong();
  omp_set_num_threads(3);
  Solve(0, 2, RandomVector(SOLVERSTA::NumEquations),
        std::vector<double>(static_cast<std::size_t>(SOLVERSTA::NumEquations), 0.0));
  EXPECT_EQ(SLESPARSE::Spills, nullptr);
}

TEST_P(Slepccgsolver, WorkArraysThatCannotBeAllocatedStopTheRun) {
  Set({{1.0, 0.5}, {0.0, 1.0}});
  ARRAYS::LargestBytes = 8;
  EXPECT_ABORT(Solve(1, 5, {1.0, 2.0}, {3.0, 4.0}), "Error allocating work arrays.");
}

TEST(SlepccgsolverQuality, IsOneAtNoResidualOneHalfAtAThousandthAndFallsToZero) {
  EXPECT_EQ(SLEPCCGSOLVER_QUALITY(0.0), 1.0f);
  EXPECT_EQ(SLEPCCGSOLVER_QUALITY(0.0010000000474974513), 0.5f);
  EXPECT_EQ(SLEPCCGSOLVER_QUALITY(0.001), static_cast<float>(1.0 / (1.0 + 0.001 / double{0.001f})));
  EXPECT_LT(SLEPCCGSOLVER_QUALITY(1e30), 1e-30f);
}

}  // namespace
