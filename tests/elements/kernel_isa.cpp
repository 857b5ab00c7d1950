// Calls of the kernels of each instruction set, past the dispatch. Sees their declarations only, so
// that what runs is the library's code.
#include "elements/kernel_cases.hpp"
#include "elements/kernel_shapes.hpp"

namespace {

const KernelRule& RuleOf(const cases::Element& e) {
  const int order = KERNELRULES_ORDER(e.phi, reference::LevelCount(e.shape));
  return e.shape == cases::Shape::Hex8 ? KERNELRULES_HEX(order) : KERNELRULES_TET(order);
}

KernelInput InputOf(const cases::Element& e) {
  return {e.loadData, e.stiffness, e.coords, e.phi, e.disp, e.scalars, RuleOf(e), cases::Slope()};
}

template <class Isa, class F>
void WithShape(cases::Shape s, F f) {
  if (s == cases::Shape::Tet4) f(Isa(), Tet4());
  if (s == cases::Shape::Hex8) f(Isa(), Hex8());
  if (s == cases::Shape::Tet10) f(Isa(), Tet10());
}

// Calls f with the types of the instruction set and of the shape.
template <class F>
void WithTypes(cases::Variant v, cases::Shape s, F f) {
  if (v == cases::Variant::Portable) WithShape<IsaPortable>(s, f);
  if (v == cases::Variant::Wide) WithShape<IsaWide>(s, f);
#if defined(__x86_64__)
  if (v == cases::Variant::Avx2) WithShape<IsaAvx2>(s, f);
  if (v == cases::Variant::Avx512) WithShape<IsaAvx512>(s, f);
#endif
}

}  // namespace

void cases::IsaForces(Variant v, const Element& e, ElementVector& forces) {
  WithTypes(v, e.shape,
            [&]<class Isa, class S>(Isa, S) { KernelForces<Isa, S>(InputOf(e), forces); });
}

void cases::IsaMatrix(Variant v, const Element& e, ElementVector& forces, ElementMatrix& matrix) {
  WithTypes(v, e.shape,
            [&]<class Isa, class S>(Isa, S) { KernelMatrix<Isa, S>(InputOf(e), forces, matrix); });
}

void cases::IsaResponse(Variant v, const Element& e, ElementResponse& response) {
  WithTypes(v, e.shape,
            [&]<class Isa, class S>(Isa, S) { KernelResponse<Isa, S>(InputOf(e), response); });
}
