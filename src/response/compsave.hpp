// Module VKCORE, response step: reduces the element response of one load case to nodal and
// design-point values, writes its four result files and posts the totals.
#pragma once

#include <cstdint>
#include <string_view>

// Runs once per load case on the physical Displacements. Writes ws.tcval, ws.amsval, ws.disval and
// ws.comval for the load-case number. Aborts: allocation and file failures.
void VKCORE_COMPSAVERESPONSE();

// Allocates and clears the six RESPONSE arrays.
void COMPSAVE_INITRESPONSE(std::int32_t numTc, std::int32_t numNodes);
void COMPSAVE_FREERESPONSE();

// Displacement magnitudes of all nodes into DisValues, prescribed components included; returns the
// largest magnitude formed from free components only.
double COMPSAVE_MAGNITUDES();

// Sums to averages. A design point that no element touches takes the smallest average; a node's
// stress takes the sign of its mean stress.
void COMPSAVE_REDUCETC();
void COMPSAVE_REDUCEAMS();

// TcValues := TcValues (1 - factor) + previous factor, with the values of an earlier run's file; no
// file, no change. Aborts: allocation and file failures.
void COMPSAVE_BLENDPREVIOUS(int unit, std::string_view fileName, float factor);
