#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <vector>

#include "model/femodel.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

using MaterialStiffness = WorkingDirectory;

// C11 C12 C13 C22 C23 C33 S1 S2 S3
using Row = std::array<float, 9>;

Row RowOf(const std::vector<MaterialRecord>& materials, std::size_t number = 1) {
  FEMODEL::NumMaterials = static_cast<std::int32_t>(materials.size());
  FEMODEL::Materials = ARRAYS_ALLOCATE<MaterialRecord>(FEMODEL::NumMaterials);
  std::copy(materials.begin(), materials.end(), FEMODEL::Materials.get());
  FEMAT_BUILDSTIFFNESS();
  Row row = {};
  std::copy_n(&FEMODEL::MaterialStiffness[static_cast<std::int64_t>(9 * (number - 1))], 9,
              row.begin());
  return row;
}

MaterialRecord Orthotropic() {
  MaterialRecord material = {};
  material.MaterialFlags = MaterialOrthotropic;
  material.E1 = 100.0f;
  material.E2 = 50.0f;
  material.E3 = 20.0f;
  material.Nu12 = 0.2f;
  material.Nu13 = 0.3f;
  material.Nu23 = 0.25f;
  material.G12 = 11.0f;
  material.G13 = 13.0f;
  material.G23 = 17.0f;
  return material;
}

// Normal strains under normal stresses, from the engineering constants.
std::array<double, 3> StrainOf(const MaterialRecord& m, const std::array<double, 3>& s) {
  const double e1 = static_cast<double>(m.E1);
  const double e2 = static_cast<double>(m.E2);
  const double e3 = static_cast<double>(m.E3);
  const double nu12 = static_cast<double>(m.Nu12);
  const double nu13 = static_cast<double>(m.Nu13);
  const double nu23 = static_cast<double>(m.Nu23);
  return {s[0] / e1 - nu12 / e1 * s[1] - nu13 / e1 * s[2],
          -nu12 / e1 * s[0] + s[1] / e2 - nu23 / e2 * s[2],
          -nu13 / e1 * s[0] - nu23 / e2 * s[1] + s[2] / e3};
}

}  // namespace

TEST_F(MaterialStiffness, WithoutTransverseContractionTheModulusStandsAlone) {
  const Row row = RowOf({Isotropic(1234.5f, 0.0f)});
  EXPECT_EQ(row, (Row{1234.5f, 0.0f, 0.0f, 1234.5f, 0.0f, 1234.5f, 1234.5f, 1234.5f, 1234.5f}));
}

TEST_F(MaterialStiffness, IsotropicRowFollowsHookesLaw) {
  // E = 1000, Nu = 1/4: C11 = 1200, C12 = 400, 2 G = 800.
  const Row row = RowOf({Isotropic(1000.0f, 0.25f)});
  EXPECT_EQ(row, (Row{1200, 400, 400, 1200, 400, 1200, 800, 800, 800}));
}

TEST_F(MaterialStiffness, ShearConstantsAreTwiceTheShearModulus) {
  const Row row = RowOf({Isotropic(210000.0f, 0.3f)});
  EXPECT_NEAR(static_cast<double>(row[6]), 2.0 * 210000.0 / (2.0 * 1.3), 0.05);
}

// The bits were computed apart from this code, step by step in IEEE single precision; in double
// precision, rounded once at the end, every constant of these materials comes out another.
TEST_F(MaterialStiffness, IsotropicRowIsComputedInSinglePrecision) {
  struct {
    float e, nu;
    std::uint32_t normal, coupling, shear;
    std::uint32_t normalOfDouble, couplingOfDouble, shearOfDouble;
  } const cases[] = {
      {210000.0f, 0.3f, 0x488a088b, 0x47eca0ef, 0x481dc09e, 0x488a088a, 0x47eca0ee, 0x481dc09d},
      {210000.0f, 0.45f, 0x49427878, 0x491f1cbf, 0x480d6ee5, 0x49427879, 0x491f1cc0, 0x480d6ee6},
      {70000.0f, 0.3f, 0x47b80b64, 0x471dc0a0, 0x47525628, 0x47b80b63, 0x471dc09e, 0x47525627},
      {2900.0f, 0.34f, 0x458b7cf4, 0x450fb70b, 0x450742dd, 0x458b7cf5, 0x450fb70c, 0x450742de},
      {0.001f, 0.3f, 0x3ab07170, 0x3a173caa, 0x3a49a635, 0x3ab0716e, 0x3a173ca8, 0x3a49a634}};
  for (const auto& c : cases) {
    const auto normal = std::bit_cast<float>(c.normal);
    const auto coupling = std::bit_cast<float>(c.coupling);
    const auto shear = std::bit_cast<float>(c.shear);
    EXPECT_EQ(RowOf({Isotropic(c.e, c.nu)}),
              (Row{normal, coupling, coupling, normal, coupling, normal, shear, shear, shear}))
        << c.e << ", " << c.nu;
    const double e = static_cast<double>(c.e), nu = static_cast<double>(c.nu);
    const double wide = e * (1.0 - nu) / ((1.0 - 2.0 * nu) * (1.0 + nu));
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(wide)), c.normalOfDouble);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(nu * wide / (1.0 - nu))),
              c.couplingOfDouble);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(static_cast<float>(e / (1.0 + nu))), c.shearOfDouble);
  }
}

TEST_F(MaterialStiffness, OrthotropicRowIsComputedInSinglePrecision) {
  struct {
    float e[3], nu[3];  // 1, 2, 3; 12, 13, 23
    std::uint32_t normal[6];
  } const cases[] = {{{442.5f, 1519.0f, 1529.2f},
                      {0.277f, 0.418f, 0.132f},
                      {0x47309b39, 0x474d3494, 0x478d30fa, 0x477479a7, 0x47a474e6, 0x47e4cbd3}},
                     {{1716.7f, 421.1f, 1932.3f},
                      {0.299f, 0.293f, 0.438f},
                      {0xc5169f81, 0xc5890bb7, 0xc61623b2, 0xc58b6f86, 0xc622b893, 0xc6ad2f1e}},
                     {{1081.0f, 403.9f, 943.0f},
                      {0.399f, 0.276f, 0.436f},
                      {0x44d8e8f5, 0x444629ef, 0x449915a0, 0x4488091a, 0x44a25510, 0x451ffd2a}}};
  for (const auto& c : cases) {
    MaterialRecord material = Orthotropic();
    material.E1 = c.e[0];
    material.E2 = c.e[1];
    material.E3 = c.e[2];
    material.Nu12 = c.nu[0];
    material.Nu13 = c.nu[1];
    material.Nu23 = c.nu[2];
    const Row row = RowOf({material});
    for (std::size_t i = 0; i < 6; ++i)
      EXPECT_EQ(std::bit_cast<std::uint32_t>(row[i]), c.normal[i]) << c.e[0] << ", entry " << i + 1;
  }
}

TEST_F(MaterialStiffness, YieldingAndCompressionOnlyMaterialsAreIsotropic) {
  for (const std::uint32_t kind : {MaterialYielding, MaterialCompressionOnly}) {
    MaterialRecord material = Isotropic(1000.0f, 0.25f);
    material.MaterialFlags = kind;
    EXPECT_EQ(RowOf({material})[0], 1200.0f) << kind;
  }
}

TEST_F(MaterialStiffness, OtherFlagBitsAreIgnored) {
  MaterialRecord material = Isotropic(1000.0f, 0.25f);
  material.MaterialFlags |= 0xFFFFF0FFu;
  EXPECT_EQ(RowOf({material})[0], 1200.0f);
}

TEST_F(MaterialStiffness, MaterialOfNoKindGetsARowOfZeros) {
  MaterialRecord material = Isotropic(1000.0f, 0.25f);
  material.MaterialFlags = 0;
  EXPECT_EQ(RowOf({material}), Row{});
}

TEST_F(MaterialStiffness, OrthotropicRowInvertsTheCompliance) {
  const MaterialRecord material = Orthotropic();
  const Row c = RowOf({material});
  const std::array<double, 3> strain = {1.0, -2.0, 0.5};
  std::array<double, 3> stress = {};
  const int at[3][3] = {{0, 1, 2}, {1, 3, 4}, {2, 4, 5}};
  for (std::size_t i = 0; i < 3; ++i)
    for (std::size_t j = 0; j < 3; ++j)
      stress[i] += static_cast<double>(c[static_cast<std::size_t>(at[i][j])]) * strain[j];
  const std::array<double, 3> back = StrainOf(material, stress);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(back[i], strain[i], 2e-6) << i;
}

TEST_F(MaterialStiffness, OrthotropicShearStandsInTheOrderXyYzXz) {
  const Row row = RowOf({Orthotropic()});
  EXPECT_EQ(row[6], 22.0f);
  EXPECT_EQ(row[7], 34.0f);
  EXPECT_EQ(row[8], 26.0f);
}

TEST_F(MaterialStiffness, OrthotropicLawWinsOverTheIsotropicOne) {
  MaterialRecord both = Orthotropic();
  both.MaterialFlags |= MaterialIsotropic;
  both.E = 1000.0f;
  both.Nu = 0.25f;
  EXPECT_EQ(RowOf({both}), RowOf({Orthotropic()}));
}

TEST_F(MaterialStiffness, EachMaterialHasItsOwnRow) {
  const std::vector<MaterialRecord> materials = {Isotropic(1.0f, 0.0f), Isotropic(1000.0f, 0.25f)};
  EXPECT_EQ(RowOf(materials, 1)[0], 1.0f);
  EXPECT_EQ(RowOf(materials, 2)[0], 1200.0f);
}

TEST_F(MaterialStiffness, IncompressibleMaterialGivesInfiniteConstantsAndNoError) {
  EXPECT_TRUE(std::isinf(RowOf({Isotropic(1000.0f, 0.5f)})[0]));
}

TEST_F(MaterialStiffness, NoMaterialsGiveAnEmptyTable) {
  FEMODEL::NumMaterials = -5;
  FEMAT_BUILDSTIFFNESS();
  EXPECT_TRUE(FEMODEL::MaterialStiffness);
}

TEST_F(MaterialStiffness, FailedAllocationAborts) {
  EXPECT_ABORT((ARRAYS::LargestBytes = 200, RowOf({Isotropic(1, 0)}), ARRAYS::LargestBytes = 30,
                FEMAT_BUILDSTIFFNESS()),
               "Error allocating arrays.");
}
