#include "elements/fekernel.hpp"

#include "elements/kernel_input.hpp"
#include "elements/kernel_shapes.hpp"
#include "platform/processor.hpp"
#include "run/services/vkcore.hpp"

namespace {

const InstructionSet Processor = PLATFORM_INSTRUCTIONSET();

const KernelRule& RuleOf(Tet4, const ElementScalars& phi) {
  return KERNELRULES_TET(KERNELRULES_ORDER(phi, Tet4::LevelNodes));
}
const KernelRule& RuleOf(Hex8, const ElementScalars& phi) {
  return KERNELRULES_HEX(KERNELRULES_ORDER(phi, Hex8::LevelNodes));
}
const KernelRule& RuleOf(Tet10, const ElementScalars& phi) {
  return KERNELRULES_TET(KERNELRULES_ORDER(phi, Tet10::LevelNodes));
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
  Forces<Tet4>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet4(), phi), Slope()},
               forces);
}

void FEKERNEL_TET4_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix) {
  Matrix<Tet4>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet4(), phi), Slope()},
               forces, matrix);
}

void FEKERNEL_TET4_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response) {
  Response<Tet4>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet4(), phi), Slope()},
                 response);
}

void FEKERNEL_HEX8_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces) {
  Forces<Hex8>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Hex8(), phi), Slope()},
               forces);
}

void FEKERNEL_HEX8_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix) {
  Matrix<Hex8>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Hex8(), phi), Slope()},
               forces, matrix);
}

void FEKERNEL_HEX8_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response) {
  Response<Hex8>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Hex8(), phi), Slope()},
                 response);
}

void FEKERNEL_TET10_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces) {
  Forces<Tet10>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet10(), phi), Slope()},
                forces);
}

void FEKERNEL_TET10_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces, ElementMatrix& matrix) {
  Matrix<Tet10>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet10(), phi), Slope()},
                forces, matrix);
}

void FEKERNEL_TET10_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                             const ElementVector& coords, const ElementScalars& phi,
                             const ElementVector& disp, const ElementScalars& scalars,
                             ElementResponse& response) {
  Response<Tet10>({loadData, stiffness, coords, phi, disp, scalars, RuleOf(Tet10(), phi), Slope()},
                  response);
}
