#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "elements/feelem.hpp"
#include "elements/fekernel.hpp"
#include "elemlib/femat.hpp"
#include "support/small_model.hpp"

namespace {

// What a kernel takes, gathered here value by value.
struct Gathered {
  MaterialLoadData loadData;
  MaterialConstants stiffness;
  ElementVector coords;
  ElementScalars phi;
  ElementVector disp;
  ElementScalars scalars;
};

// A cube's corners in hexahedron order, then mid-edge nodes of the tetrahedron 1, 2, 4, 5.
// Elements: 1 that tetrahedron, 2 the cube, 3 the tetrahedron with its mid-edge nodes, 4 of no
// type.
class Feelem : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    SetNodes({{0, 0, 0},
              {1, 0, 0},
              {1, 1, 0},
              {0, 1, 0},
              {0, 0, 1},
              {1, 0, 1},
              {1, 1, 1},
              {0, 1, 1},
              {0.5f, 0, 0},
              {0.5f, 0.5f, 0},
              {0, 0.5f, 0},
              {0, 0, 0.5f},
              {0.5f, 0, 0.5f},
              {0, 0.5f, 0.5f}});
    SetMaterials({Steel()});
    FEMODEL::Conn40 = Copy(std::vector<ConnRecord<4>>{{{1, 2, 4, 5}}});
    FEMODEL::Conn60 = Copy(std::vector<ConnRecord<8>>{{{1, 2, 3, 4, 5, 6, 7, 8}}});
    FEMODEL::Conn41 = Copy(std::vector<ConnRecord<10>>{{{1, 2, 4, 5, 9, 10, 11, 12, 13, 14}}});
    SetElements({{1, TypeTet4, 1}, {1, TypeHex8, 1}, {1, TypeTet10, 1}, {1, 77, 1}});
    SetConstraints({Prescribed(2, 7, 0.01f, 0.0f, -0.02f)});
    FEMODEL::ElementFlags[3] = 0;
    SetNumbering();
    for (std::int32_t i = 0; i < FEDOF::NumEquations; ++i)
      FEDOF::Displacements[i] = 0.001 * std::sin(3.0 * i);
    for (std::int32_t i = 0; i < FEMODEL::NumNodes; ++i)
      FEMODEL::NodeTpFactor[i] = 0.3f * static_cast<float>(std::cos(i));
    FELOADCASE::NodalScalars = Copy(std::vector<float>(14, 25.0f));
    FEINTEG_INITTETRULES();
    COMPSAVE_INITRESPONSE(3, FEMODEL::NumNodes);
  }

  // One element only takes part.
  void Keep(std::int32_t element) {
    for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e)
      FEMODEL::ElementFlags[Slot(e)] = e == element ? 0 : 0x100;
  }

  MaterialRecord& Material() { return FEMODEL::Materials[0]; }

  void SetMaterial(std::uint32_t flags) {
    Material().MaterialFlags = flags;
    FEMAT_BUILDSTIFFNESS();
  }

  Gathered Gather(std::int32_t element, float factor, int levels) {
    Gathered g;
    const ElementRecord& record = FEMODEL::Elements[Slot(element)];
    const std::int32_t* nodes = FEMODEL_NODES(record);
    const int count = FEMODEL_NODECOUNT(record.TypeCode);
    FEMAT_GETPROPS(1, factor, g.loadData, g.stiffness);
    for (double& f : g.phi) f = 1.0;
    for (int i = 0; i < count; ++i) {
      const NodeRecord& node = FEMODEL::NodeCoords[Slot(nodes[i])];
      g.coords[3 * i] = double{node.X};
      g.coords[3 * i + 1] = double{node.Y};
      g.coords[3 * i + 2] = double{node.Z};
      for (int k = 0; k < 3; ++k) {
        const std::int32_t d = FEDOF::NodeDofMap[3 * Slot(nodes[i]) + k];
        g.disp[3 * i + k] = d > 0   ? FEDOF::Displacements[d - 1]
                            : d < 0 ? double{FEDOF::NodalConstraints[0].Value[k]}
                                    : 0.0;
      }
      if (i < levels) g.phi[i] = double{FEMODEL::NodeTpFactor[Slot(nodes[i])]};
      g.scalars[i] =
          VKCORE::NoNodalScalars ? 0.0 : double{FELOADCASE::NodalScalars[Slot(nodes[i])]};
    }
    return g;
  }

  void KernelForces(std::int32_t element, const Gathered& g, ElementVector& forces) {
    if (element == 1)
      FEKERNEL_TET4_FORCES(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, forces);
    if (element == 2)
      FEKERNEL_HEX8_FORCES(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, forces);
    if (element == 3)
      FEKERNEL_TET10_FORCES(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, forces);
  }

  void ExpectForces(std::int32_t element, const Gathered& g) {
    ElementVector expected;
    KernelForces(element, g, expected);
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    FEELEM_INTERNALFORCES(element, FEDOF::Displacements.get(), dofCount, dofs, forces);
    for (int i = 0; i < dofCount; ++i) EXPECT_EQ(forces[i], expected[i]) << i;
  }

  // R1 .. R9 of an element of the model as it stands.
  std::vector<double> Response(std::int32_t element, float factor) {
    const Gathered g = Gather(element, factor, element == 2 ? 8 : 4);
    ElementResponse r;
    if (element == 1)
      FEKERNEL_TET4_RESPONSE(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, r);
    if (element == 2)
      FEKERNEL_HEX8_RESPONSE(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, r);
    if (element == 3)
      FEKERNEL_TET10_RESPONSE(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars, r);
    return {r, r + 9};
  }

  void RunResponse() { FEELEM_RESPONSE(FEDOF::Displacements.get(), totals_); }

  // A pure stretch or compression of every node along x.
  void Stretch(double strain) {
    for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node)
      for (int k = 0; k < 3; ++k)
        if (const std::int32_t d = FEDOF::NodeDofMap[3 * node + k]; d > 0)
          FEDOF::Displacements[d - 1] = k == 0 ? strain * double{FEMODEL::NodeCoords[node].X} : 0.0;
    FEDOF::NodalConstraints[0] = Prescribed(2, 7, static_cast<float>(strain));
  }

  void SetLevel(float value) {
    for (std::int32_t i = 0; i < FEMODEL::NumNodes; ++i) FEMODEL::NodeTpFactor[i] = value;
  }

  ResponseTotals totals_;
};

TEST_F(Feelem, ForcesOfEachTypeAreTheKernelsOfTheGatheredData) {
  ExpectForces(1, Gather(1, 1.0f, 4));
  ExpectForces(2, Gather(2, 1.0f, 8));
  ExpectForces(3, Gather(3, 1.0f, 4));
}

TEST_F(Feelem, MatrixOperationDeliversTheSameForcesAndTheKernelsMatrix) {
  for (std::int32_t element = 1; element <= 3; ++element) {
    std::int32_t dofCount = 0;
    ElementDofs dofs, dofsOfForces;
    ElementVector forces, expected, kernelForces;
    ElementMatrix matrix, kernelMatrix;
    FEELEM_INTERNALFORCES(element, FEDOF::Displacements.get(), dofCount, dofsOfForces, expected);
    FEELEM_MATRIXANDFORCES(element, FEDOF::Displacements.get(), dofCount, dofs, forces, matrix);
    const Gathered g = Gather(element, 1.0f, element == 2 ? 8 : 4);
    if (element == 1)
      FEKERNEL_TET4_MATRIX(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars,
                           kernelForces, kernelMatrix);
    if (element == 2)
      FEKERNEL_HEX8_MATRIX(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars,
                           kernelForces, kernelMatrix);
    if (element == 3)
      FEKERNEL_TET10_MATRIX(g.loadData, g.stiffness, g.coords, g.phi, g.disp, g.scalars,
                            kernelForces, kernelMatrix);
    for (int i = 0; i < dofCount; ++i) {
      EXPECT_EQ(dofs[i], dofsOfForces[i]);
      EXPECT_EQ(forces[i], expected[i]);
      for (int j = i; j < dofCount; ++j)
        EXPECT_EQ(matrix[i + 30 * j], kernelMatrix[i + 30 * j]) << i << " " << j;
    }
  }
}

TEST_F(Feelem, ElementThatIgnoresTheLevelComputesWithOnes) {
  FEMODEL::ElementFlags[0] = ElementIgnoresLevel;
  FEMODEL::ElementFlags[1] = ElementIgnoresLevel;
  ExpectForces(1, Gather(1, 1.0f, 0));
  ExpectForces(2, Gather(2, 1.0f, 0));
}

TEST_F(Feelem, QuadraticTetrahedronReadsTheLevelAtItsCornersOnly) {
  const Gathered before = Gather(3, 1.0f, 4);
  for (std::int32_t node = 9; node <= 14; ++node) FEMODEL::NodeTpFactor[Slot(node)] = -50.0f;
  ExpectForces(3, before);
}

TEST_F(Feelem, BoundaryStressOfAQuadraticTetrahedronLooksAtFourLevels) {
  Keep(3);
  SetLevel(1.0f);
  for (std::int32_t node = 9; node <= 14; ++node) FEMODEL::NodeTpFactor[Slot(node)] = -1.0f;
  RunResponse();
  EXPECT_EQ(totals_[TotalBoundaryStress],
            0.0);  // four equal levels: no boundary, whatever the mid-edge nodes hold
}

TEST_F(Feelem, TemperaturesAreGatheredAtAllNodesWhenTheLoadCaseHasThem) {
  Material().Expansion = 1e-3f;
  VKCORE::NoNodalScalars = false;
  for (std::int32_t element = 1; element <= 3; ++element)
    ExpectForces(element, Gather(element, 1.0f, element == 2 ? 8 : 4));
}

TEST_F(Feelem, LoadCaseWithoutTemperaturesComputesWithZerosThoughAnEarlierOneHadThem) {
  Material().Expansion = 1e-3f;
  VKCORE::NoNodalScalars = true;
  FELOADCASE::NodalScalars[0] = 1e6f;
  Gathered g = Gather(1, 1.0f, 4);
  for (int i = 0; i < 4; ++i) g.scalars[i] = 0.0;
  ExpectForces(1, g);
}

TEST_F(Feelem, CompressionOnlyTakesTheElementStateWhateverTheYieldOption) {
  SetMaterial(MaterialCompressionOnly);
  FELOADCASE::ElementState[0] = 0.25f;
  VKCORE::RunOptions.YieldStressFac = 0.0f;
  ExpectForces(1, Gather(1, 0.25f, 4));
}

TEST_F(Feelem, YieldingTakesTheElementStateWhileTheYieldOptionIsPositive) {
  SetMaterial(MaterialYielding);
  FELOADCASE::ElementState[0] = 0.25f;
  ExpectForces(1, Gather(1, 0.25f, 4));
}

TEST_F(Feelem, YieldingIsPlainElasticWithTheYieldOptionAtZero) {
  SetMaterial(MaterialYielding);
  FELOADCASE::ElementState[0] = 0.25f;
  VKCORE::RunOptions.YieldStressFac = 0.0f;
  ExpectForces(1, Gather(1, 1.0f, 4));
}

TEST_F(Feelem, OtherMaterialsTakeTheFactorOne) {
  FELOADCASE::ElementState[0] = 0.25f;
  ExpectForces(1, Gather(1, 1.0f, 4));
}

TEST_F(Feelem, UnknownTypeRunsNoKernelAndLeavesOutputsAlone) {
  std::int32_t dofCount = 7;
  ElementDofs dofs = {5};
  ElementVector forces = {2.5};
  ElementMatrix matrix = {3.5};
  FEELEM_INTERNALFORCES(4, FEDOF::Displacements.get(), dofCount, dofs, forces);
  FEELEM_MATRIXANDFORCES(4, FEDOF::Displacements.get(), dofCount, dofs, forces, matrix);
  EXPECT_EQ(dofCount, 7);
  EXPECT_EQ(dofs[0], 5);
  EXPECT_EQ(forces[0], 2.5);
  EXPECT_EQ(matrix[0], 3.5);
}

TEST_F(Feelem, UnknownTypeIsPassedOverByTheResponse) {
  Keep(4);
  RunResponse();
  for (const int i : {0, 1, 2, 3, 5, 6, 7}) EXPECT_EQ(totals_[i], 0.0) << i;
}

TEST_F(Feelem, ElementsFlaggedInBitTwoOrEightTakeNoPartInTheResponse) {
  for (std::int32_t e = 0; e < 4; ++e) FEMODEL::ElementFlags[e] = 0x100;
  FEMODEL::ElementFlags[1] = 0x4;
  RunResponse();
  EXPECT_EQ(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(totals_[TotalBoundaryStress], 0.0);
  EXPECT_TRUE(std::isnan(totals_[TotalSharpShare]));  // no volume at all
  for (int node = 0; node < 14; ++node) EXPECT_EQ(RESPONSE::AmsCounts[node], 0);
}

// The response written down step by step.
struct TwinSums {
  double totals[8] = {};
  double weight = 0.0, power = 0.0;
  std::vector<float> tc, ams, signs;
  std::vector<int> tcCounts, amsCounts;
};

class FeelemResponse : public Feelem {
 protected:
  void SetUp() override {
    Feelem::SetUp();
    sums_.tc.assign(3, 0.0f);
    sums_.tcCounts.assign(3, 0);
    sums_.ams.assign(14, 0.0f);
    sums_.signs.assign(14, 0.0f);
    sums_.amsCounts.assign(14, 0);
    for (int node = 0; node < 14; ++node) FEMODEL::NodeTpIndex[node] = node % 5 - 1;
    FEMODEL::NumTp = 3;
  }

  void AddTwin(std::int32_t element) {
    const std::vector<double> R = Response(element, 1.0f);
    const auto r = [&R](int i) { return R[static_cast<std::size_t>(i - 1)]; };
    const double limit = double{Material().LimitStress};
    const double ratio = r(3) / r(1), stress = r(7) / r(3), mean = r(8) / r(3);
    sums_.totals[TotalEnergy] += r(6);
    const double f = r(8) < 0 ? limit : r(8) > 0 ? 1.0 / limit : 1.0;
    const double W = 0.10000000149011612 * r(1) + 0.8999999761581421 * r(2);
    const double c =
        VKCORE::RunOptions.TopCriteriaCode == 0 ? r(4) / W * f : r(5) / W * std::sqrt(f);
    const ElementRecord& record = FEMODEL::Elements[Slot(element)];
    const std::int32_t* nodes = FEMODEL_NODES(record);
    for (int i = 0; i < FEMODEL_NODECOUNT(record.TypeCode); ++i) {
      const auto node = static_cast<std::size_t>(Slot(nodes[i]));
      if (const std::int32_t a = FEMODEL::NodeTpIndex[Slot(nodes[i])]; a > 0) {
        float& sum = sums_.tc[static_cast<std::size_t>(a - 1)];
        sum = static_cast<float>(double{sum} + c);
        ++sums_.tcCounts[static_cast<std::size_t>(a - 1)];
      }
      if (!(ratio > 0.5)) continue;
      sums_.ams[node] = static_cast<float>(double{sums_.ams[node]} + stress);
      sums_.signs[node] = static_cast<float>(double{sums_.signs[node]} + mean);
      ++sums_.amsCounts[node];
    }
    if ((FEMODEL::ElementFlags[Slot(element)] & ElementIgnoresLevel) != 0) return;
    for (int i = 1; i <= 3; ++i) sums_.totals[i] += r(i);
    AddTwinBoundary(element, ratio, stress, r(8), limit);
  }

  void AddTwinBoundary(std::int32_t element, double ratio, double stress, double r8, double limit) {
    const Gathered g = Gather(element, 1.0f, element == 2 ? 8 : 4);
    const int levels = element == 2 ? 8 : 4;
    const double p = *std::max_element(g.phi, g.phi + levels);
    const double q = *std::min_element(g.phi, g.phi + levels);
    if (ratio < 0.5 || !(p > 0)) return;
    const double w = q < 0 ? 1.0 : std::pow(p - q, 32);
    if (w == 0) return;
    sums_.totals[TotalLargestStress] = std::max(sums_.totals[TotalLargestStress], stress);
    sums_.weight += w;
    double x = stress * w;
    if (r8 > 0) x /= limit;
    sums_.power += w * std::pow(x, VKCORE::RunOptions.BStressExp);
  }

  void ExpectTwin() {
    RunResponse();
    if (sums_.weight == 0) sums_.weight = 1;
    sums_.totals[TotalSharpShare] = sums_.totals[TotalSharpVolume] / sums_.totals[TotalVolume];
    sums_.totals[TotalBoundaryStress] =
        std::pow(sums_.power / sums_.weight, 1.0 / VKCORE::RunOptions.BStressExp);
    for (int i = 0; i < 8; ++i)
      EXPECT_NEAR(totals_[i], sums_.totals[i], 1e-12 * std::fabs(sums_.totals[i])) << i;
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(RESPONSE::TcValues[i], sums_.tc[i]) << i;
      EXPECT_EQ(RESPONSE::TcCounts[i], sums_.tcCounts[i]) << i;
    }
    for (std::size_t i = 0; i < 14; ++i) {
      EXPECT_EQ(RESPONSE::AmsValues[i], sums_.ams[i]) << i;
      EXPECT_EQ(RESPONSE::AmsSigns[i], sums_.signs[i]) << i;
      EXPECT_EQ(RESPONSE::AmsCounts[i], sums_.amsCounts[i]) << i;
    }
  }

  TwinSums sums_;
};

TEST_F(FeelemResponse, AccumulatesAllTypesByTheEnergyCriterion) {
  Material().LimitStress = 3.0f;
  for (std::int32_t e = 1; e <= 3; ++e) AddTwin(e);
  ExpectTwin();
}

TEST_F(FeelemResponse, StressCriterionTakesTheRootOfTheStrengthFactor) {
  Material().LimitStress = 3.0f;
  VKCORE::RunOptions.TopCriteriaCode = 1;
  for (std::int32_t e = 1; e <= 3; ++e) AddTwin(e);
  ExpectTwin();
}

TEST_F(FeelemResponse, StrengthFactorMultipliesUnderCompressionAndDividesUnderTension) {
  Material().LimitStress = 4.0f;
  Keep(1);
  SetLevel(1.0f);
  FEMODEL::NodeTpIndex[0] = 1;
  for (const double sign : {1.0, -1.0}) {
    Stretch(sign * 0.01);
    const std::vector<double> R = Response(1, 1.0f);
    ASSERT_GT(sign * R[7], 0.0);
    const double W = 0.10000000149011612 * R[0] + 0.8999999761581421 * R[1];
    COMPSAVE_INITRESPONSE(3, FEMODEL::NumNodes);
    RunResponse();
    EXPECT_EQ(RESPONSE::TcValues[0], static_cast<float>(R[3] / W * (sign > 0 ? 0.25 : 4.0)));
  }
}

TEST_F(FeelemResponse, MeanStressOfZeroTakesTheStrengthFactorOne) {
  Material().LimitStress = 0.0f;  // any other factor would be 0 or infinite
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.0);
  FEMODEL::NodeTpIndex[0] = 1;
  RunResponse();
  EXPECT_EQ(RESPONSE::TcValues[0], 0.0f);
  EXPECT_EQ(RESPONSE::TcCounts[0], 1);
}

TEST_F(FeelemResponse, WholeLevelFieldInOneSignWeighsByTheThirtySecondPowerOfTheDifference) {
  SetLevel(0.4f);
  FEMODEL::NodeTpFactor[0] = 1.2f;
  VKCORE::RunOptions.BStressExp = 7;
  for (std::int32_t e = 1; e <= 3; ++e) AddTwin(e);
  ASSERT_GT(sums_.power, 0.0);
  ExpectTwin();
}

TEST_F(FeelemResponse, ElementThatIgnoresTheLevelCountsInEnergyAndNodesButNotInVolumes) {
  FEMODEL::ElementFlags[0] = ElementIgnoresLevel;
  for (std::int32_t e = 1; e <= 3; ++e)
    if (e != 1) AddTwin(e);
  // The twin gathers levels; give element 1 ones to gather.
  TwinSums others = sums_;
  FEMODEL::ElementFlags[1] = FEMODEL::ElementFlags[2] = 0x100;
  std::vector<float> levels(FEMODEL::NodeTpFactor.get(), FEMODEL::NodeTpFactor.get() + 14);
  SetLevel(1.0f);
  sums_ = {};
  sums_.tc.assign(3, 0.0f);
  sums_.tcCounts.assign(3, 0);
  sums_.ams.assign(14, 0.0f);
  sums_.signs.assign(14, 0.0f);
  sums_.amsCounts.assign(14, 0);
  AddTwin(1);
  SetLevel(-5.0f);  // would leave no material, if it were read
  RunResponse();
  EXPECT_GT(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(totals_[TotalEnergy], sums_.totals[TotalEnergy]);
  for (const int i : {1, 2, 3, 5, 6}) EXPECT_EQ(totals_[i], 0.0) << i;
  for (std::size_t i = 0; i < 14; ++i) EXPECT_EQ(RESPONSE::AmsValues[i], sums_.ams[i]) << i;
}

TEST_F(FeelemResponse, NoElementAtTheBoundaryGivesABoundaryStressOfZero) {
  SetLevel(1.0f);
  RunResponse();
  EXPECT_GT(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(totals_[TotalBoundaryStress], 0.0);
  EXPECT_EQ(totals_[TotalLargestStress], 0.0);
}

TEST_F(FeelemResponse, TotalSevenStaysZeroAndTotalFourIsTheMaterialShare) {
  RunResponse();
  EXPECT_EQ(totals_[TotalUnused], 0.0);
  EXPECT_EQ(totals_[TotalSharpShare], totals_[TotalSharpVolume] / totals_[TotalVolume]);
}

TEST_F(FeelemResponse, NoElementsAtAllGiveZeroBoundaryStress) {
  FEMODEL::NumElements = 0;
  RunResponse();
  EXPECT_EQ(totals_[TotalBoundaryStress], 0.0);
  EXPECT_TRUE(std::isnan(totals_[TotalSharpShare]));
}

// Level values of element 1 at which its material share, as computed, is exactly one half: near a
// level of zero the presence is almost linear, so one coarse and one tiny level reach any share.
bool FindHalfShare(const std::function<double(float, float)>& share, float& coarse, float& fine) {
  float low = -0.1f, high = 0.0f;
  while (std::nextafter(low, high) < high && 0.5f * (low + high) != low &&
         0.5f * (low + high) != high) {
    const float middle = 0.5f * (low + high);
    (share(middle, 1e-30f) < 0.5 ? low : high) = middle;
  }
  coarse = low;
  float below = 1e-30f, above = 1e-7f;
  for (int i = 0; i < 100; ++i) {
    fine = 0.5f * (below + above);
    const double s = share(coarse, fine);
    if (s == 0.5) return true;
    (s < 0.5 ? below : above) = fine;
  }
  return false;
}

TEST_F(FeelemResponse, ShareOfExactlyOneHalfTakesPartInTheBoundaryStressAndNotInTheNodes) {
  Keep(1);
  Stretch(0.01);
  VKCORE::RunOptions.MatSlopeFactor = 0.001f;
  const auto share = [this](float coarse, float fine) {
    SetLevel(coarse);
    FEMODEL::NodeTpFactor[1] = fine;
    const std::vector<double> R = Response(1, 1.0f);
    return R[2] / R[0];
  };
  float coarse = 0.0f, fine = 0.0f;
  ASSERT_TRUE(FindHalfShare(share, coarse, fine));
  ASSERT_EQ(share(coarse, fine), 0.5);
  RunResponse();
  EXPECT_GT(totals_[TotalBoundaryStress], 0.0);
  EXPECT_GT(totals_[TotalLargestStress], 0.0);
  for (int node = 0; node < 14; ++node) EXPECT_EQ(RESPONSE::AmsCounts[node], 0);
}

TEST_F(FeelemResponse, ShareBelowOneHalfTakesPartInNeither) {
  Keep(1);
  Stretch(0.01);
  SetLevel(-1.0f);
  FEMODEL::NodeTpFactor[1] = 0.1f;
  RunResponse();
  EXPECT_GT(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(totals_[TotalBoundaryStress], 0.0);
  EXPECT_EQ(RESPONSE::AmsCounts[0], 0);
}

TEST_F(FeelemResponse, CompressionOnlyUnderStretchLosesStiffnessDownToAThousandth) {
  SetMaterial(MaterialCompressionOnly);
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.01);
  float& state = FELOADCASE::ElementState[0];
  RunResponse();
  EXPECT_EQ(state, 1.0f / 10.0f);
  for (int i = 0; i < 3; ++i) RunResponse();
  EXPECT_EQ(state, 0.001f);
}

TEST_F(FeelemResponse, CompressionOnlyUnderPressureRegainsStiffnessUpToOne) {
  SetMaterial(MaterialCompressionOnly);
  Keep(1);
  SetLevel(1.0f);
  Stretch(-0.01);
  float& state = FELOADCASE::ElementState[0];
  state = 0.03f;
  RunResponse();
  EXPECT_EQ(state, 0.03f * 10.0f);
  RunResponse();
  EXPECT_EQ(state, 1.0f);
}

TEST_F(FeelemResponse, CompressionOnlyWithoutAnyStrainIsMultipliedNotDivided) {
  SetMaterial(MaterialCompressionOnly);
  Keep(1);
  Stretch(0.0);
  FELOADCASE::ElementState[0] = 0.05f;
  ASSERT_EQ(Response(1, 0.05f)[8], 0.0);
  RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.05f * 10.0f);
}

TEST_F(FeelemResponse, CompressionOnlyReachesNoTotalAndNoNode) {
  SetMaterial(MaterialCompressionOnly);
  Stretch(-0.01);
  RunResponse();
  for (const int i : {0, 1, 2, 3, 5, 6}) EXPECT_EQ(totals_[i], 0.0) << i;
  for (int node = 0; node < 14; ++node) EXPECT_EQ(RESPONSE::AmsCounts[node], 0);
  for (int tc = 0; tc < 3; ++tc) EXPECT_EQ(RESPONSE::TcCounts[tc], 0);
}

TEST_F(FeelemResponse, YieldingAboveYieldMovesHalfwayToTheSecantOfTheTwoSlopeLine) {
  SetMaterial(MaterialYielding);
  Material().YieldStress = 2.0f;
  Material().HardeningRatio = 0.1f;
  VKCORE::RunOptions.YieldStressFac = 1.5f;
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.02);
  FELOADCASE::ElementState[0] = 0.8f;
  const std::vector<double> R = Response(1, 0.8f);
  const double Y = double{2.0f} * double{1.5f};
  const double e = R[6] / R[2] / double{0.8f};
  ASSERT_GT(e, Y);
  const double s = (Y + double{0.1f} * (e - Y)) / e;
  RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], static_cast<float>((double{0.8f} + s) * 0.5));
}

TEST_F(FeelemResponse, YieldingBelowYieldRecoversToOne) {
  SetMaterial(MaterialYielding);
  Material().YieldStress = 1e6f;
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.02);
  FELOADCASE::ElementState[0] = 0.4f;
  for (int i = 0; i < 3; ++i) RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 1.0f);
}

TEST_F(FeelemResponse, YieldingFarAboveYieldIsHeldAtAThousandth) {
  SetMaterial(MaterialYielding);
  Material().YieldStress = 1e-6f;
  Material().HardeningRatio = 0.0f;
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.02);
  for (int i = 0; i < 20; ++i) RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.001f);
}

TEST_F(FeelemResponse, YieldStateStaysWithoutYieldStressOrWithoutStress) {
  SetMaterial(MaterialYielding);
  Keep(1);
  SetLevel(1.0f);
  FELOADCASE::ElementState[0] = 0.4f;
  Stretch(0.02);
  Material().YieldStress = 0.0f;
  RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.4f);
  Material().YieldStress = 1.0f;
  Stretch(0.0);
  RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.4f);
  Stretch(0.02);
  VKCORE::RunOptions.YieldStressFac = 0.0f;
  RunResponse();
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.4f);
}

TEST_F(FeelemResponse, YieldingElementStillReachesTotalsAndNodes) {
  SetMaterial(MaterialYielding);
  Material().YieldStress = 1e6f;
  Keep(1);
  SetLevel(1.0f);
  Stretch(0.02);
  RunResponse();
  EXPECT_GT(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(RESPONSE::AmsCounts[0], 1);
}

TEST_F(FeelemResponse, CountersWrapBeyond32767Contributions) {
  constexpr std::size_t contributions = 32768;
  SetElements(std::vector<ElementRecord>(contributions, {1, TypeTet4, 1}));
  SetLevel(1.0f);
  FEMODEL::NodeTpIndex[0] = 1;
  RunResponse();
  EXPECT_EQ(RESPONSE::AmsCounts[0], -32768);
  EXPECT_EQ(RESPONSE::TcCounts[0], -32768);
  const float sum = RESPONSE::AmsValues[0];
  COMPSAVE_REDUCEAMS();
  EXPECT_EQ(RESPONSE::AmsValues[0], sum);  // neither averaged nor cleared
}

TEST_F(FeelemResponse, DegenerateElementLetsUndefinedValuesFlowOn) {
  Keep(1);
  SetLevel(1.0f);
  FEMODEL::NodeCoords[4] = FEMODEL::NodeCoords[0];  // no volume
  RunResponse();
  EXPECT_FALSE(std::isfinite(totals_[TotalEnergy]));
}

}  // namespace
