// The kernels compiled for one instruction set: IsaAvx512.
#include "elements/kernel_family.hpp"

template void KernelForces<IsaAvx512, Tet4>(const KernelInput&, ElementVector&);
template void KernelForces<IsaAvx512, Hex8>(const KernelInput&, ElementVector&);
template void KernelForces<IsaAvx512, Tet10>(const KernelInput&, ElementVector&);

template void KernelMatrix<IsaAvx512, Tet4>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaAvx512, Hex8>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaAvx512, Tet10>(const KernelInput&, ElementVector&, ElementMatrix&);

template void KernelResponse<IsaAvx512, Tet4>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaAvx512, Hex8>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaAvx512, Tet10>(const KernelInput&, ElementResponse&);
