#include "run/services/runopt.hpp"

#include <omp.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>

#include "platform/process.hpp"
#include "platform/stream.hpp"
#include "run/services/arrays.hpp"
#include "run/services/logger.hpp"

namespace {

constexpr std::size_t LineLength = 512;      // what lies beyond is cut
constexpr std::size_t FileNameLength = 256;  // kept for messages
constexpr std::int32_t MaxThreads = 16;      // design limit, whatever the option says

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsSign(char c) { return c == '+' || c == '-'; }

std::string_view TrimBlanks(std::string_view text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// The text of the number itself: from the first character that is no blank up to a separator.
std::string_view NumberText(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  text.remove_prefix(first);
  return text.substr(0, text.find_first_of(" \t,/"));
}

// A comma or slash where the number should be: no value is given.
bool IsNullValue(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  return first != std::string_view::npos && (text[first] == ',' || text[first] == '/');
}

// Moves `at` past digits and tells how many there were.
std::size_t SkipDigits(std::string_view text, std::size_t& at) {
  const std::size_t start = at;
  while (at < text.size() && IsDigit(text[at])) ++at;
  return at - start;
}

// Rewrites the accepted exponent forms to the one that the converter knows. Empty: not a number.
std::string NormalFloat(std::string_view text) {
  std::string normal;
  std::size_t at = 0;
  if (!text.empty() && IsSign(text[0])) {
    if (text[0] == '-') normal = "-";
    at = 1;
  }
  const std::size_t mantissa = at;
  std::size_t digits = SkipDigits(text, at);
  if (at < text.size() && text[at] == '.') digits += SkipDigits(text, ++at);
  if (digits == 0) return {};
  normal += text.substr(mantissa, at - mantissa);
  if (at == text.size()) return normal;

  const bool letter = std::string_view("EeDd").find(text[at]) != std::string_view::npos;
  if (letter) ++at;
  const bool sign = at < text.size() && IsSign(text[at]);
  if (!letter && !sign) return {};
  normal += 'e';
  if (sign) {
    if (text[at] == '-') normal += '-';
    ++at;
  }
  const std::size_t exponent = at;
  if (SkipDigits(text, at) == 0 || at != text.size()) return {};
  return normal + std::string(text.substr(exponent));
}

bool ReadIntegerOption(std::string_view text, std::int32_t& option, std::int32_t lowest,
                       std::int32_t highest) {
  if (!RUNOPT_PARSEINTEGER(text, option)) return false;
  option = std::clamp(option, lowest, highest);
  return true;
}

bool ReadFloatOption(std::string_view text, float& option, float lowest, float highest) {
  if (!RUNOPT_PARSEFLOAT(text, option)) return false;
  option = std::clamp(option, lowest, highest);
  return true;
}

// Takes the value of the first key that `line` begins with. False: the value can't be read.
bool TakeLine(std::string_view line) {
  constexpr float unlimited = std::numeric_limits<float>::infinity();
  constexpr std::int32_t anyLow = std::numeric_limits<std::int32_t>::min();
  constexpr std::int32_t anyHigh = std::numeric_limits<std::int32_t>::max();
  const auto equals = line.find('=');
  const std::string_view value = equals == std::string_view::npos ? line : line.substr(equals + 1);
  VKCORE::RunOptionValues& o = VKCORE::RunOptions;

  if (line.starts_with("Sys.AvailableMemGB"))
    return ReadFloatOption(value, o.AvailableMemGB, -unlimited, unlimited);
  if (line.starts_with("Sys.MaxNumCompThreads"))
    return ReadIntegerOption(value, o.MaxNumCompThreads, anyLow, anyHigh);
  if (line.starts_with("Sys.ComputationMode"))
    return ReadIntegerOption(value, o.ComputationMode, 0, 2);
  if (line.starts_with("Sta.SupportStiffness"))
    return ReadFloatOption(value, o.SupportStiffness, 0.0f, unlimited);
  if (line.starts_with("Sta.ResponseDumpFac"))
    return ReadFloatOption(value, o.ResponseDumpFac, 0.0f, 0.99f);
  if (line.starts_with("Sta.TopCriteriaCode"))
    return ReadIntegerOption(value, o.TopCriteriaCode, 0, 1);
  if (line.starts_with("Sta.BStressExp")) return ReadIntegerOption(value, o.BStressExp, 1, 24);
  if (line.starts_with("Sta.YieldStressFac"))
    return ReadFloatOption(value, o.YieldStressFac, 0.0f, unlimited);
  if (line.starts_with("Sta.MatSlopeFactor"))
    return ReadFloatOption(value, o.MatSlopeFactor, 10.0f, 10000.0f);
  return true;
}

void TakeText(std::string_view text, const std::string& fileName) {
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    line = TrimBlanks(line.substr(0, LineLength));
    if (line.empty() || line.front() == '*') continue;
    if (!TakeLine(line))
      LOGGER_POSTERRABORT("Bad command line: " + std::string(line) + " in file: " + fileName);
  }
}

}  // namespace

bool RUNOPT_PARSEINTEGER(std::string_view text, std::int32_t& value) {
  if (IsNullValue(text)) return true;
  std::string_view number = NumberText(text);
  if (number.starts_with('+')) {  // the converter knows the minus sign only
    number.remove_prefix(1);
    if (!number.empty() && IsSign(number.front())) return false;
  }
  std::int32_t parsed = 0;
  const auto [end, status] = std::from_chars(number.data(), number.data() + number.size(), parsed);
  if (status != std::errc{} || end != number.data() + number.size()) return false;
  value = parsed;
  return true;
}

bool RUNOPT_PARSEFLOAT(std::string_view text, float& value) {
  if (IsNullValue(text)) return true;
  const std::string number = NormalFloat(NumberText(text));
  if (number.empty()) return false;
  // strtof, not from_chars: the latter has one answer for too large and too small.
  const float parsed = std::strtof(number.c_str(), nullptr);
  if (std::isinf(parsed)) return false;
  value = parsed;
  return true;
}

void RUNOPT_READ([[maybe_unused]] int unit, std::string_view fileName) {
  const std::string name(TrimBlanks(fileName.substr(0, FileNameLength)));
  FileStream stream;
  if (!STREAM_OPENREAD(stream, name)) LOGGER_POSTERRABORT("Error opening file: " + name);
  const auto text = ARRAYS_ALLOCATE<char>(stream.length);
  STREAM_READ(stream, text.get(), stream.length);  // a failed read ends the reading, like the end
  TakeText({text.get(), static_cast<std::size_t>(stream.position)}, name);
  if (!STREAM_CLOSE(stream)) LOGGER_POSTERRABORT("Error closing file: " + name);
}

std::int32_t RUNOPT_TEAMSIZE(std::int32_t request, std::int32_t processors,
                             std::int32_t threadLimit) {
  const std::int64_t available = std::max(processors, 1);
  std::int64_t size = available;
  if (request < 0) size = std::max<std::int64_t>(available + request, 1);
  if (request > 0) size = std::min<std::int64_t>(available, request);
  return static_cast<std::int32_t>(
      std::min({size, static_cast<std::int64_t>(threadLimit), std::int64_t{MaxThreads}}));
}

void RUNOPT_SETTHREADS() {
  VKCORE::NumThreads = RUNOPT_TEAMSIZE(VKCORE::RunOptions.MaxNumCompThreads, omp_get_num_procs(),
                                       omp_get_thread_limit());
  omp_set_num_threads(VKCORE::NumThreads);
  // First outside of the team: some run-times give threads their master's mode at every fork.
  PLATFORM_FLUSHTOZERO();
#pragma omp parallel
  PLATFORM_FLUSHTOZERO();
}
