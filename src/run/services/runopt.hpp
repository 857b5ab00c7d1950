// Module RUNOPT: reader of the options file, and the thread setting.
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
#include <limits>
#include <span>
#include <string_view>
#include <variant>

#include "platform/described.hpp"
#include "platform/process.hpp"
#include "run/services/vkcore.hpp"

namespace RUNOPT {

inline constexpr std::string_view FileName = "vk_rund_cmd.txt";
inline constexpr int Unit = 101;
inline constexpr std::size_t LineLength = 512;  // what lies beyond is cut
inline constexpr char Comment = '*';
inline constexpr std::int32_t MaxThreads = LargestTeam;  // whatever the option says

// A key and the value it sets; T is the type of what stands in the file. Without limits, lowest and
// highest are what T can hold.
template <class T>
struct Option {
  std::string_view key;
  T VKCORE::RunOptionValues::*value;
  T lowest, highest;
  std::string_view meaning;
  std::span<const NamedValue> codes = {};  // where each value has a meaning of its own
};
using IntegerOption = Option<std::int32_t>;
using FloatOption = Option<float>;
using AnyOption = std::variant<IntegerOption, FloatOption>;

inline constexpr std::int32_t Lowest = std::numeric_limits<std::int32_t>::min();
inline constexpr std::int32_t Highest = std::numeric_limits<std::int32_t>::max();
inline constexpr float Unlimited = std::numeric_limits<float>::infinity();

inline constexpr NamedValue Modes[] = {
    {"automatic", VKCORE::ModeAutomatic, "a factor where the memory budget allows one"},
    {"iterative", VKCORE::ModeIterative, "no factor"},
    {"direct", VKCORE::ModeFactorised, "a factor, without a budget"},
};
inline constexpr NamedValue Criteria[] = {
    {"energy", VKCORE::CriterionEnergy, "strain energy"},
    {"stress", VKCORE::CriterionStress, "equivalent stress"},
};

// In the order in which a line is compared with the keys: the first that it begins with counts.
inline constexpr AnyOption Options[] = {
    FloatOption{"Sys.AvailableMemGB", &VKCORE::RunOptionValues::AvailableMemGB, -Unlimited,
                Unlimited,
                "memory budget in gigabytes of the sparse factor in automatic mode; 0 or less: no "
                "budget"},
    IntegerOption{"Sys.MaxNumCompThreads", &VKCORE::RunOptionValues::MaxNumCompThreads, Lowest,
                  Highest,
                  "threads: 0 all processors, positive at most that many, negative that many "
                  "processors left free"},
    IntegerOption{"Sys.ComputationMode", &VKCORE::RunOptionValues::ComputationMode,
                  VKCORE::ModeAutomatic, VKCORE::ModeFactorised, "preconditioner of the solution",
                  Modes},
    FloatOption{"Sta.SupportStiffness", &VKCORE::RunOptionValues::SupportStiffness, 0.0f, Unlimited,
                "stiffness of elastic supports"},
    FloatOption{"Sta.ResponseDumpFac", &VKCORE::RunOptionValues::ResponseDumpFac, 0.0f, 0.99f,
                "weight of the earlier run's criterion values"},
    IntegerOption{"Sta.TopCriteriaCode", &VKCORE::RunOptionValues::TopCriteriaCode,
                  VKCORE::CriterionEnergy, VKCORE::CriterionStress, "criterion", Criteria},
    IntegerOption{"Sta.BStressExp", &VKCORE::RunOptionValues::BStressExp, 1, 24,
                  "exponent of the boundary stress"},
    FloatOption{"Sta.YieldStressFac", &VKCORE::RunOptionValues::YieldStressFac, 0.0f, Unlimited,
                "factor on the yield stress; at 0 a yielding material stays elastic"},
    FloatOption{"Sta.MatSlopeFactor", &VKCORE::RunOptionValues::MatSlopeFactor, 10.0f, 10000.0f,
                "steepness of the presence step"},
};

}  // namespace RUNOPT

// Reads the whole file into VKCORE::RunOptions. Aborts: file can't be opened or closed, a value
// can't be read.
void RUNOPT_READ(int unit, std::string_view fileName);

// One value by the grammar above, from the text behind the "=". False: unreadable. `value` is left
// as it was when the text starts with a comma or slash.
bool RUNOPT_PARSEINTEGER(std::string_view text, std::int32_t& value);
bool RUNOPT_PARSEFLOAT(std::string_view text, float& value);

// Team size for the option value `request` on `processors` processors with the run-time's limit
// `threadLimit`: 1 .. MaxThreads.
std::int32_t RUNOPT_TEAMSIZE(std::int32_t request, std::int32_t processors,
                             std::int32_t threadLimit);

// Sets VKCORE::NumThreads and the OpenMP team size from Sys.MaxNumCompThreads, and the
// floating-point mode of every thread of the team.
void RUNOPT_SETTHREADS();
