#include "elemlib/femat.hpp"

#include "model/femodel.hpp"

namespace {

constexpr double ShearReduction = double{0.001f};  // of compression-only materials
static_assert(ShearReduction == 0.0010000000474974513);

void SetFreeStrains(float x, float y, float z, float initial, MaterialLoadData& loadData) {
  loadData[1] = static_cast<double>(x);
  loadData[2] = static_cast<double>(y);
  loadData[3] = static_cast<double>(z);
  for (int k = 4; k < 7; ++k) loadData[k] = static_cast<double>(initial);
}

void SetStiffness(const float* row, double factor, MaterialConstants& stiffness) {
  for (int i = 0; i < 9; ++i) stiffness[i] = static_cast<double>(row[i]) * factor;
}

}  // namespace

void FEMAT_GETPROPS(std::int32_t materialIndex, float elementFactor, MaterialLoadData& loadData,
                    MaterialConstants& stiffness) {
  const MaterialRecord& m = FEMODEL::Materials[Slot(materialIndex)];
  const float* row = &FEMODEL::MaterialStiffness[9 * Slot(materialIndex)];
  // A material of no known kind must not reach an element; should it, it has no stiffness.
  for (int k = 1; k < 7; ++k) loadData[k] = 0.0;
  for (double& c : stiffness) c = 0.0;

  loadData[0] = static_cast<double>(m.RefValue);
  // Later kinds overwrite earlier ones.
  if ((m.MaterialFlags & MaterialIsotropic) != 0) {
    SetFreeStrains(m.Expansion, m.Expansion, m.Expansion, m.InitialStrain, loadData);
    SetStiffness(row, 1.0, stiffness);
  }
  if ((m.MaterialFlags & (MaterialYielding | MaterialCompressionOnly)) != 0) {
    SetFreeStrains(m.Expansion, m.Expansion, m.Expansion, m.InitialStrain, loadData);
    SetStiffness(row, static_cast<double>(elementFactor), stiffness);
    if ((m.MaterialFlags & MaterialCompressionOnly) != 0)
      for (int k = 6; k < 9; ++k) stiffness[k] *= ShearReduction;
  }
  if ((m.MaterialFlags & MaterialOrthotropic) != 0) {
    SetFreeStrains(m.Expansion1, m.Expansion2, m.Expansion3, m.InitialStrain, loadData);
    SetStiffness(row, 1.0, stiffness);
  }
}
