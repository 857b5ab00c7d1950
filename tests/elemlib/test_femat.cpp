#include <gtest/gtest.h>

#include <cmath>
#include <ios>

#include "elemlib/femat.hpp"
#include "support/small_model.hpp"

namespace {

class Femat : public SmallModel {
 protected:
  void Get(MaterialRecord material, float factor) {
    SetMaterials({Steel(), material});
    FEMAT_GETPROPS(2, factor, loadData_, stiffness_);
  }

  MaterialLoadData loadData_ = {};
  MaterialConstants stiffness_ = {};
};

MaterialRecord Material(std::uint32_t flags) {
  MaterialRecord m = Steel();
  m.MaterialFlags = flags;
  m.RefValue = 7.0f;
  m.Expansion = 2e-5f;
  m.InitialStrain = 3e-4f;
  m.E1 = 100.0f;
  m.E2 = 200.0f;
  m.E3 = 400.0f;
  m.G12 = 11.0f;
  m.G13 = 13.0f;
  m.G23 = 23.0f;
  m.Expansion1 = 1.0f;
  m.Expansion2 = 2.0f;
  m.Expansion3 = 3.0f;
  return m;
}

TEST_F(Femat, PoissonsRatioZeroGivesYoungsModulusOnDiagonalAndShear) {
  MaterialRecord m = Material(MaterialIsotropic);
  m.Nu = 0.0f;
  Get(m, 1.0f);
  const double expected[9] = {1000, 0, 0, 1000, 0, 1000, 1000, 1000, 1000};
  for (int i = 0; i < 9; ++i) EXPECT_EQ(stiffness_[i], expected[i]) << "constant " << i + 1;
}

TEST_F(Femat, RefValueIsTheFirstLoadValueOfEveryKind) {
  for (const std::uint32_t flags : {0x100u, 0x200u, 0x400u, 0x800u}) {
    Get(Material(flags), 0.5f);
    EXPECT_EQ(loadData_[0], 7.0) << std::hex << flags;
  }
}

TEST_F(Femat, IsotropicLoadDataRepeatExpansionAndInitialStrainPerDirection) {
  Get(Material(MaterialIsotropic), 1.0f);
  for (int k = 1; k < 4; ++k) EXPECT_EQ(loadData_[k], double{2e-5f});
  for (int k = 4; k < 7; ++k) EXPECT_EQ(loadData_[k], double{3e-4f});
}

TEST_F(Femat, IsotropicMaterialIgnoresTheElementFactor) {
  Get(Material(MaterialIsotropic), 0.5f);
  EXPECT_EQ(stiffness_[0], double{FEMODEL::MaterialStiffness[9]});
  EXPECT_EQ(stiffness_[8], double{FEMODEL::MaterialStiffness[17]});
}

TEST_F(Femat, YieldingMaterialIsScaledInAllNineConstants) {
  Get(Material(MaterialYielding), 0.3f);
  for (int i = 0; i < 9; ++i)
    EXPECT_EQ(stiffness_[i], double{FEMODEL::MaterialStiffness[9 + i]} * double{0.3f});
}

TEST_F(Femat, CompressionOnlyAtHalfStateHasHalfTheNormalBlockAndAHalfThousandthOfTheShear) {
  Get(Material(MaterialCompressionOnly), 0.5f);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(stiffness_[i], double{FEMODEL::MaterialStiffness[9 + i]} * 0.5);
  for (int i = 6; i < 9; ++i) {
    EXPECT_EQ(stiffness_[i],
              double{FEMODEL::MaterialStiffness[9 + i]} * 0.5 * 0.0010000000474974513);
    EXPECT_NEAR(stiffness_[i] / double{FEMODEL::MaterialStiffness[9 + i]}, 0.0005, 1e-10);
  }
}

TEST_F(Femat, YieldingAndCompressionOnlyTogetherTakeTheShearReductionToo) {
  Get(Material(MaterialYielding | MaterialCompressionOnly), 0.5f);
  EXPECT_EQ(stiffness_[0], double{FEMODEL::MaterialStiffness[9]} * 0.5);
  EXPECT_EQ(stiffness_[6], double{FEMODEL::MaterialStiffness[15]} * 0.5 * 0.0010000000474974513);
}

TEST_F(Femat, IsotropicAndYieldingTogetherAreScaled) {
  Get(Material(MaterialIsotropic | MaterialYielding), 0.25f);
  EXPECT_EQ(stiffness_[0], double{FEMODEL::MaterialStiffness[9]} * 0.25);
}

TEST_F(Femat, OrthotropicWinsOverIsotropicInLoadDataAndStiffness) {
  Get(Material(MaterialIsotropic | MaterialOrthotropic), 0.5f);
  EXPECT_EQ(loadData_[1], 1.0);
  EXPECT_EQ(loadData_[2], 2.0);
  EXPECT_EQ(loadData_[3], 3.0);
  for (int k = 4; k < 7; ++k) EXPECT_EQ(loadData_[k], double{3e-4f});
  EXPECT_EQ(stiffness_[0], 100.0);
  EXPECT_EQ(stiffness_[3], 200.0);
  EXPECT_EQ(stiffness_[5], 400.0);
}

TEST_F(Femat, OrthotropicWinsOverYieldingAndIsNotScaled) {
  Get(Material(MaterialYielding | MaterialOrthotropic), 0.5f);
  EXPECT_EQ(stiffness_[0], 100.0);
}

TEST_F(Femat, OrthotropicShearIsOrderedXyYzXz) {
  Get(Material(MaterialOrthotropic), 1.0f);
  EXPECT_EQ(stiffness_[6], 22.0);
  EXPECT_EQ(stiffness_[7], 46.0);
  EXPECT_EQ(stiffness_[8], 26.0);
}

TEST_F(Femat, IncompressibleMaterialFlowsOnWithInfiniteConstants) {
  MaterialRecord m = Material(MaterialIsotropic);
  m.Nu = 0.5f;
  Get(m, 1.0f);
  EXPECT_TRUE(std::isinf(stiffness_[0]));
  EXPECT_TRUE(std::isfinite(stiffness_[6]));
}

}  // namespace
