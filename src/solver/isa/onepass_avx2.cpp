// The loops compiled for one instruction set: OnePassAvx2.
#include "solver/onepass_family.hpp"

template void OnePassBackward<OnePassAvx2>(const OnePassRows&, std::int64_t, std::int64_t, double);
template void OnePassForward<OnePassAvx2>(const OnePassRows&, std::int64_t, std::int64_t,
                                          OnePassPartial&);
template void OnePassUpdate<OnePassAvx2>(const OnePassRows&, std::int64_t, std::int64_t, double,
                                         OnePassPartial&);
template void OnePassTransform<OnePassAvx2>(const OnePassRows&, std::int64_t, std::int64_t,
                                            OnePassPartial&);
