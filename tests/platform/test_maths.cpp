#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "platform/maths/maths.hpp"
#include "platform/slot.hpp"
#include "support/sparse_triangle.hpp"

namespace {

void CallPardiso(void* pt, const int* one, const int* mtype, const int* phase, const int* n,
                 const void* a, const int* ia, const int* ja, int* perm, int* iparm,
                 const int* level, void* b, void* x, int* error) {
  pardiso(pt, one, one, mtype, phase, n, a, ia, ja, perm, one, iparm, level, b, x, error);
}
void CallPardiso(void* pt, const long long* one, const long long* mtype, const long long* phase,
                 const long long* n, const void* a, const long long* ia, const long long* ja,
                 long long* perm, long long* iparm, const long long* level, void* b, void* x,
                 long long* error) {
  pardiso_64(pt, one, one, mtype, phase, n, a, ia, ja, perm, one, iparm, level, b, x, error);
}

// One handle with its tables, as the program sets them.
template <class Int>
struct Solver {
  std::int64_t pt[64] = {};
  Int iparm[64] = {};
  std::vector<float> a;
  const Triangle<Int>& matrix;

  explicit Solver(const Triangle<Int>& m) : a(m.a.begin(), m.a.end()), matrix(m) {
    iparm[Slot(1)] = 1;
    iparm[Slot(2)] = 3;
    iparm[Slot(10)] = 8;
    iparm[Slot(28)] = 1;
  }

  Int Run(Int phase, float* b = nullptr, float* x = nullptr, Int mtype = 2) {
    const Int one = 1;
    const Int level = 0;
    Int perm = 0;
    float dummy[2] = {};
    Int error = 99;
    CallPardiso(pt, &one, &mtype, &phase, &matrix.n, a.data(), matrix.ia.data(), matrix.ja.data(),
                &perm, iparm, &level, b ? b : &dummy[0], x ? x : &dummy[1], &error);
    return error;
  }
};

template <class Int>
std::vector<float> SolveSparse(const Triangle<Int>& matrix, std::vector<float> b) {
  Solver<Int> solver(matrix);
  std::vector<float> x(b.size(), -1.0F);
  EXPECT_EQ(solver.Run(11), 0);
  EXPECT_EQ(solver.Run(22), 0);
  EXPECT_EQ(solver.Run(33, b.data(), x.data()), 0);
  EXPECT_EQ(solver.Run(-1), 0);
  return x;
}

std::vector<float> Narrow(const std::vector<double>& v) { return {v.begin(), v.end()}; }

}  // namespace

TEST(Maths, NameTellsLibraryAndVersion) {
  EXPECT_NE(MATHS_NAME().find_first_of("0123456789"), std::string_view::npos);
}

TEST(MathsPardiso, SolutionAgreesWithDenseEliminationInSinglePrecision) {
  const Triangle<int> matrix = Laplacian<int>(7, 6, 5);
  const std::vector<double> b = RandomVector(matrix.n);
  const std::vector<float> x = SolveSparse(matrix, Narrow(b));
  ExpectNear({x.begin(), x.end()}, SolveDense(Dense(matrix), b), 2e-5);
}

TEST(MathsPardiso, SingleEquationIsSolved) {
  Triangle<int> matrix;
  matrix.n = 1;
  matrix.ia = {1, 2};
  matrix.ja = {1};
  matrix.a = {4.0};
  EXPECT_FLOAT_EQ(SolveSparse(matrix, {2.0F})[0], 0.5F);
}

TEST(MathsPardiso, SixtyFourBitEntryGivesTheSolutionOfTheThirtyTwoBitEntry) {
  const std::vector<float> b = Narrow(RandomVector(7 * 6 * 5));
  const std::vector<float> narrow = SolveSparse(Laplacian<int>(7, 6, 5), b);
  const std::vector<float> wide = SolveSparse(Laplacian<long long>(7, 6, 5), b);
  for (std::size_t i = 0; i < b.size(); ++i) EXPECT_NEAR(narrow[i], wide[i], 1e-6F);
}

TEST(MathsPardiso, RightHandSideAndIndicesStayAsTheyWere) {
  const Triangle<int> matrix = Laplacian<int>(6, 5, 4);
  Triangle<int> used = matrix;
  std::vector<float> b = Narrow(RandomVector(matrix.n));
  const std::vector<float> before = b;
  std::vector<float> x(b.size());
  Solver<int> solver(used);
  solver.Run(11);
  solver.Run(22);
  solver.Run(33, b.data(), x.data());
  solver.Run(-1);
  EXPECT_EQ(b, before);
  EXPECT_EQ(used.ia, matrix.ia);
  EXPECT_EQ(used.ja, matrix.ja);
}

TEST(MathsPardiso, AnalysisEstimatesMemoryThatGrowsWithTheMatrix) {
  const Triangle<int> small = Laplacian<int>(4, 4, 4);
  const Triangle<int> large = Laplacian<int>(24, 24, 24);
  Solver<int> first(small);
  Solver<int> second(large);
  first.Run(11);
  second.Run(11);
  EXPECT_GT(first.iparm[Slot(17)], 0);
  // The factor of the large grid has at least the matrix's own entries.
  EXPECT_GT(second.iparm[Slot(17)], static_cast<int>(large.ja.size() * 4 / 1024));
  EXPECT_GT(second.iparm[Slot(17)], first.iparm[Slot(17)]);
  first.Run(-1);
  second.Run(-1);
}

TEST(MathsPardiso, OneFactorServesManyRightHandSides) {
  const Triangle<int> matrix = Laplacian<int>(5, 5, 5);
  Solver<int> solver(matrix);
  ASSERT_EQ(solver.Run(11), 0);
  ASSERT_EQ(solver.Run(22), 0);
  for (int i = 0; i < 3; ++i) {
    std::vector<double> unit(static_cast<std::size_t>(matrix.n), 0.0);
    unit[static_cast<std::size_t>(40 * i)] = 1.0;
    std::vector<float> b = Narrow(unit);
    std::vector<float> x(b.size());
    EXPECT_EQ(solver.Run(33, b.data(), x.data()), 0);
    ExpectNear({x.begin(), x.end()}, SolveDense(Dense(matrix), unit), 1e-5);
  }
  solver.Run(-1);
}

TEST(MathsPardiso, SecondFactorisationTakesTheNewValues) {
  const Triangle<int> matrix = Laplacian<int>(4, 4, 3);
  Solver<int> solver(matrix);
  std::vector<float> b(static_cast<std::size_t>(matrix.n), 1.0F);
  std::vector<float> x(b.size());
  std::vector<float> halved(b.size());
  solver.Run(11);
  solver.Run(22);
  solver.Run(33, b.data(), x.data());
  for (float& value : solver.a) value *= 2.0F;
  EXPECT_EQ(solver.Run(22), 0);
  EXPECT_EQ(solver.Run(33, b.data(), halved.data()), 0);
  for (std::size_t i = 0; i < x.size(); ++i) EXPECT_NEAR(halved[i], 0.5F * x[i], 1e-6F);
  solver.Run(-1);
}

TEST(MathsPardiso, IndefiniteMatrixIsAZeroPivotError) {
  Triangle<int> matrix = Laplacian<int>(5, 4, 3);
  matrix.a[static_cast<std::size_t>(matrix.ia[30] - 1)] = -1.0;
  Solver<int> solver(matrix);
  EXPECT_EQ(solver.Run(11), 0);
  EXPECT_EQ(solver.Run(22), -4);
  EXPECT_GE(solver.iparm[Slot(30)], 0);
  EXPECT_LE(solver.iparm[Slot(30)], matrix.n);
  EXPECT_EQ(solver.Run(-1), 0);
}

TEST(MathsPardiso, ZeroMatrixIsAZeroPivotError) {
  Triangle<int> matrix = Laplacian<int>(4, 3, 3);
  for (double& value : matrix.a) value = 0.0;
  Solver<int> solver(matrix);
  EXPECT_EQ(solver.Run(11), 0);
  EXPECT_EQ(solver.Run(22), -4);
  EXPECT_EQ(solver.Run(-1), 0);
}

TEST(MathsPardiso, NotANumberInTheMatrixIsAZeroPivotErrorOrReachesTheSolution) {
  Triangle<int> matrix = Laplacian<int>(6, 6, 6);
  matrix.a[0] = std::numeric_limits<double>::quiet_NaN();
  Solver<int> solver(matrix);
  std::vector<float> b(static_cast<std::size_t>(matrix.n), 1.0F);
  std::vector<float> x(b.size(), 0.0F);
  EXPECT_EQ(solver.Run(11), 0);
  const int error = solver.Run(22);
  if (error == 0) {
    EXPECT_EQ(solver.Run(33, b.data(), x.data()), 0);
    EXPECT_TRUE(std::isnan(x[0]));
  } else {
    EXPECT_EQ(error, -4);
  }
  EXPECT_EQ(solver.Run(-1), 0);
}

TEST(MathsPardiso, ReleaseMayBeRepeatedAndMayComeFirst) {
  const Triangle<int> matrix = Laplacian<int>(4, 3, 3);
  Solver<int> solver(matrix);
  EXPECT_EQ(solver.Run(-1), 0);
  EXPECT_EQ(solver.Run(11), 0);
  EXPECT_EQ(solver.Run(-1), 0);
  EXPECT_EQ(solver.Run(-1), 0);
}

TEST(MathsPardiso, HandleServesANewMatrixAfterRelease) {
  const Triangle<long long> matrix = Laplacian<long long>(5, 5, 4);
  Solver<long long> solver(matrix);
  std::vector<float> b(static_cast<std::size_t>(matrix.n), 1.0F);
  std::vector<float> first(b.size());
  std::vector<float> second(b.size());
  for (std::vector<float>* x : {&first, &second}) {
    for (std::int64_t& word : solver.pt) word = 0;
    EXPECT_EQ(solver.Run(11), 0);
    EXPECT_EQ(solver.Run(22), 0);
    EXPECT_EQ(solver.Run(33, b.data(), x->data()), 0);
    EXPECT_EQ(solver.Run(-1), 0);
  }
  for (std::size_t i = 0; i < b.size(); ++i) EXPECT_NEAR(first[i], second[i], 1e-6F);
}

TEST(MathsPardiso, UnknownMatrixTypeIsInconsistentInput) {
  const Triangle<int> matrix = Laplacian<int>(3, 3, 3);
  Solver<int> solver(matrix);
  EXPECT_EQ(solver.Run(11, nullptr, nullptr, 77), -1);
  solver.Run(-1);
}
