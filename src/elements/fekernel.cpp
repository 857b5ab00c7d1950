#include "elements/fekernel.hpp"

#include <algorithm>

#include "elements/kernel_input.hpp"
#include "elements/kernel_laws.hpp"
#include "elements/kernel_shapes.hpp"
#include "elemlib/feinteg.hpp"
#include "platform/slot.hpp"
#include "run/services/vkcore.hpp"

namespace {

enum class InstructionSet { Portable, Avx2, Avx512 };

InstructionSet DetectInstructionSet() {
#if defined(__x86_64__)
  if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma"))
    return InstructionSet::Portable;
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512vl"))
    return InstructionSet::Avx512;
  return InstructionSet::Avx2;
#else
  return InstructionSet::Portable;
#endif
}

const InstructionSet Processor = DetectInstructionSet();

// Order of the rule: the finer one wherever material may be.
int RuleOrder(const double* phi, int count) {
  return *std::max_element(phi, phi + count) > RuleSwitchLevel ? 3 : 2;
}

// Repeats the last point with weight 0 up to a whole vector of the widest instruction set.
void PadRule(KernelRule& rule) {
  const int n = rule.numPoints;
  for (int p = n; p % IsaAvx512::Lanes != 0; ++p) {
    rule.weight[p] = 0.0;
    for (auto& coordinate : rule.coordinate) coordinate[p] = n > 0 ? coordinate[n - 1] : 0.0;
  }
}

// The points of the slot of `order`. The first coordinate of a point is not read.
void FetchTetRule(int order, KernelRule& rule) {
  const FEINTEG::IntegrationRule& slot = FEINTEG::TetRuleTable[Slot(order)];
  const double* weights = slot.weights.get();
  const double* points = slot.points.get();
  rule.numPoints = FEINTEG_TETPOINTCOUNT(order);
  for (int p = 0; p < rule.numPoints; ++p) {
    rule.weight[p] = weights[p];
    for (int k = 0; k < 3; ++k) rule.coordinate[k][p] = points[4 * p + k + 1];
  }
  PadRule(rule);
}

// The product of three n-point Gauss-Legendre rules, xi outermost, zeta innermost.
KernelRule MakeHexRule(int n) {
  KernelRule rule = {};
  int p = 0;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= n; ++j)
      for (int m = 1; m <= n; ++m, ++p) {
        rule.coordinate[0][p] = FEINTEG_GAUSSPOINT(n, i);
        rule.coordinate[1][p] = FEINTEG_GAUSSPOINT(n, j);
        rule.coordinate[2][p] = FEINTEG_GAUSSPOINT(n, m);
        rule.weight[p] =
            FEINTEG_GAUSSWEIGHT(n, i) * FEINTEG_GAUSSWEIGHT(n, j) * FEINTEG_GAUSSWEIGHT(n, m);
      }
  rule.numPoints = p;
  PadRule(rule);
  return rule;
}

const KernelRule HexRules[2] = {MakeHexRule(2), MakeHexRule(3)};

const KernelRule& SelectRule(Hex8, const ElementScalars& phi, KernelRule&) {
  return HexRules[RuleOrder(phi, Hex8::LevelNodes) - 2];
}

template <class Tet>
const KernelRule& SelectRule(Tet, const ElementScalars& phi, KernelRule& own) {
  FetchTetRule(RuleOrder(phi, Tet::LevelNodes), own);
  return own;
}

double Slope() { return double{VKCORE::RunOptions.MatSlopeFactor}; }

// Branches to the kernel of the processor's instruction set.
template <class Shape>
void Forces(const KernelInput& in, ElementVector& forces) {
#if defined(__x86_64__)
  if (Processor == InstructionSet::Avx512) return KernelForces<IsaAvx512, Shape>(in, forces);
  if (Processor == InstructionSet::Avx2) return KernelForces<IsaAvx2, Shape>(in, forces);
#endif
  KernelForces<IsaPortable, Shape>(in, forces);
}

template <class Shape>
void Matrix(const KernelInput& in, ElementVector& forces, ElementMatrix& matrix) {
#if defined(__x86_64__)
  if (Processor == InstructionSet::Avx512)
    return KernelMatrix<IsaAvx512, Shape>(in, forces, matrix);
  if (Processor == InstructionSet::Avx2) return KernelMatrix<IsaAvx2, Shape>(in, forces, matrix);
#endif
  KernelMatrix<IsaPortable, Shape>(in, forces, matrix);
}

template <class Shape>
void Response(const KernelInput& in, ElementResponse& response) {
#if defined(__x86_64__)
  if (Processor == InstructionSet::Avx512) return KernelResponse<IsaAvx512, Shape>(in, response);
  if (Processor == InstructionSet::Avx2) return KernelResponse<IsaAvx2, Shape>(in, response);
#endif
  KernelResponse<IsaPortable, Shape>(in, response);
}

}  // namespace

void FEKERNEL_TET4_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces) {
  KernelRule own;
  Forces<Tet4>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet4(), phi, own), Slope()},
      forces);
}

void FEKERNEL_TET4_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix) {
  KernelRule own;
  Matrix<Tet4>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet4(), phi, own), Slope()},
      forces, matrix);
}

void FEKERNEL_TET4_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response) {
  KernelRule own;
  Response<Tet4>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet4(), phi, own), Slope()},
      response);
}

void FEKERNEL_HEX8_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces) {
  KernelRule own;
  Forces<Hex8>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Hex8(), phi, own), Slope()},
      forces);
}

void FEKERNEL_HEX8_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix) {
  KernelRule own;
  Matrix<Hex8>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Hex8(), phi, own), Slope()},
      forces, matrix);
}

void FEKERNEL_HEX8_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response) {
  KernelRule own;
  Response<Hex8>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Hex8(), phi, own), Slope()},
      response);
}

void FEKERNEL_TET10_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces) {
  KernelRule own;
  Forces<Tet10>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet10(), phi, own), Slope()},
      forces);
}

void FEKERNEL_TET10_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces, ElementMatrix& matrix) {
  KernelRule own;
  Matrix<Tet10>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet10(), phi, own), Slope()},
      forces, matrix);
}

void FEKERNEL_TET10_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                             const ElementVector& coords, const ElementScalars& phi,
                             const ElementVector& disp, const ElementScalars& scalars,
                             ElementResponse& response) {
  KernelRule own;
  Response<Tet10>(
      {loadData, stiffness, coords, phi, disp, scalars, SelectRule(Tet10(), phi, own), Slope()},
      response);
}
