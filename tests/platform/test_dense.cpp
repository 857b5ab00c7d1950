// The dense operations under the names by which libraries call them; with the open back end these
// share them out to the team.
#include <gtest/gtest.h>
#include <omp.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/maths/maths.hpp"

extern "C" {
void sgemm_(const char* transA, const char* transB, const int* m, const int* n, const int* k,
            const float* alpha, const float* a, const int* lda, const float* b, const int* ldb,
            const float* beta, float* c, const int* ldc);
void strsm_(const char* side, const char* uplo, const char* transA, const char* diag, const int* m,
            const int* n, const float* alpha, const float* a, const int* lda, float* b,
            const int* ldb);
}

namespace {

// Rows beyond the matrix in each column, which must stay as they are.
constexpr int Spare = 3;

// Column by column, with `Spare` rows more.
struct Matrix {
  int rows = 0;
  int columns = 0;
  std::vector<float> values;

  int Leading() const { return rows + Spare; }
  std::size_t Place(int i, int j) const { return static_cast<std::size_t>(j * Leading() + i); }
  float& At(int i, int j) { return values[Place(i, j)]; }
  float At(int i, int j) const { return values[Place(i, j)]; }
  // Of the matrix or its transpose.
  double Op(char trans, int i, int j) const { return trans == 'N' ? At(i, j) : At(j, i); }
};

Matrix RandomMatrix(int rows, int columns) {
  std::mt19937 engine(static_cast<unsigned>(rows + 1000 * columns));
  std::uniform_real_distribution<float> number(-1.0F, 1.0F);
  Matrix matrix{rows, columns, {}};
  matrix.values.resize(matrix.Place(0, columns));
  for (float& value : matrix.values) value = number(engine);
  return matrix;
}

void ExpectSpareRowsKept(const Matrix& before, const Matrix& after) {
  for (int j = 0; j < before.columns; ++j)
    for (int i = before.rows; i < before.Leading(); ++i) ASSERT_EQ(before.At(i, j), after.At(i, j));
}

constexpr float Alpha = -1.5F;

// Sizes whose product is above the bound of teamwork, longer in either direction, and below it.
void ExpectProduct(int m, int n, int k, char transA, char transB, float beta) {
  const Matrix a = transA == 'N' ? RandomMatrix(m, k) : RandomMatrix(k, m);
  const Matrix b = transB == 'N' ? RandomMatrix(k, n) : RandomMatrix(n, k);
  const Matrix before = RandomMatrix(m, n);
  Matrix c = before;
  const int lda = a.Leading(), ldb = b.Leading(), ldc = c.Leading();
  sgemm_(&transA, &transB, &m, &n, &k, &Alpha, a.values.data(), &lda, b.values.data(), &ldb, &beta,
         c.values.data(), &ldc);
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < m; ++i) {
      double sum = 0.0;
      for (int l = 0; l < k; ++l) sum += a.Op(transA, i, l) * b.Op(transB, l, j);
      // Single precision: each of k additions of numbers below 1.5 may lose 2^-24 of the sum.
      ASSERT_NEAR(c.At(i, j), Alpha * sum + beta * before.At(i, j), 1e-6 * k) << i << ' ' << j;
    }
  ExpectSpareRowsKept(before, c);
}

// X of op(A) X = alpha B, or of X op(A) = alpha B, put back into its equation.
void ExpectSolution(char side, char uplo, char trans, char diag, int m, int n) {
  const int order = side == 'L' ? m : n;
  Matrix a = RandomMatrix(order, order);
  for (float& value : a.values) value /= static_cast<float>(order);
  for (int i = 0; i < order; ++i) a.At(i, i) = 1.25F;
  const Matrix b = RandomMatrix(m, n);
  Matrix x = b;
  const int lda = a.Leading(), ldb = b.Leading();
  strsm_(&side, &uplo, &trans, &diag, &m, &n, &Alpha, a.values.data(), &lda, x.values.data(), &ldb);
  // What isn't read is zero or one.
  for (int j = 0; j < order; ++j)
    for (int i = 0; i < order; ++i) {
      if (i == j && diag == 'U') a.At(i, j) = 1.0F;
      if (uplo == 'U' ? i > j : i < j) a.At(i, j) = 0.0F;
    }
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < m; ++i) {
      double sum = 0.0;
      for (int l = 0; l < order; ++l)
        sum += side == 'L' ? a.Op(trans, i, l) * x.At(l, j) : x.At(i, l) * a.Op(trans, l, j);
      ASSERT_NEAR(sum, Alpha * b.At(i, j), 1e-5) << i << ' ' << j;
    }
  ExpectSpareRowsKept(b, x);
}

// Threads of this process.
std::ptrdiff_t Threads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

struct TeamSize {
  int before = omp_get_max_threads();
  explicit TeamSize(int size) { omp_set_num_threads(size); }
  ~TeamSize() { omp_set_num_threads(before); }
};

}  // namespace

TEST(DenseProduct, AgreesWithTheNaiveLoopForEveryTeamShapeAndTransposition) {
  for (const int team : {1, 2, 3}) {
    const TeamSize size(team);
    for (const char transA : {'N', 'T'})
      for (const char transB : {'N', 'T'}) {
        SCOPED_TRACE(std::to_string(team) + transA + transB);
        ExpectProduct(97, 233, 191, transA, transB, 1.0F);
        ExpectProduct(233, 97, 191, transA, transB, 0.5F);
        ExpectProduct(33, 5, 7, transA, transB, 1.0F);
      }
  }
}

TEST(DenseProduct, IsTheSameInEveryCall) {
  const TeamSize size(3);
  const int m = 170, n = 210, k = 190;
  const Matrix a = RandomMatrix(m, k), b = RandomMatrix(k, n);
  const int lda = a.Leading(), ldb = b.Leading();
  const float beta = 0.0F;
  Matrix first = RandomMatrix(m, n), second = first;
  const int ldc = first.Leading();
  for (Matrix* c : {&first, &second})
    sgemm_("N", "N", &m, &n, &k, &Alpha, a.values.data(), &lda, b.values.data(), &ldb, &beta,
           c->values.data(), &ldc);
  EXPECT_EQ(first.values, second.values);
}

TEST(DenseSolve, FulfilsItsEquationForEveryTeamSideTriangleAndDiagonal) {
  for (const int team : {1, 2, 3}) {
    const TeamSize size(team);
    for (const char uplo : {'U', 'L'})
      for (const char trans : {'N', 'T'})
        for (const char diag : {'N', 'U'}) {
          SCOPED_TRACE(std::string({uplo, trans, diag}) + std::to_string(team));
          ExpectSolution('L', uplo, trans, diag, 233, 163);
          ExpectSolution('R', uplo, trans, diag, 163, 233);
          ExpectSolution('R', uplo, trans, diag, 9, 7);
        }
  }
}

TEST(MathsThreads, NoneIsLeftBesideTheTeam) {
  omp_pause_resource_all(omp_pause_hard);  // the threads of earlier tests' teams
  MATHS_ENDTHREADS();
  const TeamSize size(2);
  int team = 0;
#pragma omp parallel
#pragma omp single
  team = omp_get_num_threads();
  ASSERT_EQ(team, 2);
  // Threads end when they like.
  for (int i = 0; i < 2000 && Threads() > team; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_EQ(Threads(), team);
}
