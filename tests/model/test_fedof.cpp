#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <vector>

#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

using Fedof = WorkingDirectory;

void LoadModel(const ModelFiles& model = OneTetrahedron()) {
  WriteModel(model);
  FEMODEL_LOAD();
}

// The numbering under these constraints.
void Number(const std::vector<NodalConstraintRecord>& rows) {
  FEDOF::NumNodalConstraints = static_cast<std::int32_t>(rows.size());
  FEDOF::NodalConstraints = ARRAYS_ALLOCATE<NodalConstraintRecord>(FEDOF::NumNodalConstraints);
  std::copy(rows.begin(), rows.end(), FEDOF::NodalConstraints.get());
  FEDOF_BUILDNUMBERING();
}

std::vector<std::int32_t> DofMap() {
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  return {map, map + 3 * FEMODEL::NumNodes};
}

constexpr float Undefined = std::numeric_limits<float>::quiet_NaN();

}  // namespace

TEST_F(Fedof, EquationsAscendWithNodeAndDirection) {
  LoadModel();
  Number({Prescribed(2, 5)});
  EXPECT_EQ(DofMap(), (std::vector<std::int32_t>{1, 2, 3, 0, 4, 0, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(FEDOF::NumEquations, 10);
}

TEST_F(Fedof, NodesThatNoActiveElementTouchesGetNoEquations) {
  ModelFiles model = OneTetrahedron();
  model.nodes.insert(model.nodes.begin(), {7, 7, 7});
  model.nodeFlags.push_back(0);
  model.levelIndex = {0, 0, 0, 0, 0};
  model.conn40 = {{{2, 3, 4, 5}}};
  LoadModel(model);
  Number({});
  EXPECT_EQ(FEDOF::NumEquations, 12);
  EXPECT_EQ(DofMap()[0], 0);
  EXPECT_EQ(DofMap()[3], 1);
  EXPECT_EQ(FEDOF::NodeDofState[0], '?');
  EXPECT_EQ(FEDOF::NodeDofState[1], 56);
}

TEST_F(Fedof, EveryTypeOfElementMakesAllItsNodesActive) {
  ModelFiles model = OneTetrahedron();
  model.nodes.assign(22, {0, 0, 0});
  model.nodeFlags.assign(22, 0);
  model.levelIndex.assign(22, 0);
  model.elements = {{1, TypeTet10, 1}, {1, TypeHex8, 1}, {1, TypeTet4, 1}};
  model.elementFlags = {0, 0, 0};
  model.conn41 = {{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}};
  model.conn60 = {{{11, 12, 13, 14, 15, 16, 17, 18}}};
  model.conn40 = {{{19, 20, 21, 22}}};
  LoadModel(model);
  Number({});
  EXPECT_EQ(FEDOF::NumEquations, 66);
}

TEST_F(Fedof, ExcludedAndUnknownElementsMakeNoNodeActive) {
  ModelFiles model = OneTetrahedron();
  model.nodes.assign(12, {0, 0, 0});
  model.nodeFlags.assign(12, 0);
  model.levelIndex.assign(12, 0);
  model.elements = {{1, TypeTet4, 1}, {1, TypeTet4, 2}, {1, 42, 2}};
  model.elementFlags = {0, 4, 0};
  model.conn40 = {{{1, 2, 3, 4}}, {{5, 6, 7, 8}}};
  LoadModel(model);
  Number({});
  EXPECT_EQ(FEDOF::NumEquations, 12);
}

TEST_F(Fedof, PrescribedValueRefersToItsRow) {
  LoadModel();
  Number({Prescribed(1, 7), Prescribed(4, 4, 9.0f, 9.0f, 0.25f)});
  EXPECT_EQ(DofMap(), (std::vector<std::int32_t>{0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, -2}));
}

TEST_F(Fedof, PrescribedZeroOfEitherSignIsFixedWithoutReference) {
  LoadModel();
  Number({Prescribed(1, 3, 0.0f, -0.0f)});
  EXPECT_EQ(DofMap()[0], 0);
  EXPECT_EQ(DofMap()[1], 0);
}

TEST_F(Fedof, PrescribedUndefinedValueCountsAsNonZero) {
  LoadModel();
  Number({Prescribed(1, 1, Undefined)});
  EXPECT_EQ(DofMap()[0], -1);
}

TEST_F(Fedof, LaterRowWinsInEachDirection) {
  LoadModel();
  Number({Prescribed(1, 7, 1.0f, 1.0f, 1.0f), Prescribed(1, 3, 2.0f, 0.0f)});
  EXPECT_EQ(DofMap()[0], -2);
  EXPECT_EQ(DofMap()[1], 0);
  EXPECT_EQ(DofMap()[2], -1);
}

TEST_F(Fedof, EmptyMaskChangesNothing) {
  LoadModel();
  Number({Prescribed(1, 0, 1.0f, 1.0f, 1.0f), Prescribed(1, 0xFFF8, 1.0f)});
  EXPECT_EQ(FEDOF::NumEquations, 12);
}

TEST_F(Fedof, UntouchedNodeKeepsThePrescribedReferenceButGetsNoEquation) {
  ModelFiles model = OneTetrahedron();
  model.nodes.push_back({7, 7, 7});
  model.nodeFlags.push_back(0);
  model.levelIndex.push_back(0);
  LoadModel(model);
  Number({Prescribed(5, 2, 0.0f, 0.5f)});
  EXPECT_EQ(FEDOF::NumEquations, 12);
  EXPECT_EQ(DofMap()[12], 0);
  EXPECT_EQ(DofMap()[13], -1);
  EXPECT_EQ(DofMap()[14], 0);
}

TEST_F(Fedof, DofValueIsSolvedPrescribedOrZero) {
  LoadModel();
  Number({Prescribed(1, 4, 0, 0, 0.5f)});
  const double solution[] = {10.0, 20.0};
  EXPECT_EQ(FEDOF_VALUE(2, 0, solution), 20.0);
  EXPECT_EQ(FEDOF_VALUE(-1, 2, solution), 0.5);
  EXPECT_EQ(FEDOF_VALUE(0, 0, solution), 0.0);
}

TEST_F(Fedof, SupportsFixNothing) {
  LoadModel();
  Number({Support(4), Prescribed(1, 7), Support(2)});
  EXPECT_EQ(DofMap(), (std::vector<std::int32_t>{0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(Fedof, HighestPrescribingRowIsRemembered) {
  LoadModel();
  Number({Prescribed(1, 1, 0.5f), Prescribed(2, 1, 0.5f), Prescribed(3, 1)});
  EXPECT_EQ(FEDOF::LastPrescribingRow, 2);
  Number({Prescribed(1, 7)});
  EXPECT_EQ(FEDOF::LastPrescribingRow, 0);
}

TEST_F(Fedof, NoNumberingAndNoEquationsAreRefused) {
  constexpr const char* message =
      "1010: Structure with no degrees of freedom. Check displacement boundary conditions.\n";
  EXPECT_EXIT(FEDOF_REQUIREEQUATIONS(), StopsWith(StopError), message);
  LoadModel();
  Number({Prescribed(1, 7), Prescribed(2, 7), Prescribed(3, 7), Prescribed(4, 7)});
  EXPECT_EXIT(FEDOF_REQUIREEQUATIONS(), StopsWith(StopError), message);
  Number({});
  FEDOF_REQUIREEQUATIONS();
}
