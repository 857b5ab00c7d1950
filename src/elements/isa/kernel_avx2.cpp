// The kernels compiled for one instruction set: IsaAvx2.
#include "elements/kernel_family.hpp"

template void KernelForces<IsaAvx2, Tet4>(const KernelInput&, ElementVector&);
template void KernelForces<IsaAvx2, Hex8>(const KernelInput&, ElementVector&);
template void KernelForces<IsaAvx2, Tet10>(const KernelInput&, ElementVector&);

template void KernelMatrix<IsaAvx2, Tet4>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaAvx2, Hex8>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaAvx2, Tet10>(const KernelInput&, ElementVector&, ElementMatrix&);

template void KernelResponse<IsaAvx2, Tet4>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaAvx2, Hex8>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaAvx2, Tet10>(const KernelInput&, ElementResponse&);
