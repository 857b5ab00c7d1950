#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "solver/sleblocks.hpp"
#include "solver/sleonepass.hpp"
#include "support/small_model.hpp"

namespace {

// A symmetric matrix by rows of its upper triangle, diagonal first; columns from 1.
struct SparseMatrix {
  std::vector<std::int64_t> starts{1};
  std::vector<std::int64_t> columns;
  std::vector<double> values;
};

struct Solution {
  std::vector<double> x;
  std::int32_t count;
  float quality;
};

// Which components of which nodes have equations, and which nodes are coupled.
struct Mesh {
  std::vector<int> components;               // [node] mask of the free ones
  std::vector<std::vector<int>> neighbours;  // [node] higher nodes, ascending
};

// Nodes of an nx by ny by nz grid, each coupled with the 26 around it.
Mesh Grid(int nx, int ny, int nz) {
  Mesh mesh;
  const auto number = [&](int i, int j, int k) { return (k * ny + j) * nx + i; };
  mesh.components.assign(static_cast<std::size_t>(nx * ny * nz), 7);
  mesh.neighbours.resize(mesh.components.size());
  for (int k = 0; k < nz; ++k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i)
        for (int dk = 0; dk <= 1; ++dk)
          for (int dj = -1; dj <= 1; ++dj)
            for (int di = -1; di <= 1; ++di) {
              const int a = i + di, b = j + dj, c = k + dk;
              if (a < 0 || a >= nx || b < 0 || b >= ny || c >= nz) continue;
              if (number(a, b, c) > number(i, j, k))
                mesh.neighbours[static_cast<std::size_t>(number(i, j, k))].push_back(
                    number(a, b, c));
            }
  return mesh;
}

// Every node coupled with about `degree` random higher ones near it, every third with fewer
// components.
Mesh RandomMesh(int nodes, int degree) {
  std::mt19937 random(17);
  Mesh mesh;
  for (int a = 0; a < nodes; ++a) {
    mesh.components.push_back(a % 3 == 1 ? 1 + static_cast<int>(random() % 7) : 7);
    std::vector<int> higher;
    for (int b = a + 1; b < std::min(nodes, a + 12 * degree); ++b)
      if (random() % 12 == 0) higher.push_back(b);
    mesh.neighbours.push_back(higher);
  }
  return mesh;
}

// Positive definite, with the diagonal 1; `contrast` spreads the couplings over decades. With
// `missing` a node has no coupling at all with every so manyth equation of its neighbours.
SparseMatrix MatrixOf(const Mesh& mesh, double contrast, unsigned seed = 5,
                      std::size_t missing = 0) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  std::vector<std::vector<std::int64_t>> equations(mesh.components.size());
  std::int64_t last = 0;
  for (std::size_t node = 0; node < mesh.components.size(); ++node)
    for (int k = 0; k < 3; ++k)
      if ((mesh.components[node] >> k & 1) != 0) equations[node].push_back(++last);
  SparseMatrix m;
  const auto couple = [&](std::int64_t column) {
    m.columns.push_back(column);
    m.values.push_back(value(random) / 14.0 * std::pow(10.0, -contrast * std::fabs(value(random))));
  };
  for (std::size_t node = 0; node < equations.size(); ++node)
    for (std::size_t k = 0; k < equations[node].size(); ++k) {
      m.columns.push_back(equations[node][k]);
      m.values.push_back(1.0);
      for (std::size_t j = k + 1; j < equations[node].size(); ++j) couple(equations[node][j]);
      for (const int other : mesh.neighbours[node])
        for (const std::int64_t column : equations[static_cast<std::size_t>(other)])
          if (missing == 0 || (31 * node + static_cast<std::size_t>(column)) % missing != 0)
            couple(column);
      m.starts.push_back(static_cast<std::int64_t>(m.columns.size()) + 1);
    }
  return m;
}

void Set(const SparseMatrix& m) {
  SetStructure(m.starts, m.columns, true);
  std::copy(m.values.begin(), m.values.end(), SOLVERSTA::SysMatrix.get());
}

void Build() {
  SLEBLOCKS_BUILD(SOLVERSTA::NumEquations, SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                  SOLVERSTA::SysMatrix.get());
}

std::vector<double> RandomVector(std::int32_t n) {
  std::mt19937 random(8);
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  std::vector<double> v(static_cast<std::size_t>(n));
  for (double& x : v) x = value(random);
  return v;
}

Solution Solve(const std::vector<double>& b, std::int32_t limit = 500) {
  SLEPCCGSOLVER::PcgMode = SOLVERSTA::ModeIterative;
  SLEPCCGSOLVER::PcgMaxIter = limit;
  std::vector<double> x(b.size(), 0.5);
  SLEPCCGSOLVER_COMPUTE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), nullptr,
                           SOLVERSTA::SysMatrix.get(), b.data(), x.data());
  return {x, SLEPCCGSOLVER::ICount, SLEPCCGSOLVER::PcgQuality};
}

class Sleblocks : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    SLEBLOCKS_RELEASE();
  }
  void TearDown() override {
    SLEBLOCKS_RELEASE();
    SmallModel::TearDown();
  }

  // Plain sweeps against one pass, same count, same quality, x to rounding.
  void ExpectSameIterates(const SparseMatrix& m, std::int32_t limit = 500) {
    Set(m);
    const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
    const Solution plain = Solve(b, limit);
    Build();
    ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
    const Solution blocks = Solve(b, limit);
    EXPECT_EQ(blocks.count, plain.count);
    EXPECT_NEAR(blocks.quality, plain.quality, 1e-6);
    for (std::size_t i = 0; i < b.size(); ++i) ASSERT_NEAR(blocks.x[i], plain.x[i], 1e-11);
  }
};

TEST_F(Sleblocks, OnePassGivesTheIteratesOfThePlainSweepsOnABox) {
  ExpectSameIterates(MatrixOf(Grid(9, 8, 7), 0.0));
}

TEST_F(Sleblocks, OnePassGivesTheIteratesOfThePlainSweepsUnderContrast) {
  ExpectSameIterates(MatrixOf(Grid(6, 9, 6), 4.0));
}

TEST_F(Sleblocks, OnePassGivesTheIteratesOfThePlainSweepsWithFixedComponents) {
  Mesh mesh = Grid(8, 7, 6);
  for (std::size_t node = 0; node < mesh.components.size(); node += 5)
    mesh.components[node] = static_cast<int>(node / 5 % 8);  // none, some or all of the three
  ExpectSameIterates(MatrixOf(mesh, 1.0));
}

TEST_F(Sleblocks, OnePassGivesTheIteratesOfThePlainSweepsWithoutAnyGrid) {
  ExpectSameIterates(MatrixOf(RandomMesh(900, 10), 1.0));
}

TEST_F(Sleblocks, OnePassStopsAtTheLimitWithTheQualityOfThePlainSweeps) {
  ExpectSameIterates(MatrixOf(Grid(9, 8, 7), 0.0), 3);
  EXPECT_EQ(SLEPCCGSOLVER::ICount, -3);
  EXPECT_LT(SLEPCCGSOLVER::PcgQuality, 1.0f);
}

TEST_F(Sleblocks, EntryMissingFromABlockCountsAsZero) {
  ExpectSameIterates(MatrixOf(Grid(7, 6, 6), 0.0, 5, 11));
}

// Rows of a node that differ are no group; what is left of the blocks doesn't pay.
TEST_F(Sleblocks, RowsOfOneNodeThatDifferAreLeftToThePlainSweeps) {
  SparseMatrix whole = MatrixOf(Grid(5, 5, 5), 0.0);
  SparseMatrix thin;
  for (std::size_t row = 0; row + 1 < whole.starts.size(); ++row) {
    for (auto k = static_cast<std::size_t>(whole.starts[row]) - 1;
         k < static_cast<std::size_t>(whole.starts[row + 1]) - 1; ++k)
      if (whole.values[k] == 1.0 || (row * 7 + k) % 5 != 0) {
        thin.columns.push_back(whole.columns[k]);
        thin.values.push_back(whole.values[k]);
      }
    thin.starts.push_back(static_cast<std::int64_t>(thin.columns.size()) + 1);
  }
  Set(thin);
  Build();
  EXPECT_FALSE(SLEBLOCKS::HoldsMatrix);
  EXPECT_EQ(SLEBLOCKS::Upper.values.get(), nullptr);
}

// The copy is made anew by each team, too.
TEST_F(Sleblocks, ResultsRepeatBitByBitForEveryTeam) {
  for (const Mesh& mesh : {Grid(14, 13, 12), RandomMesh(1500, 10)}) {
    SLEBLOCKS_RELEASE();
    Set(MatrixOf(mesh, 1.0));
    const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
    omp_set_num_threads(1);
    Build();
    ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
    const Solution alone = Solve(b);
    for (const int team : {1, 2, 3, 16, 2}) {
      omp_set_num_threads(team);
      SLEBLOCKS_RELEASE();
      Build();
      const Solution repeated = Solve(b);
      EXPECT_EQ(repeated.count, alone.count) << team;
      EXPECT_EQ(repeated.x, alone.x) << team;
    }
  }
}

TEST_F(Sleblocks, LowerTriangleIsTheUpperOneTransposedForEveryTeam) {
  Set(MatrixOf(RandomMesh(600, 8), 0.0));
  for (const int team : {1, 2, 3, 16}) {
    omp_set_num_threads(team);
    SLEBLOCKS_RELEASE();
    Build();
    ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
    for (std::int32_t row = 0; row < SLEBLOCKS::NumRows; ++row)
      for (std::int32_t k = SLEBLOCKS::Upper.start[row]; k < SLEBLOCKS::Upper.start[row + 1]; ++k) {
        const std::int32_t other = SLEBLOCKS::Upper.column[k], twin = SLEBLOCKS::LowerPlace[k];
        ASSERT_GE(twin, SLEBLOCKS::Lower.start[other]);
        ASSERT_LT(twin, SLEBLOCKS::Lower.start[other + 1]);
        ASSERT_EQ(SLEBLOCKS::Lower.column[twin], row);
        for (int i = 0; i < 3; ++i)
          for (int j = 0; j < 3; ++j)
            ASSERT_EQ(SLEBLOCKS::Lower.values[9 * twin + 3 * i + j],
                      SLEBLOCKS::Upper.values[9 * k + 3 * j + i]);
      }
  }
}

TEST_F(Sleblocks, NextMatrixOfTheStructureReplacesTheValues) {
  const Mesh mesh = Grid(6, 6, 6);
  Set(MatrixOf(mesh, 0.0, 1));
  Build();
  const SparseMatrix next = MatrixOf(mesh, 0.0, 2);
  std::copy(next.values.begin(), next.values.end(), SOLVERSTA::SysMatrix.get());
  Build();
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  const Solution blocks = Solve(b);
  SLEBLOCKS::HoldsMatrix = false;
  const Solution plain = Solve(b);
  for (std::size_t i = 0; i < b.size(); ++i) ASSERT_NEAR(blocks.x[i], plain.x[i], 1e-11);
}

TEST_F(Sleblocks, RowsOfAChunkStageHaveNoCouplingAcrossItsChunks) {
  Set(MatrixOf(Grid(30, 25, 20), 0.0));
  Build();
  ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
  int shared = 0;
  for (std::int32_t c = 0; c < SLEBLOCKS::NumChunks; ++c) {
    const SLEBLOCKS::Chunk& chunk = SLEBLOCKS::Chunks[c];
    EXPECT_EQ(chunk.first, c == 0 ? 0 : SLEBLOCKS::Chunks[c - 1].last);
    const std::int32_t stageFirst = SLEBLOCKS::Chunks[chunk.stageFirst].first;
    const std::int32_t stageLast = SLEBLOCKS::Chunks[chunk.stageLast - 1].last;
    if (chunk.stageLast - chunk.stageFirst > 1) ++shared;
    for (std::int32_t row = chunk.first; row < chunk.last; ++row)
      for (std::int32_t k = SLEBLOCKS::Lower.start[row]; k < SLEBLOCKS::Lower.start[row + 1]; ++k) {
        const std::int32_t other = SLEBLOCKS::Lower.column[k];
        EXPECT_LT(other, row);
        EXPECT_TRUE(other < stageFirst || (other >= chunk.first && other < stageLast &&
                                           chunk.stageLast - chunk.stageFirst == 1));
      }
  }
  EXPECT_GT(shared, 0);
  EXPECT_EQ(SLEBLOCKS::Chunks[SLEBLOCKS::NumChunks - 1].last, SLEBLOCKS::NumRows);
}

TEST_F(Sleblocks, UndefinedRightHandSideRunsToTheLimitAndIsCleared) {
  Set(MatrixOf(Grid(5, 5, 5), 0.0));
  Build();
  ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
  std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  b[77] = std::numeric_limits<double>::quiet_NaN();
  const Solution s = Solve(b, 7);
  EXPECT_EQ(s.count, -7);
  EXPECT_EQ(s.quality, 0.0f);
  EXPECT_EQ(s.x, std::vector<double>(b.size(), 0.0));
}

TEST_F(Sleblocks, UndefinedMatrixRunsToTheLimitAndIsCleared) {
  for (const double bad :
       {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    Set(MatrixOf(Grid(5, 5, 5), 0.0));
    SOLVERSTA::SysMatrix[40] = bad;
    SLEBLOCKS_RELEASE();
    Build();
    ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
    const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
    const Solution s = Solve(b, 7);
    EXPECT_EQ(s.count, -7);
    EXPECT_EQ(s.quality, 0.0f);
    EXPECT_EQ(s.x, std::vector<double>(b.size(), 0.0));
  }
}

TEST_F(Sleblocks, DiagonalOtherThanOneIsLeftToThePlainSweeps) {
  for (const double diagonal : {1.0 + 1e-12, std::numeric_limits<double>::quiet_NaN()}) {
    Set(MatrixOf(Grid(5, 5, 5), 0.0));
    SOLVERSTA::SysMatrix[Slot(SOLVERSTA::pR4[20])] = diagonal;
    Build();
    EXPECT_FALSE(SLEBLOCKS::HoldsMatrix);
  }
}

TEST_F(Sleblocks, StructureWithoutBlocksIsLeftToThePlainSweeps) {
  Mesh mesh = Grid(6, 6, 6);
  for (int& components : mesh.components) components = 1;
  Set(MatrixOf(mesh, 0.0));
  Build();
  EXPECT_FALSE(SLEBLOCKS::HoldsMatrix);
  EXPECT_EQ(SLEBLOCKS::NumRows, 0);
}

TEST_F(Sleblocks, CopyThatCannotBeHadIsLeftToThePlainSweepsWithoutAWord) {
  Set(MatrixOf(Grid(5, 5, 5), 0.0));
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  const Solution expected = Solve(b);
  const std::int64_t vectors = SOLVERSTA::NumEquations * std::int64_t{sizeof(double)};
  for (std::int64_t limit = 8; limit < vectors * 40; limit += limit / 3 + 1) {
    ARRAYS::LargestBytes = limit;
    SLEBLOCKS_RELEASE();
    Build();
    if (!SLEBLOCKS::HoldsMatrix) {
      EXPECT_EQ(SLEBLOCKS::Upper.values.get(), nullptr);
      EXPECT_EQ(SLEBLOCKS::Unknown.get(), nullptr);
    }
    ARRAYS::LargestBytes = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(Solve(b).count, expected.count);
  }
  EXPECT_TRUE(SLEBLOCKS::HoldsMatrix);
}

// Whichever array of the copy fails, nothing of it stays, and the iterates are those without it.
TEST_F(Sleblocks, EveryArrayOfTheCopyMayFail) {
  Set(MatrixOf(Grid(5, 5, 5), 0.0));
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  const Solution expected = Solve(b);
  std::int64_t failures = 0;
  for (;; ++failures) {
    SLEBLOCKS_RELEASE();
    ARRAYS::ArraysLeft = failures;
    Build();
    ARRAYS::ArraysLeft = -1;
    if (SLEBLOCKS::HoldsMatrix) break;
    EXPECT_EQ(SLEBLOCKS::NumRows, 0);
    EXPECT_EQ(SLEBLOCKS::Upper.start.get(), nullptr);
    EXPECT_EQ(SLEBLOCKS::Upper.values.get(), nullptr);
    EXPECT_EQ(SLEBLOCKS::Lower.values.get(), nullptr);
    EXPECT_EQ(SLEBLOCKS::LowerPlace.get(), nullptr);
    EXPECT_EQ(SLEBLOCKS::Chunks.get(), nullptr);
    EXPECT_EQ(SLEBLOCKS::Unknown.get(), nullptr);
    const Solution plain = Solve(b);
    EXPECT_EQ(plain.x, expected.x);
    EXPECT_EQ(plain.count, expected.count);
  }
  EXPECT_GE(failures, 12);
}

TEST_F(Sleblocks, EveryWorkArrayThatCannotBeAllocatedStopsTheRun) {
  Set(MatrixOf(Grid(5, 5, 5), 0.0));
  Build();
  ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
  const std::vector<double> b = RandomVector(SOLVERSTA::NumEquations);
  constexpr int workArrays = 9;
  for (int left = 0; left < workArrays; ++left) {
    ARRAYS::ArraysLeft = left;
    EXPECT_ABORT(Solve(b), "Error allocating work arrays.");
  }
  ARRAYS::ArraysLeft = workArrays;
  EXPECT_GT(Solve(b).count, 0);
}

TEST_F(Sleblocks, WorkArraysThatCannotBeAllocatedStopTheRun) {
  Set(MatrixOf(Grid(5, 5, 5), 0.0));
  Build();
  ASSERT_TRUE(SLEBLOCKS::HoldsMatrix);
  ARRAYS::LargestBytes = 8;
  EXPECT_ABORT(Solve(RandomVector(SOLVERSTA::NumEquations)), "Error allocating work arrays.");
}

}  // namespace
