// What a kernel works on, and the kernels as templates of instruction set and shape.
// The nine public kernels gather a KernelInput and branch to one of these; each instruction set is
// one source that instantiates them and is compiled for it alone.
//
// Everything compiled for an extended instruction set has Isa among its template arguments or is
// always inlined. So no function that the linker might share with the rest of the program is ever
// made of instructions the processor lacks.
#pragma once

#include "elements/kernel_rules.hpp"
#include "elemlib/element_types.hpp"

// Instruction sets. Lanes: doubles in one vector register.
struct IsaPortable {
  static constexpr int Lanes = 2;
};  // SSE2, NEON: what every machine has
struct IsaAvx2 {
  static constexpr int Lanes = 4;
};  // AVX2 with FMA
// AVX-512 F, DQ, VL with FMA: its registers and masks on vectors of four. Eight lanes would stay
// half empty with rules of 4 points and elements of 4 or 10 nodes, and cost clock on some
// processors.
struct IsaAvx512 {
  static constexpr int Lanes = 4;
};

struct Tet4;
struct Hex8;
struct Tet10;

struct KernelInput {
  const MaterialLoadData& loadData;
  const MaterialConstants& stiffness;
  const ElementVector& coords;
  const ElementScalars& phi;
  const ElementVector& disp;
  const ElementScalars& scalars;
  const KernelRule& rule;
  double slope;  // k, Sta.MatSlopeFactor
};

// All 30 entries of forces.
template <class Isa, class Shape>
void KernelForces(const KernelInput& in, ElementVector& forces);

// All 30 entries of forces, the same to the last bit, and all 900 of matrix.
template <class Isa, class Shape>
void KernelMatrix(const KernelInput& in, ElementVector& forces, ElementMatrix& matrix);

// All 9 entries of response.
template <class Isa, class Shape>
void KernelResponse(const KernelInput& in, ElementResponse& response);
