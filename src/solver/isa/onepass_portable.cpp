// The loops compiled for one instruction set: OnePassPortable.
#include "solver/onepass_family.hpp"

template void OnePassBackward<OnePassPortable>(const OnePassRows&, std::int64_t, std::int64_t,
                                               double);
template void OnePassForward<OnePassPortable>(const OnePassRows&, std::int64_t, std::int64_t,
                                              OnePassPartial&);
template void OnePassUpdate<OnePassPortable>(const OnePassRows&, std::int64_t, std::int64_t, double,
                                             OnePassPartial&);
template void OnePassTransform<OnePassPortable>(const OnePassRows&, std::int64_t, std::int64_t,
                                                OnePassPartial&);
