// Module RUN: the program's entry sequence and the one pass over the load cases.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace RUN {

inline constexpr float KeepQuality = 0.9f;  // a solution above it starts a later run

inline std::int64_t RunStartTicks = 0;
inline std::int64_t LoadCaseStartTicks = 0;

}  // namespace RUN

// The whole run in the working directory `directory`: log, tables, options, load cases, release.
// Ends the process: status 0, or a stop code.
[[noreturn]] void RUN_ENTRY(std::string_view directory);

// Reads the load-case tables and the model; no pattern counts as run. Aborts: format number, file
// and allocation failures, a load-case number or position without a record.
void RUN_READINPUT();

// Reads the input, then runs every load case that is requested, not done
// and not excluded, in the order of RunOrder.
void RUN_LOADCASES();

// True when a solve of this quality leaves its displacements for a later start: more than 0.9,
// while a warning asks for less than 0.9.
constexpr bool RUN_KEEPSDISPLACEMENTS(float quality) { return quality > RUN::KeepQuality; }

// hours:minutes:seconds.milliseconds of `ticks` at `rate` ticks a second, in float32 arithmetic.
std::string RUN_TIMETEXT(std::int64_t ticks, std::int64_t rate);
