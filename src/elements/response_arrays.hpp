// Module RESPONSE, state: the accumulators of the response pass.
// Allocated, cleared, reduced and freed by the response step; added into by FEELEM_RESPONSE.
#pragma once

#include <cstdint>

#include "run/services/arrays.hpp"

namespace RESPONSE {

inline std::int32_t NumTc = 0;         // length of the first two arrays
inline std::int32_t NumNodes = 0;      // length of the others
inline Array<std::int16_t> TcCounts;   // [design point] contributions; wraps beyond 32767
inline Array<float> TcValues;          // [design point] sum of element criteria
inline Array<std::int16_t> AmsCounts;  // [node] contributions
inline Array<float> AmsValues;         // [node] sum of element stresses
inline Array<float> AmsSigns;          // [node] sum of element mean stresses; its sign is used
inline Array<float> DisValues;         // [node] displacement magnitude

}  // namespace RESPONSE
