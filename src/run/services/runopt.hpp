// Module RUNOPT: reader of the options file "vk_rund_cmd.txt", and the thread setting.
//
// The file is text, one "key=value" a line, in any order; a line that starts with "*" is a comment,
// a line that starts with no known key is ignored, a key given twice keeps its last value. Values
// outside their limits are clamped silently.
//
// Grammar of a value, after leading blanks and tabs:
//   integer  [+|-] digits
//   float    [+|-] digits [. [digits]] [exponent]  |  [+|-] . digits [exponent]
//   exponent (E|e|D|d) [+|-] digits  |  (+|-) digits
// The number ends at a blank, tab, comma, slash or the end of the line; what follows is ignored. A
// comma or slash in the number's place leaves the option as it was. Anything else, an empty value,
// and a number that its type can't hold are unreadable and end the run.
#pragma once

#include <cstdint>
#include <string_view>

#include "run/services/vkcore.hpp"

// Reads the whole file into VKCORE::RunOptions. Aborts: file can't be opened or closed, a value
// can't be read.
void RUNOPT_READ(int unit, std::string_view fileName);

// One value by the grammar above, from the text behind the "=". False: unreadable. `value` is left
// as it was when the text starts with a comma or slash.
bool RUNOPT_PARSEINTEGER(std::string_view text, std::int32_t& value);
bool RUNOPT_PARSEFLOAT(std::string_view text, float& value);

// Team size for the option value `request` on `processors` processors with the run-time's limit
// `threadLimit`: 1 .. 16.
std::int32_t RUNOPT_TEAMSIZE(std::int32_t request, std::int32_t processors,
                             std::int32_t threadLimit);

// Sets VKCORE::NumThreads and the OpenMP team size from Sys.MaxNumCompThreads, and the
// floating-point mode of every thread of the team.
void RUNOPT_SETTHREADS();
