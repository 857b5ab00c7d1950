// Module FEMAT: the constitutive constants of one element.
// Linear elastic, isotropic or orthotropic, with free strains from a nodal scalar field and a
// constant initial strain. (The per-material table is derived at loading: FEMAT_BUILDSTIFFNESS.)
#pragma once

#include <cstdint>

#include "elemlib/element_types.hpp"

// The constants of material `materialIndex` (1-based). `elementFactor` scales the stiffness of
// yielding and compression-only materials; compression-only shear is scaled by a further 0.001f.
void FEMAT_GETPROPS(std::int32_t materialIndex, float elementFactor, MaterialLoadData& loadData,
                    MaterialConstants& stiffness);
