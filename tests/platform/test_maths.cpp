#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "platform/maths/maths.hpp"
#include "platform/slot.hpp"

namespace {

// Upper triangle by rows, diagonal first, indices from 1.
template <class Int>
struct Triangle {
  Int n = 0;
  std::vector<Int> ia{1};
  std::vector<Int> ja;
  std::vector<double> a;
};

// Seven-point Laplacian of a grid plus a small shift, scaled to a unit diagonal.
template <class Int>
Triangle<Int> Laplacian(Int nx, Int ny, Int nz) {
  Triangle<Int> matrix;
  matrix.n = nx * ny * nz;
  const double off = -1.0 / 6.1;
  for (Int k = 0; k < nz; ++k)
    for (Int j = 0; j < ny; ++j)
      for (Int i = 0; i < nx; ++i) {
        const Int row = (k * ny + j) * nx + i + 1;
        const auto add = [&](Int column, double value) {
          matrix.ja.push_back(column);
          matrix.a.push_back(value);
        };
        add(row, 1.0);
        if (i + 1 < nx) add(row + 1, off);
        if (j + 1 < ny) add(row + nx, off);
        if (k + 1 < nz) add(row + nx * ny, off);
        matrix.ia.push_back(static_cast<Int>(matrix.ja.size()) + 1);
      }
  return matrix;
}

// Rows with random columns anywhere above the diagonal, so that every thread writes everywhere.
Triangle<int> RandomTriangle(int n, int perRow) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  Triangle<int> matrix;
  matrix.n = n;
  for (int row = 1; row <= n; ++row) {
    matrix.ja.push_back(row);
    matrix.a.push_back(2.0 + value(random));
    const int step = std::max(1, (n - row) / perRow);
    for (int column = row + step; column <= n; column += step) {
      matrix.ja.push_back(column);
      matrix.a.push_back(value(random) / perRow);
    }
    matrix.ia.push_back(static_cast<int>(matrix.ja.size()) + 1);
  }
  return matrix;
}

std::vector<double> RandomVector(int n) {
  std::mt19937 random(11);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  std::vector<double> result(static_cast<std::size_t>(n));
  for (double& v : result) v = value(random);
  return result;
}

template <class Int>
std::vector<double> Dense(const Triangle<Int>& matrix) {
  const auto n = static_cast<std::size_t>(matrix.n);
  std::vector<double> dense(n * n, 0.0);
  for (std::size_t row = 0; row < n; ++row)
    for (auto e = static_cast<std::size_t>(matrix.ia[row] - 1);
         e < static_cast<std::size_t>(matrix.ia[row + 1] - 1); ++e) {
      const auto column = static_cast<std::size_t>(matrix.ja[e] - 1);
      dense[row * n + column] = dense[column * n + row] = matrix.a[e];
    }
  return dense;
}

// Gaussian elimination without pivoting, enough for a diagonally dominant matrix.
std::vector<double> SolveDense(std::vector<double> a, std::vector<double> b) {
  const std::size_t n = b.size();
  for (std::size_t k = 0; k < n; ++k)
    for (std::size_t i = k + 1; i < n; ++i) {
      const double f = a[i * n + k] / a[k * n + k];
      for (std::size_t j = k; j < n; ++j) a[i * n + j] -= f * a[k * n + j];
      b[i] -= f * b[k];
    }
  for (std::size_t i = n; i-- > 0;) {
    for (std::size_t j = i + 1; j < n; ++j) b[i] -= a[i * n + j] * b[j];
    b[i] /= a[i * n + i];
  }
  return b;
}

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

// Solves op(T) y = x on the dense triangle.
std::vector<double> NaiveSweep(const Triangle<int>& matrix, char transa, char diag,
                               const std::vector<double>& x) {
  const std::size_t n = x.size();
  std::vector<double> full = Dense(matrix);
  for (std::size_t i = 0; i < n; ++i) {
    for (std::size_t j = 0; j < n; ++j)
      if (transa == 'T' ? j > i : j < i) full[i * n + j] = 0.0;
    if (diag == 'U') full[i * n + i] = 1.0;
  }
  return SolveDense(full, x);
}

void ExpectNear(const std::vector<double>& found, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(found.size(), expected.size());
  for (std::size_t i = 0; i < found.size(); ++i)
    ASSERT_NEAR(found[i], expected[i], tolerance) << "equation " << i + 1;
}

std::vector<double> Product(const Triangle<int>& matrix, const std::vector<double>& x) {
  std::vector<double> y(x.size(), std::numeric_limits<double>::quiet_NaN());
  mkl_dcsrsymv("U", &matrix.n, matrix.a.data(), matrix.ia.data(), matrix.ja.data(), x.data(),
               y.data());
  return y;
}

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

TEST(MathsSymv, ProductAgreesWithTheNaiveLoopForEveryTeamSize) {
  const int before = omp_get_max_threads();
  for (const Triangle<int>& matrix :
       {Laplacian<int>(30, 30, 30), RandomTriangle(3001, 30), Laplacian<int>(2, 1, 1)}) {
    const std::vector<double> x = RandomVector(matrix.n);
    const std::vector<double> expected = NaiveProduct(matrix, x);
    for (const int team : {1, 2, 3, 5, 16}) {
      omp_set_num_threads(team);
      ExpectNear(Product(matrix, x), expected, 1e-13);
    }
  }
  omp_set_num_threads(before);
}

TEST(MathsSymv, ProductIsTheSameInEveryCall) {
  const Triangle<int> matrix = RandomTriangle(3001, 30);
  const std::vector<double> x = RandomVector(matrix.n);
  EXPECT_EQ(Product(matrix, x), Product(matrix, x));
}

TEST(MathsSymv, NotANumberReachesTheRowsThatTouchIt) {
  const Triangle<int> matrix = Laplacian<int>(4, 4, 4);
  std::vector<double> x(64, 1.0);
  x[21] = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> y = Product(matrix, x);
  EXPECT_TRUE(std::isnan(y[21]));
  EXPECT_TRUE(std::isnan(y[22]));
  EXPECT_TRUE(std::isnan(y[5]));
  EXPECT_FALSE(std::isnan(y[63]));
}

TEST(MathsTrsv, SweepsSolveWithTheTriangleAndItsTranspose) {
  const Triangle<int> matrix = RandomTriangle(150, 12);
  const std::vector<double> x = RandomVector(matrix.n);
  for (const char transa : {'N', 'T'})
    for (const char diag : {'N', 'U'}) {
      std::vector<double> y(x.size(), std::numeric_limits<double>::quiet_NaN());
      mkl_dcsrtrsv("U", &transa, &diag, &matrix.n, matrix.a.data(), matrix.ia.data(),
                   matrix.ja.data(), x.data(), y.data());
      SCOPED_TRACE(std::string("transa ") + transa + ", diag " + diag);
      ExpectNear(y, NaiveSweep(matrix, transa, diag, x), 1e-12);
    }
}
