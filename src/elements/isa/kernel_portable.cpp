// The kernels compiled for one instruction set: IsaPortable.
#include "elements/kernel_family.hpp"

template void KernelForces<IsaPortable, Tet4>(const KernelInput&, ElementVector&);
template void KernelForces<IsaPortable, Hex8>(const KernelInput&, ElementVector&);
template void KernelForces<IsaPortable, Tet10>(const KernelInput&, ElementVector&);

template void KernelMatrix<IsaPortable, Tet4>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaPortable, Hex8>(const KernelInput&, ElementVector&, ElementMatrix&);
template void KernelMatrix<IsaPortable, Tet10>(const KernelInput&, ElementVector&, ElementMatrix&);

template void KernelResponse<IsaPortable, Tet4>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaPortable, Hex8>(const KernelInput&, ElementResponse&);
template void KernelResponse<IsaPortable, Tet10>(const KernelInput&, ElementResponse&);
