// Module FELOADCASE: the data of the load case that runs, beside the numbering (FEDOF).
// Everything is replaced by the next load case, but two arrays that are allocated once and
// refilled: NodalScalars by each load case that has pairs, ElementState by each load case of a
// model with yielding or compression-only materials.
#pragma once

#include <cstdint>

#include "model/records.hpp"
#include "run/services/arrays.hpp"

namespace FELOADCASE {

inline std::int32_t PreviousPattern = 0;  // pattern of the last load case that ran, 0 for none

inline std::int32_t NumNodalForces2 = 0;
inline Array<NodalForceRecord> NodalForces2;
inline std::int32_t NumNodalForces3 = 0;
inline Array<NodalForceRecord> NodalForces3;

inline std::int32_t NumSupports = 0;
inline Array<std::int32_t>
    SupportList;  // 1-based rows of FEDOF::NodalConstraints, elastic supports

inline Array<float> NodalScalars;  // [node]; valid while VKCORE::NoNodalScalars is false

inline Array<float> ElementState;  // [element]; present if VKCORE::MatStateEnabled

}  // namespace FELOADCASE

// Prepares load case `number`: run flags, element state from ws.mstate.NNNN, mxs.lcmap.NNNN,
// SupportList, on a change of pattern the numbering, start vector from ws.sstate.NNNN. Aborts: file
// and allocation failures, an index outside its array, no degrees of freedom.
void FELOADCASE_PREPARE(std::int32_t number, std::int32_t kind, std::int32_t patternIndex);

// Writes ElementState to ws.mstate.NNNN, where the next run of load case `number` finds it. Aborts:
// file failures.
void FELOADCASE_SAVESTATE(std::int32_t number);
