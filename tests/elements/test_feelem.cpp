#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
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
  for (const int i : {TotalEnergy, TotalVolume, TotalSmoothVolume, TotalSharpVolume,
                      TotalBoundaryStress, TotalLargestStress, TotalUnused})
    EXPECT_EQ(totals_[i], 0.0) << i;
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

// What a uniform strain along x leaves in every element, by Hooke's law: the moduli of Steel are
// 1200 and 400. `factor` scales the stiffness.
struct UniformState {
  double energy, stress, meanStress;

  explicit UniformState(double strain, double factor = 1.0)
      : energy(0.5 * 1200.0 * factor * strain * strain),
        stress((1200.0 - 400.0) * factor * std::fabs(strain)),
        meanStress((1200.0 + 2.0 * 400.0) / 3.0 * factor * strain) {}
};

// The presence laws at the scaled level k F.
double PresenceAt(double scaledLevel) {
  const double floor = double{0.001f};
  return (std::atan(scaledLevel) / M_PI + 0.5) * (1.0 - floor) + floor;
}

void ExpectClose(double value, double expected, const char* what) {
  EXPECT_NEAR(value, expected, 1e-10 * std::fabs(expected)) << what;
}

// Volumes of elements 1, 2, 3; a cube, and a corner of it twice.
constexpr double Volumes[3] = {1.0 / 6.0, 1.0, 1.0 / 6.0};
constexpr double AllVolumes = Volumes[0] + Volumes[1] + Volumes[2];

// Elements at each node, and at each of the three design points.
constexpr int NodeElements[14] = {3, 3, 1, 3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1};
constexpr int DesignElements[3] = {3, 5, 4};

class FeelemResponse : public Feelem {
 protected:
  void SetUp() override {
    Feelem::SetUp();
    for (int node = 0; node < 14; ++node) FEMODEL::NodeTpIndex[node] = node % 5 - 1;
    FEMODEL::NumTp = 3;
  }

  // Strain and one level everywhere: each sum of an element is a product of a few numbers.
  void SetUniform(double strain, float level, float slope) {
    Stretch(strain);
    SetLevel(level);
    VKCORE::RunOptions.MatSlopeFactor = slope;
    smooth_ = PresenceAt(double{slope} * double{level});
    sharp_ = PresenceAt(1000.0 * double{slope} * double{level});
  }

  // The value of a criterion that is `density` where the material is whole.
  double Criterion(double density) const {
    const double weighted = double{0.1f} + double{0.9f} * smooth_;
    return density * smooth_ * smooth_ / weighted;
  }

  static void ExpectDesignPoints(double criterion) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(RESPONSE::TcCounts[i], DesignElements[i]) << i;
      EXPECT_NEAR(RESPONSE::TcValues[i], DesignElements[i] * criterion, 1e-6 * criterion) << i;
    }
  }

  static void ExpectNodes(const UniformState& state) {
    for (int i = 0; i < 14; ++i) {
      EXPECT_EQ(RESPONSE::AmsCounts[i], NodeElements[i]) << i;
      EXPECT_NEAR(RESPONSE::AmsValues[i], NodeElements[i] * state.stress, 1e-6 * state.stress);
      EXPECT_NEAR(RESPONSE::AmsSigns[i], NodeElements[i] * state.meanStress, 1e-6 * state.stress);
    }
  }

  double smooth_ = 0.0, sharp_ = 0.0;
};

constexpr double Strain = 0x1p-7;

TEST_F(FeelemResponse, TotalsOfAUniformStateAreVolumesTimesPresenceAndEnergyDensity) {
  SetUniform(Strain, 0.25f, 2.0f);
  RunResponse();
  ASSERT_LT(smooth_, 0.7);  // far from whole, so that a wrong power of it shows
  ExpectClose(totals_[TotalVolume], AllVolumes, "volume");
  ExpectClose(totals_[TotalSmoothVolume], AllVolumes * smooth_, "smooth volume");
  ExpectClose(totals_[TotalSharpVolume], AllVolumes * sharp_, "sharp volume");
  ExpectClose(totals_[TotalEnergy], AllVolumes * sharp_ * UniformState(Strain).energy, "energy");
  ExpectClose(totals_[TotalSharpShare], sharp_, "share");
  EXPECT_EQ(totals_[TotalUnused], 0.0);
}

TEST_F(FeelemResponse, NodesCollectStressAndMeanStressOfTheMaterialOfTheirElements) {
  SetUniform(-Strain, 0.25f, 2.0f);
  RunResponse();
  ExpectNodes(UniformState(-Strain));
}

TEST_F(FeelemResponse, DesignPointsCollectTheEnergyCriterionOfTheirElements) {
  Material().LimitStress = 3.0f;
  SetUniform(Strain, 0.25f, 2.0f);
  RunResponse();
  ExpectDesignPoints(Criterion(UniformState(Strain).energy) / 3.0);
}

TEST_F(FeelemResponse, StressCriterionTakesTheRootOfTheStrengthFactor) {
  Material().LimitStress = 3.0f;
  VKCORE::RunOptions.TopCriteriaCode = 1;
  SetUniform(Strain, 0.25f, 2.0f);
  RunResponse();
  ExpectDesignPoints(Criterion(UniformState(Strain).stress) / std::sqrt(3.0));
}

TEST_F(FeelemResponse, StrengthFactorMultipliesUnderCompressionAndDividesUnderTension) {
  Material().LimitStress = 4.0f;
  for (const double strain : {Strain, -Strain}) {
    SetUniform(strain, 0.25f, 2.0f);
    COMPSAVE_INITRESPONSE(3, FEMODEL::NumNodes);
    RunResponse();
    const double whole = Criterion(UniformState(strain).energy);
    ExpectDesignPoints(strain > 0 ? whole / 4.0 : whole * 4.0);
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

// With a slope that makes all of the material whole, an element with levels of one sign weighs by
// the 32nd power of their difference d, and again by it in the power sum.
TEST_F(FeelemResponse, BoundaryStressWeighsLevelsOfOneSignByThePowerOfTheirDifference) {
  constexpr int exponent = 7;
  VKCORE::RunOptions.BStressExp = exponent;
  Material().LimitStress = 3.0f;
  SetUniform(Strain, 0.4f, 1e9f);
  FEMODEL::NodeTpFactor[0] = 1.2f;  // a corner of all three
  FEMODEL::NodeTpFactor[6] = 1.5f;  // a corner of the cube
  RunResponse();
  const double stress = UniformState(Strain).stress;
  const double corner = std::pow(double{1.2f} - double{0.4f}, 32);
  const double cube = std::pow(double{1.5f} - double{0.4f}, 32);
  const auto share = [&](double w) { return w * std::pow(stress * w / 3.0, exponent); };
  const double mean = (2.0 * share(corner) + share(cube)) / (2.0 * corner + cube);
  ExpectClose(totals_[TotalBoundaryStress], std::pow(mean, 1.0 / exponent), "boundary stress");
  ExpectClose(totals_[TotalLargestStress], stress, "largest stress");
}

TEST_F(FeelemResponse, BoundaryStressOfLevelsOfBothSignsIsThatOfTheMaterial) {
  Material().LimitStress = 3.0f;
  for (const double strain : {Strain, -Strain}) {
    SetUniform(strain, 0.4f, 500.0f);
    FEMODEL::NodeTpFactor[0] = -0.1f;
    RunResponse();
    const double stress = UniformState(strain).stress;
    ExpectClose(totals_[TotalBoundaryStress], strain > 0 ? stress / 3.0 : stress, "boundary");
    ExpectClose(totals_[TotalLargestStress], stress, "largest");
  }
}

TEST_F(FeelemResponse, UndefinedStressIsNotTheLargestWhereverItsElementStands) {
  for (const std::int32_t odd : {1, 2, 3}) {
    MaterialRecord undefined = Steel();
    undefined.E = std::numeric_limits<float>::quiet_NaN();
    SetMaterials({Steel(), undefined});
    for (std::int32_t e = 1; e <= 3; ++e)
      FEMODEL::Elements[Slot(e)].MaterialIndex = static_cast<std::int16_t>(e == odd ? 2 : 1);
    SetUniform(Strain, 0.4f, 500.0f);
    FEMODEL::NodeTpFactor[0] = -0.1f;  // all three stand at the boundary
    RunResponse();
    EXPECT_TRUE(std::isnan(totals_[TotalEnergy])) << odd;
    EXPECT_TRUE(std::isnan(totals_[TotalBoundaryStress])) << odd;
    ExpectClose(totals_[TotalLargestStress], UniformState(Strain).stress, "largest");
  }
}

TEST_F(FeelemResponse, ElementThatIgnoresTheLevelCountsInEnergyAndNodesButNotInVolumes) {
  Keep(1);
  FEMODEL::ElementFlags[0] = ElementIgnoresLevel;
  SetUniform(Strain, -5.0f, 2.0f);  // would leave no material, if it were read
  RunResponse();
  const UniformState state(Strain);
  ExpectClose(totals_[TotalEnergy], Volumes[0] * PresenceAt(2000.0) * state.energy, "energy");
  for (const ResponseTotal total :
       {TotalVolume, TotalSmoothVolume, TotalSharpVolume, TotalBoundaryStress, TotalLargestStress})
    EXPECT_EQ(totals_[total], 0.0) << total;
  for (const int node : {0, 1, 3, 4})
    EXPECT_NEAR(RESPONSE::AmsValues[node], state.stress, 1e-6 * state.stress) << node;
}

TEST_F(FeelemResponse, NoElementAtTheBoundaryGivesABoundaryStressOfZero) {
  SetLevel(1.0f);
  RunResponse();
  EXPECT_GT(totals_[TotalEnergy], 0.0);
  EXPECT_EQ(totals_[TotalBoundaryStress], 0.0);
  EXPECT_EQ(totals_[TotalLargestStress], 0.0);
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
  for (const int i : {TotalEnergy, TotalVolume, TotalSmoothVolume, TotalSharpVolume,
                      TotalBoundaryStress, TotalLargestStress})
    EXPECT_EQ(totals_[i], 0.0) << i;
  for (int node = 0; node < 14; ++node) EXPECT_EQ(RESPONSE::AmsCounts[node], 0);
  for (int tc = 0; tc < 3; ++tc) EXPECT_EQ(RESPONSE::TcCounts[tc], 0);
}

TEST_F(FeelemResponse, YieldingAboveYieldMovesHalfwayToTheSecantOfTheTwoSlopeLine) {
  SetMaterial(MaterialYielding);
  Material().YieldStress = 2.0f;
  Material().HardeningRatio = 0.125f;
  VKCORE::RunOptions.YieldStressFac = 1.5f;
  Keep(1);
  SetUniform(Strain, 1.0f, 500.0f);
  FELOADCASE::ElementState[0] = 0.75f;
  RunResponse();
  // Elastic, the stress would be 6.25; the line yields at 3 and goes on at an eighth of the slope.
  const double secant = (3.0 + 0.125 * (6.25 - 3.0)) / 6.25;
  EXPECT_NEAR(FELOADCASE::ElementState[0], 0.5 * (0.75 + secant), 1e-7);
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
