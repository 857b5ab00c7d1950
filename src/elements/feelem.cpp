#include "elements/feelem.hpp"

#include <algorithm>
#include <cmath>

#include "elements/fekernel.hpp"
#include "elements/response_arrays.hpp"
#include "elemlib/fegeom.hpp"
#include "elemlib/femat.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "run/services/vkcore.hpp"

namespace {

// What every kernel takes, gathered for one element.
struct ElementInput {
  MaterialLoadData loadData;
  MaterialConstants stiffness;
  ElementVector coords;
  ElementScalars phi;
  ElementVector disp;
  ElementScalars scalars;
};

std::uint32_t MaterialFlagsOf(const ElementRecord& element) {
  return FEMODEL::Materials[Slot(element.MaterialIndex)].MaterialFlags;
}

bool IgnoresLevel(std::int32_t element) {
  return (FEMODEL::ElementFlags[Slot(element)] & ElementIgnoresLevel) != 0;
}

// Level values live at the corners only, whatever the element's order.
int LevelNodeCount(std::int16_t typeCode) { return typeCode == TypeHex8 ? 8 : 4; }

float ElementFactor(std::int32_t element, std::uint32_t materialFlags) {
  if ((materialFlags & MaterialCompressionOnly) != 0)
    return FELOADCASE::ElementState[Slot(element)];
  if ((materialFlags & MaterialYielding) != 0 && VKCORE::RunOptions.YieldStressFac > 0.0f)
    return FELOADCASE::ElementState[Slot(element)];
  return 1.0f;
}

void GatherCoordinates(const ElementRecord& element, ElementVector& coords) {
  if (element.TypeCode == TypeTet4) FEGEOM_ELEMCOORDS_TET4(element.ConnIndex, coords);
  if (element.TypeCode == TypeHex8) FEGEOM_ELEMCOORDS_HEX8(element.ConnIndex, coords);
  if (element.TypeCode == TypeTet10) FEGEOM_ELEMCOORDS_TET10(element.ConnIndex, coords);
}

void Gather(std::int32_t element, const double* solution, ElementInput& in) {
  const ElementRecord& record = FEMODEL::Elements[Slot(element)];
  const std::int32_t* nodes = FEMODEL_NODES(record);
  const int nodeCount = FEMODEL_NODECOUNT(record.TypeCode);
  FEMAT_GETPROPS(record.MaterialIndex, ElementFactor(element, MaterialFlagsOf(record)), in.loadData,
                 in.stiffness);
  FEGEOM_ELEMDISP(element, solution, in.disp);
  GatherCoordinates(record, in.coords);
  std::fill_n(in.phi, MaxElementNodes, 1.0);
  if (!IgnoresLevel(element))
    FEGEOM_NODEVALUES(FEMODEL::NodeTpFactor.get(), nodes, LevelNodeCount(record.TypeCode), in.phi);
  if (VKCORE::NoNodalScalars)
    std::fill_n(in.scalars, nodeCount, 0.0);
  else
    FEGEOM_NODEVALUES(FELOADCASE::NodalScalars.get(), nodes, nodeCount, in.scalars);
}

void CallResponseKernel(std::int16_t typeCode, const ElementInput& in, ElementResponse& response) {
  if (typeCode == TypeTet4)
    FEKERNEL_TET4_RESPONSE(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars,
                           response);
  if (typeCode == TypeHex8)
    FEKERNEL_HEX8_RESPONSE(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars,
                           response);
  if (typeCode == TypeTet10)
    FEKERNEL_TET10_RESPONSE(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars,
                            response);
}

// Named entries of an ElementResponse, R1 to R9, and what the pass derives from them.
struct ElementResult {
  double volume, smoothVolume, sharpVolume;  // R1, R2, R3
  double smoothEnergy, smoothStress;         // R4, R5
  double energy, stressSum;                  // R6, R7
  double meanStressSum, meanStrainSum;       // R8, R9
  double ratio;                              // the part of the element that is material
  double stress;                             // equivalent stress of the material
  double mean;                               // its mean stress
};

ElementResult Interpret(const ElementResponse& r) {
  return {r[0], r[1], r[2], r[3],        r[4],        r[5],
          r[6], r[7], r[8], r[2] / r[0], r[6] / r[2], r[7] / r[2]};
}

// Counters are 16 bits wide and wrap.
void Increment(std::int16_t& counter) {
  counter = static_cast<std::int16_t>(static_cast<std::uint16_t>(counter) + 1u);
}

void AddRounded(float& sum, double value) {
  sum = static_cast<float>(static_cast<double>(sum) + value);
}

// A stretched element loses stiffness by a factor of ten, a compressed one regains it.
void UpdateCompressionState(float& state, double meanStrainSum) {
  if (meanStrainSum > 0.0)
    state = std::max(state / 10.0f, 0.001f);
  else
    state = std::min(state * 10.0f, 1.0f);
}

// Secant ratio of a two-slope stress-strain line, averaged with the present state. Below yield the
// ratio exceeds 1 and the upper bound recovers the material.
void UpdateYieldState(float& state, const MaterialRecord& material, double stress) {
  const double yield = static_cast<double>(material.YieldStress) *
                       static_cast<double>(VKCORE::RunOptions.YieldStressFac);
  if (!(yield > 0.0 && stress > 0.0)) return;
  const double present = static_cast<double>(state);
  const double elastic = stress / present;
  const double secant =
      (yield + static_cast<double>(material.HardeningRatio) * (elastic - yield)) / elastic;
  const auto next = static_cast<float>((present + secant) * 0.5);
  state = std::max(std::min(next, 1.0f), 0.001f);
}

// Limit stress acts as a multiplier under compression, as a divisor under tension.
double StrengthFactor(const MaterialRecord& material, double meanStressSum) {
  const auto limit = static_cast<double>(material.LimitStress);
  if (meanStressSum < 0.0) return limit;
  if (meanStressSum > 0.0) return 1.0 / limit;
  return 1.0;
}

double TopCriterion(const ElementResult& r, double strength) {
  constexpr double plainShare = double{0.1f};
  constexpr double smoothShare = double{0.9f};
  static_assert(plainShare == 0.10000000149011612 && smoothShare == 0.8999999761581421);
  const double weighted = plainShare * r.volume + smoothShare * r.smoothVolume;
  if (VKCORE::RunOptions.TopCriteriaCode == VKCORE::CriterionEnergy)
    return r.smoothEnergy / weighted * strength;
  return r.smoothStress / weighted * std::sqrt(strength);
}

void AddToNodes(const ElementRecord& element, const ElementResult& r, double criterion) {
  const std::int32_t* nodes = FEMODEL_NODES(element);
  const int count = FEMODEL_NODECOUNT(element.TypeCode);
  for (int i = 0; i < count; ++i) {
    const std::int64_t node = Slot(nodes[i]);
    if (const std::int32_t design = FEMODEL::NodeTpIndex[node]; design > 0) {
      AddRounded(RESPONSE::TcValues[Slot(design)], criterion);
      Increment(RESPONSE::TcCounts[Slot(design)]);
    }
    if (r.ratio > 0.5) {
      AddRounded(RESPONSE::AmsValues[node], r.stress);
      AddRounded(RESPONSE::AmsSigns[node], r.mean);
      Increment(RESPONSE::AmsCounts[node]);
    }
  }
}

double IntegerPower(double base, std::int32_t exponent) {
  double power = 1.0;
  for (std::int32_t i = 0; i < exponent; ++i) power *= base;
  return power;
}

struct BoundaryStressSums {
  double weight = 0.0;
  double power = 0.0;
  double largest = 0.0;
};

// Power sum over the elements at the material boundary. The weight enters twice, in x and as the
// factor of the sum.
void AddBoundaryStress(const ElementResult& r, const MaterialRecord& material,
                       const ElementScalars& phi, int levelNodes, BoundaryStressSums& sums) {
  if (r.ratio < 0.5) return;
  const auto [lowest, highest] = std::minmax_element(phi, phi + levelNodes);
  if (!(*highest > 0.0)) return;
  double weight = 1.0;
  if (!(*lowest < 0.0)) {
    weight = *highest - *lowest;
    for (int squaring = 0; squaring < 5; ++squaring) weight *= weight;  // to the power of 32
    if (weight == 0.0) return;
  }
  sums.largest = std::max(sums.largest, r.stress);
  sums.weight += weight;
  double x = r.stress * weight;
  if (r.meanStressSum > 0.0) x /= static_cast<double>(material.LimitStress);
  sums.power += weight * IntegerPower(x, VKCORE::RunOptions.BStressExp);
}

void AddElementResponse(std::int32_t element, const double* solution, ResponseTotals& totals,
                        BoundaryStressSums& boundary) {
  const ElementRecord& record = FEMODEL::Elements[Slot(element)];
  const MaterialRecord& material = FEMODEL::Materials[Slot(record.MaterialIndex)];
  ElementInput in;
  ElementResponse response;
  Gather(element, solution, in);
  CallResponseKernel(record.TypeCode, in, response);
  const ElementResult r = Interpret(response);

  // Nothing of a compression-only element reaches totals or accumulators.
  if ((material.MaterialFlags & MaterialCompressionOnly) != 0) {
    UpdateCompressionState(FELOADCASE::ElementState[Slot(element)], r.meanStrainSum);
    return;
  }
  totals[0] += r.energy;
  AddToNodes(record, r, TopCriterion(r, StrengthFactor(material, r.meanStressSum)));
  if ((material.MaterialFlags & MaterialYielding) != 0)
    UpdateYieldState(FELOADCASE::ElementState[Slot(element)], material, r.stress);
  if (IgnoresLevel(element)) return;
  totals[1] += r.volume;
  totals[2] += r.smoothVolume;
  totals[3] += r.sharpVolume;
  AddBoundaryStress(r, material, in.phi, LevelNodeCount(record.TypeCode), boundary);
}

}  // namespace

void FEELEM_INTERNALFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                           ElementDofs& dofs, ElementVector& forces) {
  const std::int16_t typeCode = FEMODEL::Elements[Slot(element)].TypeCode;
  if (FEMODEL_NODECOUNT(typeCode) == 0) return;
  ElementInput in;
  FEGEOM_ELEMDOFS(element, dofCount, dofs);
  Gather(element, solution, in);
  if (typeCode == TypeTet4)
    FEKERNEL_TET4_FORCES(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars, forces);
  if (typeCode == TypeHex8)
    FEKERNEL_HEX8_FORCES(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars, forces);
  if (typeCode == TypeTet10)
    FEKERNEL_TET10_FORCES(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars,
                          forces);
}

void FEELEM_MATRIXANDFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces, ElementMatrix& matrix) {
  const std::int16_t typeCode = FEMODEL::Elements[Slot(element)].TypeCode;
  if (FEMODEL_NODECOUNT(typeCode) == 0) return;
  ElementInput in;
  FEGEOM_ELEMDOFS(element, dofCount, dofs);
  Gather(element, solution, in);
  if (typeCode == TypeTet4)
    FEKERNEL_TET4_MATRIX(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars, forces,
                         matrix);
  if (typeCode == TypeHex8)
    FEKERNEL_HEX8_MATRIX(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars, forces,
                         matrix);
  if (typeCode == TypeTet10)
    FEKERNEL_TET10_MATRIX(in.loadData, in.stiffness, in.coords, in.phi, in.disp, in.scalars, forces,
                          matrix);
}

void FEELEM_RESPONSE(const double* solution, ResponseTotals& totals) {
  std::fill_n(totals, 8, 0.0);
  BoundaryStressSums boundary;
  for (std::int32_t element = 1; element <= FEMODEL::NumElements; ++element)
    if (FEMODEL_ISACTIVE(element)) AddElementResponse(element, solution, totals, boundary);
  if (boundary.weight == 0.0) boundary.weight = 1.0;
  totals[4] = totals[3] / totals[1];
  totals[5] = std::pow(boundary.power / boundary.weight,
                       1.0 / static_cast<double>(VKCORE::RunOptions.BStressExp));
  totals[6] = boundary.largest;
}
