// The kernels with vectors of eight doubles, made of whatever registers the build has. Only these
// are instantiated here: the others come from the library, compiled for their instruction sets.
#include "elements/kernel_cases.hpp"
#include "elements/kernel_family.hpp"

template void KernelForces<IsaWide, Tet4>(const KernelInput&, ElementVector&);
template void KernelForces<IsaWide, Hex8>(const KernelInput&, ElementVector&);
template void KernelForces<IsaWide, Tet10>(const KernelInput&, ElementVector&);

template void KernelMatrix<IsaWide, Tet4>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaWide, Hex8>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaWide, Tet10>(const KernelInput&, ElementVector&, ElementMatrix&);

template void KernelResponse<IsaWide, Tet4>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaWide, Hex8>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaWide, Tet10>(const KernelInput&, ElementResponse&);
