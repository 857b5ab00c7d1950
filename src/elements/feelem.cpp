#include "elements/feelem.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "elements/fekernel.hpp"
#include "elements/response_arrays.hpp"
#include "elemlib/fegeom.hpp"
#include "elemlib/femat.hpp"
#include "model/feloadcase.hpp"
#include "platform/slot.hpp"
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

// Bounds of the state of yielding and compression-only elements, a factor on their stiffness, and
// the step by which compression-only ones lose and regain it.
constexpr float SmallestState = 0.001f;
static_assert(double{SmallestState} == 0.0010000000474974513);
constexpr float LargestState = 1.0f;
constexpr float StateStep = 10.0f;

bool IgnoresLevel(const ElementView& element) {
  return (FEMODEL::ElementFlags[Slot(element.number)] & ElementIgnoresLevel) != 0;
}

// Level values live at the corners only, whatever the element's order.
int LevelNodeCount(const ElementView& element) {
  return element.record->TypeCode == TypeHex8 ? 8 : 4;
}

float& StateOf(const ElementView& element) {
  return FELOADCASE::ElementState[Slot(element.number)];
}

float ElementFactor(const ElementView& element) {
  const std::uint32_t flags = element.material->MaterialFlags;
  if ((flags & MaterialCompressionOnly) != 0) return StateOf(element);
  if ((flags & MaterialYielding) != 0 && VKCORE::RunOptions.YieldStressFac > 0.0f)
    return StateOf(element);
  return 1.0f;
}

void Gather(const ElementView& element, const double* solution, ElementInput& in) {
  FEMAT_GETPROPS(element.record->MaterialIndex, ElementFactor(element), in.loadData, in.stiffness);
  FEGEOM_ELEMDISP(element, solution, in.disp);
  FEGEOM_ELEMCOORDS(element, in.coords);
  std::fill_n(in.phi, MaxElementNodes, 1.0);
  if (!IgnoresLevel(element))
    FEGEOM_NODEVALUES(FEMODEL::NodeTpFactor.get(), element.nodes, LevelNodeCount(element), in.phi);
  if (VKCORE::NoNodalScalars)
    std::fill_n(in.scalars, element.nodeCount, 0.0);
  else
    FEGEOM_NODEVALUES(FELOADCASE::NodalScalars.get(), element.nodes, element.nodeCount, in.scalars);
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

// The sums of an ElementResponse by name, and what the pass derives from them.
struct ElementResult {
  double volume, smoothVolume, sharpVolume;
  double smoothEnergy, smoothStress;
  double energy;
  double meanStressSum, meanStrainSum;
  double ratio;   // the part of the element that is material
  double stress;  // equivalent stress of the material
  double mean;    // its mean stress
};

ElementResult Interpret(const ElementResponse& r) {
  return {.volume = r[SumVolume],
          .smoothVolume = r[SumSmoothVolume],
          .sharpVolume = r[SumSharpVolume],
          .smoothEnergy = r[SumSmoothEnergy],
          .smoothStress = r[SumSmoothStress],
          .energy = r[SumEnergy],
          .meanStressSum = r[SumMeanStress],
          .meanStrainSum = r[SumMeanStrain],
          .ratio = r[SumSharpVolume] / r[SumVolume],
          .stress = r[SumStress] / r[SumSharpVolume],
          .mean = r[SumMeanStress] / r[SumSharpVolume]};
}

// Counters are 16 bits wide and wrap.
void Increment(std::int16_t& counter) {
  counter = static_cast<std::int16_t>(static_cast<std::uint16_t>(counter) + 1u);
}

void AddRounded(float& sum, double value) {
  sum = static_cast<float>(static_cast<double>(sum) + value);
}

// A stretched element loses stiffness by a step, a compressed one regains it.
void UpdateCompressionState(float& state, double meanStrainSum) {
  if (meanStrainSum > 0.0)
    state = std::max(state / StateStep, SmallestState);
  else
    state = std::min(state * StateStep, LargestState);
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
  state = std::max(std::min(next, LargestState), SmallestState);
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

void AddToNodes(const ElementView& element, const ElementResult& r, double criterion) {
  for (int i = 0; i < element.nodeCount; ++i) {
    const std::int64_t node = Slot(element.nodes[i]);
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

void AddElementResponse(const ElementView& element, const double* solution, ResponseTotals& totals,
                        BoundaryStressSums& boundary) {
  ElementInput in;
  ElementResponse response;
  Gather(element, solution, in);
  CallResponseKernel(element.record->TypeCode, in, response);
  const ElementResult r = Interpret(response);

  const MaterialRecord& material = *element.material;
  // Nothing of a compression-only element reaches totals or accumulators.
  if ((material.MaterialFlags & MaterialCompressionOnly) != 0) {
    UpdateCompressionState(StateOf(element), r.meanStrainSum);
    return;
  }
  totals[TotalEnergy] += r.energy;
  AddToNodes(element, r, TopCriterion(r, StrengthFactor(material, r.meanStressSum)));
  if ((material.MaterialFlags & MaterialYielding) != 0)
    UpdateYieldState(StateOf(element), material, r.stress);
  if (IgnoresLevel(element)) return;
  totals[TotalVolume] += r.volume;
  totals[TotalSmoothVolume] += r.smoothVolume;
  totals[TotalSharpVolume] += r.sharpVolume;
  AddBoundaryStress(r, material, in.phi, LevelNodeCount(element), boundary);
}

}  // namespace

void FEELEM_INTERNALFORCES(const ElementView& element, const double* solution,
                           std::int32_t& dofCount, ElementDofs& dofs, ElementVector& forces) {
  if (element.nodeCount == 0) return;
  const std::int16_t typeCode = element.record->TypeCode;
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

void FEELEM_MATRIXANDFORCES(const ElementView& element, const double* solution,
                            std::int32_t& dofCount, ElementDofs& dofs, ElementVector& forces,
                            ElementMatrix& matrix) {
  if (element.nodeCount == 0) return;
  const std::int16_t typeCode = element.record->TypeCode;
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

void FEELEM_INTERNALFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                           ElementDofs& dofs, ElementVector& forces) {
  FEELEM_INTERNALFORCES(FEMODEL_ELEMENT(element), solution, dofCount, dofs, forces);
}

void FEELEM_MATRIXANDFORCES(std::int32_t element, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces, ElementMatrix& matrix) {
  FEELEM_MATRIXANDFORCES(FEMODEL_ELEMENT(element), solution, dofCount, dofs, forces, matrix);
}

void FEELEM_RESPONSE(const double* solution, ResponseTotals& totals) {
  std::fill(std::begin(totals), std::end(totals), 0.0);
  BoundaryStressSums boundary;
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    const ElementView element = FEMODEL_ELEMENT(e);
    if (element.nodeCount > 0) AddElementResponse(element, solution, totals, boundary);
  }
  if (boundary.weight == 0.0) boundary.weight = 1.0;
  totals[TotalSharpShare] = totals[TotalSharpVolume] / totals[TotalVolume];
  totals[TotalBoundaryStress] = std::pow(boundary.power / boundary.weight,
                                         1.0 / static_cast<double>(VKCORE::RunOptions.BStressExp));
  totals[TotalLargestStress] = boundary.largest;
}
