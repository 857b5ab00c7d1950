#include <gtest/gtest.h>

#include <vector>

#include "elemlib/fegeom.hpp"
#include "support/small_model.hpp"

namespace {

// One element of each type on twelve nodes, and one of no type. The numbering is made by hand:
// node 1 fixed, node 2 prescribed by row 2, equations 1, 2, 3, ... from node 3 on.
class Fegeom : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    std::vector<NodeRecord> nodes;
    for (int i = 1; i <= 12; ++i) {
      const auto x = static_cast<float>(i);
      nodes.push_back({x, x + 0.25f, x + 0.5f});
    }
    SetNodes(nodes);
    SetMaterials({Steel()});
    FEMODEL::Conn40 = Copy(std::vector<ConnRecord<4>>{{{9, 9, 9, 9}}, {{4, 2, 1, 12}}});
    FEMODEL::Conn60 = Copy(std::vector<ConnRecord<8>>{{{8, 7, 6, 5, 4, 3, 2, 1}}});
    FEMODEL::Conn41 = Copy(std::vector<ConnRecord<10>>{{{1, 3, 5, 7, 9, 11, 2, 4, 6, 8}}});
    SetElements({{1, TypeTet4, 2}, {1, TypeHex8, 1}, {1, TypeTet10, 1}, {1, 50, 1}});
    SetConstraints({Prescribed(1, 7), Prescribed(2, 7, 0.1f, 0.2f, 0.3f)});
    std::vector<std::int32_t> map = {0, 0, 0, -2, -2, -2};
    for (std::int32_t equation = 1; equation <= 30; ++equation) map.push_back(equation);
    FEDOF::NodeDofMap = Copy(map);
    for (int i = 1; i <= 30; ++i) solution_.push_back(100.0 + i);
  }

  // By the definition, one value at a time.
  double Displacement(std::int32_t node, int k) const {
    const std::int32_t d = FEDOF::NodeDofMap[3 * Slot(node) + k];
    if (d > 0) return solution_[static_cast<std::size_t>(d - 1)];
    return d < 0 ? double{FEDOF::NodalConstraints[-d - 1].Value[k]} : 0.0;
  }

  void ExpectGather(std::int32_t element, const std::int32_t* nodes, int count) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector disp;
    FEGEOM_ELEMDOFS(element, dofCount, dofs);
    FEGEOM_ELEMDISP(element, solution_.data(), disp);
    EXPECT_EQ(dofCount, 3 * count);
    for (int i = 0; i < 3 * count; ++i) {
      EXPECT_EQ(dofs[i], FEDOF::NodeDofMap[3 * Slot(nodes[i / 3]) + i % 3]) << i;
      EXPECT_EQ(disp[i], Displacement(nodes[i / 3], i % 3)) << i;
    }
  }

  void ExpectCoordinates(const ElementVector& coords, const std::int32_t* nodes, int count) {
    for (int i = 0; i < count; ++i)
      for (int k = 0; k < 3; ++k) EXPECT_EQ(coords[3 * i + k], nodes[i] + 0.25 * k);
  }

  std::vector<double> solution_;
};

TEST_F(Fegeom, TetrahedronGathersTwelveEquationsAndDisplacementsNodeByNode) {
  ExpectGather(1, FEMODEL::Conn40[1].Node, 4);
}

TEST_F(Fegeom, HexahedronGathersTwentyFour) { ExpectGather(2, FEMODEL::Conn60[0].Node, 8); }

TEST_F(Fegeom, QuadraticTetrahedronGathersThirty) { ExpectGather(3, FEMODEL::Conn41[0].Node, 10); }

TEST_F(Fegeom, CoordinatesComeInConnectivityOrder) {
  ElementVector coords;
  FEGEOM_ELEMCOORDS_TET4(2, coords);
  ExpectCoordinates(coords, FEMODEL::Conn40[1].Node, 4);
  FEGEOM_ELEMCOORDS_HEX8(1, coords);
  ExpectCoordinates(coords, FEMODEL::Conn60[0].Node, 8);
  FEGEOM_ELEMCOORDS_TET10(1, coords);
  ExpectCoordinates(coords, FEMODEL::Conn41[0].Node, 10);
}

TEST_F(Fegeom, DisplacementsOfARowAreThoseOfItsElement) {
  ElementVector disp, expected;
  FEGEOM_ELEMDISP(2, solution_.data(), expected);
  FEGEOM_ELEMDISP_HEX8(1, solution_.data(), disp);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(disp[i], expected[i]) << i;
  FEGEOM_ELEMDISP(3, solution_.data(), expected);
  FEGEOM_ELEMDISP_TET10(1, solution_.data(), disp);
  for (int i = 0; i < 30; ++i) EXPECT_EQ(disp[i], expected[i]) << i;
}

TEST_F(Fegeom, UnknownTypeLeavesItsOutputsUnchanged) {
  std::int32_t dofCount = -5;
  ElementDofs dofs = {42};
  ElementVector disp = {1.5};
  FEGEOM_ELEMDOFS(4, dofCount, dofs);
  FEGEOM_ELEMDISP(4, solution_.data(), disp);
  EXPECT_EQ(dofCount, -5);
  EXPECT_EQ(dofs[0], 42);
  EXPECT_EQ(disp[0], 1.5);
}

TEST_F(Fegeom, PrescribedDisplacementIsReportedWhateverTheSolutionBecomes) {
  ElementVector disp;
  FEGEOM_ELEMDISP_TET4(2, solution_.data(), disp);
  for (double& u : solution_) u = -9.0;
  FEGEOM_ELEMDISP_TET4(2, solution_.data(), disp);
  EXPECT_EQ(disp[0], -9.0);          // node 4, free
  EXPECT_EQ(disp[3], double{0.1f});  // node 2, prescribed by x, y, z of its row
  EXPECT_EQ(disp[4], double{0.2f});
  EXPECT_EQ(disp[5], double{0.3f});
  EXPECT_EQ(disp[6], 0.0);  // node 1, fixed
}

TEST_F(Fegeom, NodeValuesAreWidenedInTheOrderOfTheNodes) {
  const float values[4] = {0.1f, 0.2f, 0.3f, 0.4f};
  const std::int32_t nodes[3] = {4, 1, 4};
  ElementScalars gathered = {0.0, 0.0, 0.0, 77.0};
  FEGEOM_NODEVALUES(values, nodes, 3, gathered);
  EXPECT_EQ(gathered[0], double{0.4f});
  EXPECT_EQ(gathered[1], double{0.1f});
  EXPECT_EQ(gathered[2], double{0.4f});
  EXPECT_EQ(gathered[3], 77.0);
}

}  // namespace
