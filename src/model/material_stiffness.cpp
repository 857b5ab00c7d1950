// FEMAT_BUILDSTIFFNESS: the elastic constants of every material, in float32.
#include <cstdint>

#include "model/femodel.hpp"

namespace {

// Isotropic Hooke's law; the shear constants are stored as twice the shear modulus.
void IsotropicRow(const MaterialRecord& m, float* row) {
  const float normal = m.E * (1.0f - m.Nu) / ((1.0f - 2.0f * m.Nu) * (1.0f + m.Nu));
  const float coupling = m.Nu * normal / (1.0f - m.Nu);
  const float shear = m.E / (2.0f * (1.0f + m.Nu));
  row[0] = row[3] = row[5] = normal;
  row[1] = row[2] = row[4] = coupling;
  row[6] = row[7] = row[8] = 2.0f * shear;
}

// Inverse of the orthotropic compliance. G23 stands before G13: the record lists 12, 13, 23, the
// strain vector xy, yz, xz.
void OrthotropicRow(const MaterialRecord& m, float* row) {
  const float nu21 = m.E2 * m.Nu12 / m.E1;
  const float nu32 = m.E3 * m.Nu23 / m.E2;
  const float nu31 = m.E3 * m.Nu13 / m.E1;
  const float d =
      1.0f - m.Nu12 * nu21 - m.Nu23 * nu32 - m.Nu13 * nu31 - 2.0f * nu21 * nu32 * m.Nu13;
  row[0] = (1.0f - m.Nu23 * nu32) * m.E1 / d;
  row[1] = (nu21 + m.Nu23 * nu31) * m.E1 / d;
  row[2] = (nu31 + nu21 * nu32) * m.E1 / d;
  row[3] = (1.0f - m.Nu13 * nu31) * m.E2 / d;
  row[4] = (nu32 + m.Nu12 * nu31) * m.E2 / d;
  row[5] = (1.0f - m.Nu12 * nu21) * m.E3 / d;
  row[6] = 2.0f * m.G12;
  row[7] = 2.0f * m.G23;
  row[8] = 2.0f * m.G13;
}

}  // namespace

void FEMAT_BUILDSTIFFNESS() {
  constexpr std::uint32_t isotropicKinds =
      MaterialIsotropic | MaterialYielding | MaterialCompressionOnly;
  const std::int64_t count = FEMODEL::NumMaterials > 0 ? FEMODEL::NumMaterials : 0;
  FEMODEL::MaterialStiffness = ARRAYS_ALLOCATE<float>(9 * count);
  for (std::int64_t i = 0; i < 9 * count; ++i) FEMODEL::MaterialStiffness[i] = 0.0f;
  for (std::int64_t i = 0; i < count; ++i) {
    const MaterialRecord& material = FEMODEL::Materials[i];
    float* row = &FEMODEL::MaterialStiffness[9 * i];
    if ((material.MaterialFlags & isotropicKinds) != 0) IsotropicRow(material, row);
    if ((material.MaterialFlags & MaterialOrthotropic) != 0) OrthotropicRow(material, row);
  }
}
