#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <random>
#include <vector>

#include "elements/assembly.hpp"
#include "elements/feelem.hpp"
#include "support/small_model.hpp"

namespace {

// The assembly written down plainly: one thread, one element after the other, linear row search.
struct Twin {
  std::vector<double> forces, matrix;

  Twin()
      : forces(static_cast<std::size_t>(SOLVERSTA::NumEquations), 0.0),
        matrix(static_cast<std::size_t>(SOLVERSTA::NumEntries), 0.0) {}

  static std::int64_t Find(std::int64_t row, std::int64_t column, std::int64_t last) {
    for (std::int64_t p = RowStart(row); p < RowStart(row + 1); ++p)
      if (ColumnAt(p) == column) return p;
    return last;
  }

  void Add(int count, const std::int32_t* dofs, const double* f, const double* m, int stride) {
    for (int i = 0; i < count; ++i) {
      const std::int32_t a = dofs[i];
      if (a <= 0) continue;
      forces[static_cast<std::size_t>(a - 1)] += f[i];
      std::int64_t position = RowStart(a);
      matrix[static_cast<std::size_t>(position - 1)] += m[i + i * stride];
      for (int j = i + 1; j < count; ++j) {
        const std::int32_t b = dofs[j];
        if (b <= 0) continue;
        position = b <= a ? Find(b, a, position) : Find(a, b, position);
        matrix[static_cast<std::size_t>(position - 1)] += m[i + j * stride];
      }
    }
  }

  void AddElements() {
    for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
      if (FEMODEL_ISEXCLUDED(e)) continue;
      std::int32_t count = 0;
      ElementDofs dofs;
      ElementVector f;
      ElementMatrix m;
      FEELEM_MATRIXANDFORCES(e, FEDOF::Displacements.get(), count, dofs, f, m);
      Add(count, dofs, f, m, MaxElementDofs);
    }
  }

  void Scale() {
    std::vector<double> scale;
    for (std::int64_t i = 1; i <= SOLVERSTA::NumEquations; ++i)
      scale.push_back(1.0 / std::sqrt(matrix[static_cast<std::size_t>(RowStart(i) - 1)]));
    for (std::int64_t i = 1; i <= SOLVERSTA::NumEquations; ++i)
      for (std::int64_t p = RowStart(i); p < RowStart(i + 1); ++p)
        matrix[static_cast<std::size_t>(p - 1)] *= scale[static_cast<std::size_t>(i - 1)] *
                                                   scale[static_cast<std::size_t>(ColumnAt(p) - 1)];
  }

  void ExpectSystem(double tolerance) const {
    for (std::size_t i = 0; i < forces.size(); ++i)
      EXPECT_NEAR(SOLVERSTA::SysForces[i], forces[i], tolerance * (1.0 + std::fabs(forces[i])));
    for (std::size_t p = 0; p < matrix.size(); ++p)
      EXPECT_NEAR(SOLVERSTA::SysMatrix[p], matrix[p], tolerance * (1.0 + std::fabs(matrix[p])));
  }
};

void ClearSystem() {
  std::fill_n(SOLVERSTA::SysForces.get(), SOLVERSTA::NumEquations, 0.0);
  std::fill_n(SOLVERSTA::SysMatrix.get(), SOLVERSTA::NumEntries, 0.0);
}

NodalConstraintRecord Support(std::int32_t node, std::uint16_t mask) {
  NodalConstraintRecord row = {};
  row.Kind = ConstraintPenalty;
  row.DofMask = mask;
  row.Node = node;
  for (int k = 0; k < 3; ++k) row.Axis[k][k] = 1.0f;
  return row;
}

// Both index widths by the parameter: true for 32 bits.
class Assembly : public SmallModel, public testing::WithParamInterface<bool> {
 protected:
  void SetModel(const std::vector<NodalConstraintRecord>& constraints) {
    SetConstraints(constraints);
    SetNumbering();
    SetSystem(GetParam());
  }

  void SetUp() override {
    SmallModel::SetUp();
    SetBox(3, 2, 2);
    SetModel(ClampedFace());
    for (std::int32_t i = 0; i < FEDOF::NumEquations; ++i)
      FEDOF::Displacements[i] = 0.01 * std::cos(2.0 * i);
  }
};

INSTANTIATE_TEST_SUITE_P(IndexWidths, Assembly, testing::Bool(),
                         [](const auto& width) { return width.param ? "Im4" : "Im8"; });

TEST_P(Assembly, OneThreadGivesTheSumsOfOneLoopOverTheElements) {
  omp_set_num_threads(1);
  Twin twin;
  twin.AddElements();
  const std::vector<double> forces = twin.forces;
  twin.Scale();
  PREPARESYSMATRIXANDINTERNALFORCES();
  for (std::size_t i = 0; i < forces.size(); ++i) EXPECT_EQ(SOLVERSTA::SysForces[i], forces[i]);
  twin.ExpectSystem(1e-15);
}

TEST_P(Assembly, ManyThreadsGiveTheSameSumsWithinRounding) {
  Twin twin;
  twin.AddElements();
  twin.Scale();
  for (const int threads : {2, 3, 7}) {
    omp_set_num_threads(threads);
    PREPARESYSMATRIXANDINTERNALFORCES();
    twin.ExpectSystem(1e-12);
  }
}

TEST_P(Assembly, ForcePassGivesTheForcesOfTheMatrixPassAndLeavesTheMatrix) {
  omp_set_num_threads(1);
  PREPARESYSMATRIXANDINTERNALFORCES();
  const std::vector<double> forces(SOLVERSTA::SysForces.get(),
                                   SOLVERSTA::SysForces.get() + SOLVERSTA::NumEquations);
  std::fill_n(SOLVERSTA::SysMatrix.get(), SOLVERSTA::NumEntries, 5.0);
  SOLVERSTA::SolverReady = true;
  PREPARESYSINTERNALFORCES();
  for (std::size_t i = 0; i < forces.size(); ++i) EXPECT_EQ(SOLVERSTA::SysForces[i], forces[i]);
  EXPECT_EQ(SOLVERSTA::SysMatrix[0], 5.0);
  EXPECT_TRUE(SOLVERSTA::SolverReady);
}

// Without free strains the forces are K u; K is the scaled matrix with its scales taken out.
TEST_P(Assembly, MatrixTimesDisplacementsIsTheInternalForces) {
  PREPARESYSMATRIXANDINTERNALFORCES();
  const DenseMatrix scaled = DenseOf(SOLVERSTA::SysMatrix.get());
  for (std::size_t i = 0; i < scaled.size(); ++i) {
    double force = 0.0, size = 0.0;
    for (std::size_t j = 0; j < scaled.size(); ++j) {
      const double term =
          scaled[i][j] / SOLVERSTA::SysScale[i] / SOLVERSTA::SysScale[j] * FEDOF::Displacements[j];
      force += term;
      size += std::fabs(term);
    }
    EXPECT_NEAR(SOLVERSTA::SysForces[i], force, 1e-13 * size) << i;
  }
}

// Nothing held: moving or turning the whole box makes no force, stretching it alone does.
TEST_P(Assembly, MotionsOfTheWholeBodyMakeNoForces) {
  SetModel({});
  const auto largestForce = [](auto displacement) {
    for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node) {
      const NodeRecord& at = FEMODEL::NodeCoords[node];
      const double x[3] = {double{at.X}, double{at.Y}, double{at.Z}};
      for (int k = 0; k < 3; ++k)
        FEDOF::Displacements[FEDOF::NodeDofMap[3 * node + k] - 1] = displacement(x, k);
    }
    PREPARESYSINTERNALFORCES();
    double largest = 0.0;
    for (std::int32_t i = 0; i < SOLVERSTA::NumEquations; ++i)
      largest = std::max(largest, std::fabs(SOLVERSTA::SysForces[i]));
    return largest;
  };
  const double stretched = largestForce([](const double* x, int k) { return k == 0 ? x[0] : 0.0; });
  ASSERT_GT(stretched, 1.0);
  for (int axis = 0; axis < 3; ++axis) {
    EXPECT_LT(largestForce([axis](const double*, int k) { return k == axis ? 1.0 : 0.0; }),
              1e-13 * stretched);
    EXPECT_LT(largestForce([axis](const double* x, int k) {
                if (k == axis) return 0.0;
                return k == (axis + 1) % 3 ? -x[(axis + 2) % 3] : x[(axis + 1) % 3];
              }),
              1e-13 * stretched);
  }
}

TEST_P(Assembly, RebuildingTheMatrixMakesTheFactorStale) {
  SOLVERSTA::SolverReady = true;
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_FALSE(SOLVERSTA::SolverReady);
}

TEST_P(Assembly, NothingIsAccumulatedFromOneCallToTheNext) {
  omp_set_num_threads(1);
  PREPARESYSMATRIXANDINTERNALFORCES();
  const double force = SOLVERSTA::SysForces[5];
  const double entry = SOLVERSTA::SysMatrix[7];
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_EQ(SOLVERSTA::SysForces[5], force);
  EXPECT_EQ(SOLVERSTA::SysMatrix[7], entry);
}

TEST_P(Assembly, ScaledDiagonalIsOneWithinRounding) {
  PREPARESYSMATRIXANDINTERNALFORCES();
  for (std::int64_t i = 1; i <= SOLVERSTA::NumEquations; ++i)
    EXPECT_NEAR(SOLVERSTA::SysMatrix[Slot(RowStart(i))], 1.0, 4e-16);
}

TEST_P(Assembly, ElementWithoutEquationsAddsNothing) {
  std::vector<NodalConstraintRecord> rows = ClampedFace();
  for (int n = 0; n < 4; ++n)
    rows.push_back(Prescribed(FEMODEL::Conn40[30].Node[n], 7, 0.0f, 0.1f, 0.0f));
  SetModel(rows);
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e)
    FEMODEL::ElementFlags[Slot(e)] = e == 31 ? 0 : 0x100;
  ClearSystem();
  PREPARESYSINTERNALFORCES();
  for (std::int32_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    EXPECT_EQ(SOLVERSTA::SysForces[i], 0.0);
  std::int32_t count = 0;
  ElementDofs dofs;
  ElementVector forces;
  ElementMatrix matrix;
  FEELEM_MATRIXANDFORCES(31, FEDOF::Displacements.get(), count, dofs, forces, matrix);
  ASSERT_EQ(count, 12);
  SOLVERSTA_ADDTOFFUSYM(count, dofs, forces, matrix, MaxElementDofs);
  for (std::int64_t p = 0; p < SOLVERSTA::NumEntries; ++p) EXPECT_EQ(SOLVERSTA::SysMatrix[p], 0.0);
}

TEST_P(Assembly, ElementsFlaggedInBitTwoOrEightContributeToNeitherLoop) {
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e)
    FEMODEL::ElementFlags[e] = e % 2 == 0 ? 0x4 : 0x100;
  std::fill_n(SOLVERSTA::SysForces.get(), SOLVERSTA::NumEquations, 3.0);
  PREPARESYSINTERNALFORCES();
  for (std::int32_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    EXPECT_EQ(SOLVERSTA::SysForces[i], 0.0);
  PREPARESYSMATRIXANDINTERNALFORCES();
  for (std::int32_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    EXPECT_TRUE(std::isinf(SOLVERSTA::SysScale[i]));  // no diagonal: the scale flows on
}

TEST_P(Assembly, UnknownTypeContributesNothing) {
  const Twin empty;
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e) FEMODEL::Elements[e].TypeCode = 39;
  PREPARESYSINTERNALFORCES();
  for (std::size_t i = 0; i < empty.forces.size(); ++i) EXPECT_EQ(SOLVERSTA::SysForces[i], 0.0);
}

TEST_P(Assembly, NegativeDiagonalGivesAnUndefinedScaleThatFlowsOn) {
  FEMODEL::MaterialStiffness[0] = FEMODEL::MaterialStiffness[3] = FEMODEL::MaterialStiffness[5] =
      -1e6f;
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_TRUE(std::isnan(SOLVERSTA::SysScale[0]));
}

TEST_P(Assembly, PrescribedDisplacementWithoutLoadsGivesForcesAtItsFreeNeighbours) {
  std::vector<NodalConstraintRecord> rows = ClampedFace();
  const std::int32_t moved = FEMODEL::NumNodes;  // the corner opposite to node 1
  rows.push_back(Prescribed(moved, 7, 0.1f, 0.07f, 0.03f));
  SetModel(rows);
  PREPARESYSINTERNALFORCES();
  std::vector<bool> neighbour(static_cast<std::size_t>(FEMODEL::NumNodes), false);
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e)
    for (int a = 0; a < 4; ++a)
      for (int b = 0; b < 4; ++b)
        if (FEMODEL::Conn40[e].Node[a] == moved)
          neighbour[static_cast<std::size_t>(FEMODEL::Conn40[e].Node[b] - 1)] = true;
  for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node) {
    const std::int32_t d = FEDOF::NodeDofMap[3 * node];
    if (d <= 0) continue;
    if (neighbour[static_cast<std::size_t>(node)])
      EXPECT_NE(SOLVERSTA::SysForces[d - 1], 0.0) << node + 1;
    else
      EXPECT_EQ(SOLVERSTA::SysForces[d - 1], 0.0) << node + 1;
  }
}

TEST_P(Assembly, MarkedNodeHasItsDiagonalRaisedBeforeScaling) {
  omp_set_num_threads(1);
  PREPARESYSMATRIXANDINTERNALFORCES();
  const std::int32_t node = FEMODEL::NumNodes;
  const std::int32_t equation = FEDOF::NodeDofMap[3 * Slot(node)];
  std::vector<double> before(SOLVERSTA::SysScale.get(),
                             SOLVERSTA::SysScale.get() + SOLVERSTA::NumEquations);
  FEMODEL::NodeFlags[Slot(node)] = NodeMarked;
  PREPARESYSMATRIXANDINTERNALFORCES();
  for (std::int32_t i = 1; i <= SOLVERSTA::NumEquations; ++i) {
    const double raised =
        std::pow(before[static_cast<std::size_t>(i - 1)] / SOLVERSTA::SysScale[i - 1], 2.0) - 1.0;
    EXPECT_NEAR(raised, i >= equation && i < equation + 3 ? 1e-10 : 0.0, 1e-15) << i;
  }
}

TEST_P(Assembly, MarkOnANodeWithoutFreeComponentsRaisesNothing) {
  omp_set_num_threads(1);
  PREPARESYSMATRIXANDINTERNALFORCES();
  const std::int32_t node = FEMODEL::NumNodes;
  const double scale = SOLVERSTA::SysScale[SOLVERSTA::NumEquations - 1];
  FEMODEL::NodeFlags[Slot(node)] = NodeMarked;
  FEDOF::NodeDofState[Slot(node)] = FEDOF::NodeStateUnused;
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_EQ(SOLVERSTA::SysScale[SOLVERSTA::NumEquations - 1], scale);
}

TEST_P(Assembly, OtherNodeFlagsRaiseNothing) {
  omp_set_num_threads(1);
  PREPARESYSMATRIXANDINTERNALFORCES();
  const double scale = SOLVERSTA::SysScale[0];
  std::fill_n(FEMODEL::NodeFlags.get(), FEMODEL::NumNodes, std::int16_t(~NodeMarked));
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_EQ(SOLVERSTA::SysScale[0], scale);
}

// Random forces and matrix of four nodes, added by the program and by the twin.
void ScatterRandom(Twin& twin, const ElementDofs& dofs, std::mt19937& random) {
  std::uniform_real_distribution<double> value(-1.0, 1.0);
  ElementVector forces;
  ElementMatrix matrix;
  for (double& f : forces) f = value(random);
  for (double& m : matrix) m = value(random);
  SOLVERSTA_ADDTOFFUSYM(12, dofs, forces, matrix, MaxElementDofs);
  twin.Add(12, dofs, forces, matrix, MaxElementDofs);
}

TEST_P(Assembly, UnsortedAndConstrainedEquationNumbersScatterLikeTheTwin) {
  ClearSystem();
  Twin twin;
  std::mt19937 random(5);
  for (int round = 0; round < 200; ++round) {
    const ConnRecord<4>& row = FEMODEL::Conn40[static_cast<std::int32_t>(random() % 72)];
    ElementDofs dofs;
    for (int i = 0; i < 12; ++i) dofs[i] = FEDOF::NodeDofMap[3 * Slot(row.Node[i / 3]) + i % 3];
    std::shuffle(dofs, dofs + 12, random);
    if (round % 3 == 0) dofs[random() % 12] = -1;
    if (round % 4 == 0) dofs[random() % 12] = 0;
    if (round % 5 == 0) dofs[2] = dofs[9];  // equal numbers fall on the diagonal
    ScatterRandom(twin, dofs, random);
  }
  twin.ExpectSystem(0.0);
}

// Random matrices at elements of the model, their nodes in any order, some with a node twice.
void ScatterNodesInAnyOrder(Twin& twin) {
  std::mt19937 random(6);
  for (int round = 0; round < 200; ++round) {
    ConnRecord<4> row = FEMODEL::Conn40[static_cast<std::int32_t>(random() % 72)];
    std::shuffle(std::begin(row.Node), std::end(row.Node), random);
    if (round % 5 == 0) row.Node[3] = row.Node[1];
    ElementDofs dofs;
    for (int i = 0; i < 12; ++i) dofs[i] = FEDOF::NodeDofMap[3 * Slot(row.Node[i / 3]) + i % 3];
    ScatterRandom(twin, dofs, random);
  }
}

TEST_P(Assembly, NodesInAnyOrderScatterLikeTheTwin) {
  ClearSystem();
  Twin twin;
  ScatterNodesInAnyOrder(twin);
  twin.ExpectSystem(0.0);
}

// The structure of the model without the entries whose number `isLeftOut` tells.
template <class IsLeftOut>
void ThinStructure(IsLeftOut isLeftOut) {
  std::vector<std::int64_t> starts{1}, columns;
  for (std::int64_t row = 1; row <= SOLVERSTA::NumEquations; ++row) {
    for (std::int64_t p = RowStart(row); p < RowStart(row + 1); ++p)
      if (p == RowStart(row) || !isLeftOut(p)) columns.push_back(ColumnAt(p));
    starts.push_back(static_cast<std::int64_t>(columns.size()) + 1);
  }
  SetStructure(starts, columns, SOLVERSTA::UseIm4);
}

TEST_P(Assembly, BlocksWithAnEntryMissingScatterLikeTheTwin) {
  for (const int step : {2, 5, 17, 31, 200}) {
    SetModel(ClampedFace());
    ThinStructure([step](std::int64_t p) { return p % step == 0; });
    ClearSystem();
    Twin twin;
    ScatterNodesInAnyOrder(twin);
    twin.ExpectSystem(0.0);
  }
}

// Whole rows less in one equation of a node, so that its rows don't end alike.
TEST_P(Assembly, NodesWhoseRowsDifferScatterLikeTheTwin) {
  for (const int component : {0, 1, 2}) {
    SetModel(ClampedFace());
    const std::int64_t begin = RowStart(4 + component), end = RowStart(5 + component);
    ThinStructure([=](std::int64_t p) { return p > begin + 4 && p < end; });
    ClearSystem();
    Twin twin;
    ScatterNodesInAnyOrder(twin);
    twin.ExpectSystem(0.0);
  }
}

// Elements of all threads at the same nodes, where a lost addition would show as a missing part.
TEST_P(Assembly, ElementsOfSeveralThreadsAtTheSameNodesLoseNothing) {
  constexpr int elements = 60000;
  SetNodes({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {2, 0, 0}});
  SetTetrahedra(std::vector<ConnRecord<4>>(elements, {{1, 2, 3, 4}}));
  SetModel({});
  for (const int threads : {1, 2, 3, 7}) {
    omp_set_num_threads(threads);
    for (std::int32_t i = 0; i < FEDOF::NumEquations; ++i) FEDOF::Displacements[i] = 0.1 * i;
    PREPARESYSMATRIXANDINTERNALFORCES();
    const std::vector<double> forces(SOLVERSTA::SysForces.get(), SOLVERSTA::SysForces.get() + 12);
    const double scale = SOLVERSTA::SysScale[0];
    FEMODEL::NumElements = 1;
    PREPARESYSMATRIXANDINTERNALFORCES();
    EXPECT_NEAR(scale, SOLVERSTA::SysScale[0] / std::sqrt(elements), 1e-9 * scale);
    FEMODEL::NumElements = elements;
    for (std::size_t i = 0; i < forces.size(); ++i)
      EXPECT_NEAR(forces[i], elements * SOLVERSTA::SysForces[i], 1e-9 * std::fabs(forces[i]));
    PREPARESYSINTERNALFORCES();
    for (std::size_t i = 0; i < forces.size(); ++i)
      EXPECT_NEAR(forces[i], SOLVERSTA::SysForces[i], 1e-9 * std::fabs(forces[i]));
  }
}

TEST_P(Assembly, ThreadsGiveTheSameSumsWhereTheirNodesCannotBeNoted) {
  Twin twin;
  twin.AddElements();
  twin.Scale();
  omp_set_num_threads(3);
  ARRAYS::LargestBytes = 8;
  PREPARESYSMATRIXANDINTERNALFORCES();
  ARRAYS::LargestBytes = std::numeric_limits<std::int64_t>::max();
  twin.ExpectSystem(1e-12);
}

// Six equations: rows 1 to 3 full, the others diagonal. Couplings of 4, 5, 6 are not stored.
class Scatter : public SmallModel, public testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    SetStructure({1, 7, 12, 16, 17, 18, 19}, {1, 2, 3, 4, 5, 6, 2, 3, 4, 5, 6, 3, 4, 5, 6, 4, 5, 6},
                 GetParam());
    ClearSystem();
    for (int j = 0; j < 30; ++j)
      for (int i = 0; i < 30; ++i) matrix_[i + 30 * j] = 100.0 * (i + 1) + j + 1;
  }

  void Add(const std::vector<std::int32_t>& equations) {
    ElementDofs dofs;
    std::copy(equations.begin(), equations.end(), dofs);
    SOLVERSTA_ADDTOFFUSYM(static_cast<std::int32_t>(equations.size()), dofs, forces_, matrix_,
                          MaxElementDofs);
  }

  static double At(std::int64_t position) { return SOLVERSTA::SysMatrix[Slot(position)]; }

  ElementVector forces_ = {};
  ElementMatrix matrix_;
};

INSTANTIATE_TEST_SUITE_P(IndexWidths, Scatter, testing::Bool(),
                         [](const auto& width) { return width.param ? "Im4" : "Im8"; });

TEST_P(Scatter, MissedEntryLandsAtThePositionOfThePreviousAdd) {
  Add({4, 5, 6});  // (4, 5) and (4, 6) miss after the diagonal of 4
  EXPECT_EQ(At(16), 101.0 + 102.0 + 103.0);
  EXPECT_EQ(At(17), 202.0 + 203.0);
  EXPECT_EQ(At(18), 303.0);
}

TEST_P(Scatter, MissAfterAHitLandsAtTheHit) {
  Add({4, 1, 5});  // (1, 4) is found in row 1; (4, 5) misses and stays there
  EXPECT_EQ(At(16), 101.0);
  EXPECT_EQ(At(4), 102.0 + 103.0);
  EXPECT_EQ(At(1), 202.0);
  EXPECT_EQ(At(5), 203.0);  // (1, 5), found again
  EXPECT_EQ(At(17), 303.0);
}

TEST_P(Scatter, SkippedEquationBetweenDoesNotMoveThePosition) {
  Add({4, 0, 1, -2, 5});
  EXPECT_EQ(At(16), 101.0);
  EXPECT_EQ(At(4), 103.0 + 105.0);
}

TEST_P(Scatter, EqualEquationNumbersFallOnTheDiagonal) {
  Add({2, 2});
  EXPECT_EQ(At(7), 101.0 + 102.0 + 202.0);
}

TEST_P(Scatter, MatrixTermsCarryTheirColumnStride) {
  const double small[9] = {1, 0, 0, 2, 3, 0, 4, 5, 6};
  const ElementDofs dofs = {1, 2, 3};
  SOLVERSTA_ADDTOFFUSYM(3, dofs, forces_, small, 3);
  EXPECT_EQ(At(1), 1.0);
  EXPECT_EQ(At(2), 2.0);
  EXPECT_EQ(At(3), 4.0);
  EXPECT_EQ(At(7), 3.0);
  EXPECT_EQ(At(8), 5.0);
  EXPECT_EQ(At(12), 6.0);
}

TEST_P(Scatter, ConcurrentAddsToOneEntryLoseNothing) {
  constexpr int adds = 20000;
  forces_[0] = 1.0;
  matrix_[0] = 1.0;
  omp_set_num_threads(4);
#pragma omp parallel for
  for (int i = 0; i < adds; ++i) {
    const ElementDofs dofs = {1};
    SOLVERSTA_ADDTOFFUSYM(1, dofs, forces_, matrix_, MaxElementDofs);
  }
  EXPECT_EQ(At(1), adds);
  EXPECT_EQ(SOLVERSTA::SysForces[0], adds);
}

class Supports : public Assembly {
 protected:
  // Supports on the nodes of the clamped box's model.
  void SetSupports(const std::vector<NodalConstraintRecord>& supports) {
    std::vector<NodalConstraintRecord> rows = ClampedFace();
    rows.insert(rows.end(), supports.begin(), supports.end());
    SetModel(rows);
  }
};

INSTANTIATE_TEST_SUITE_P(IndexWidths, Supports, testing::Bool(),
                         [](const auto& width) { return width.param ? "Im4" : "Im8"; });

TEST_P(Supports, ForceIsStiffnessTimesGapAlongEachActiveAxis) {
  VKCORE::RunOptions.SupportStiffness = 50.0f;
  NodalConstraintRecord row = Support(FEMODEL::NumNodes, 5);
  row.Value[0] = 0.25f;
  row.Value[1] = 1000.0f;  // of an axis that isn't active
  row.Axis[0][0] = 0.6f;
  row.Axis[0][1] = 0.8f;
  row.Axis[2][2] = 1.0f;
  SetSupports({row});
  const std::int32_t last = FEDOF::NumEquations;
  const double u[3] = {0.1, 0.2, 0.3};
  for (int k = 0; k < 3; ++k) FEDOF::Displacements[last - 3 + k] = u[k];
  std::int32_t count = 0;
  ElementDofs dofs;
  ElementVector forces;
  SOLVERSTA_SUPPORTFORCE(1, FEDOF::Displacements.get(), count, dofs, forces);
  EXPECT_EQ(count, 3);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(dofs[k], last - 2 + k);
  const double g = u[0] * double{0.6f} + u[1] * double{0.8f} - 0.25;
  EXPECT_DOUBLE_EQ(forces[0], 50.0 * g * double{0.6f});
  EXPECT_DOUBLE_EQ(forces[1], 50.0 * g * double{0.8f});
  EXPECT_DOUBLE_EQ(forces[2], 50.0 * 0.3);
  for (int i = 3; i < 30; ++i) EXPECT_EQ(forces[i], 0.0);
}

TEST_P(Supports, MatrixIsTheUpperTriangleOfTheAxisProductsWithTheSameForces) {
  VKCORE::RunOptions.SupportStiffness = 2.0f;
  NodalConstraintRecord row = Support(FEMODEL::NumNodes, 3);
  row.Axis[0][0] = 0.5f;
  row.Axis[0][1] = -0.25f;
  row.Axis[0][2] = 1.0f;
  SetSupports({row});
  std::int32_t count = 0;
  ElementDofs dofs;
  double forces[3];
  ElementVector expected;
  SupportMatrix matrix;
  SOLVERSTA_SUPPORTFORCE(1, FEDOF::Displacements.get(), count, dofs, expected);
  SOLVERSTA_SUPPORTMATRIXANDFORCE(1, FEDOF::Displacements.get(), count, dofs, forces, matrix);
  const double n[2][3] = {{0.5, -0.25, 1.0}, {0.0, 1.0, 0.0}};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(forces[i], expected[i]);
    for (int j = 0; j < 3; ++j)
      EXPECT_EQ(matrix[i + 3 * j], i > j ? 0.0 : 2.0 * (n[0][i] * n[0][j] + n[1][i] * n[1][j]));
  }
}

TEST_P(Supports, DisplacementOfAPrescribedComponentComesFromItsRow) {
  NodalConstraintRecord row = Support(FEMODEL::NumNodes, 1);
  SetSupports({row, Prescribed(FEMODEL::NumNodes, 1, 0.5f)});
  std::int32_t count = 0;
  ElementDofs dofs;
  ElementVector forces;
  SOLVERSTA_SUPPORTFORCE(1, FEDOF::Displacements.get(), count, dofs, forces);
  EXPECT_EQ(forces[0], 0.5);
}

TEST_P(Supports, NodeWithOneFreeComponentAddsToThatDiagonalOnly) {
  VKCORE::RunOptions.SupportStiffness = 40.0f;
  const std::int32_t node = FEMODEL::NumNodes;
  SetSupports({Prescribed(node, 5), Support(node, 7)});
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e) FEMODEL::ElementFlags[e] = 0x100;
  FEDOF::Displacements[FEDOF::NumEquations - 1] = 0.5;
  PREPARESYSMATRIXANDINTERNALFORCES();
  const std::int32_t free = FEDOF::NodeDofMap[3 * Slot(node) + 1];
  ASSERT_EQ(free, FEDOF::NumEquations);
  for (std::int32_t i = 1; i <= SOLVERSTA::NumEquations; ++i) {
    EXPECT_EQ(SOLVERSTA::SysForces[i - 1], i == free ? 20.0 : 0.0);
    if (i == free)
      EXPECT_EQ(SOLVERSTA::SysScale[i - 1], 1.0 / std::sqrt(40.0));
    else
      EXPECT_TRUE(std::isinf(SOLVERSTA::SysScale[i - 1]));
  }
}

TEST_P(Supports, TwoSupportsOnOneNodeAddUpInBothPasses) {
  VKCORE::RunOptions.SupportStiffness = 10.0f;
  const std::int32_t node = FEMODEL::NumNodes;
  SetSupports({Support(node, 1), Support(node, 1)});
  ASSERT_EQ(FELOADCASE::NumSupports, 2);
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e) FEMODEL::ElementFlags[e] = 0x100;
  const std::int32_t equation = FEDOF::NumEquations - 2;
  FEDOF::Displacements[equation - 1] = 0.5;
  PREPARESYSINTERNALFORCES();
  EXPECT_EQ(SOLVERSTA::SysForces[equation - 1], 10.0);
  PREPARESYSMATRIXANDINTERNALFORCES();
  EXPECT_EQ(SOLVERSTA::SysForces[equation - 1], 10.0);
  EXPECT_EQ(SOLVERSTA::SysScale[equation - 1], 1.0 / std::sqrt(20.0));
}

}  // namespace
