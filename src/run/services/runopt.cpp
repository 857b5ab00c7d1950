#include "run/services/runopt.hpp"

#include <omp.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>

#include "platform/ending.hpp"
#include "platform/maths/maths.hpp"
#include "platform/process.hpp"
#include "platform/stream.hpp"
#include "platform/threads.hpp"
#include "platform/watch.hpp"
#include "run/services/arrays.hpp"
#include "run/services/logger.hpp"

namespace {

constexpr std::size_t FileNameLength = 256;  // kept for messages

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

bool Parse(std::string_view text, std::int32_t& value) { return RUNOPT_PARSEINTEGER(text, value); }
bool Parse(std::string_view text, float& value) { return RUNOPT_PARSEFLOAT(text, value); }

template <class T>
bool TakeValue(std::string_view text, const RUNOPT::Option<T>& option) {
  T& value = VKCORE::RunOptions.*option.value;
  if (!Parse(text, value)) return false;
  value = std::clamp(value, option.lowest, option.highest);
  return true;
}

// Takes the value of the first key that `line` begins with. False: the value can't be read.
bool TakeLine(std::string_view line) {
  const auto equals = line.find('=');
  const std::string_view text = equals == std::string_view::npos ? line : line.substr(equals + 1);
  for (const RUNOPT::AnyOption& any : RUNOPT::Options) {
    if (!line.starts_with(std::visit([](const auto& option) { return option.key; }, any))) continue;
    return std::visit([&](const auto& option) { return TakeValue(text, option); }, any);
  }
  return true;
}

[[noreturn]] void AbortOpening(const FileStream& stream) {
  LOGGER::StopHint = stream.reason;
  LOGGER_POSTERRABORT("Error opening file: " + stream.name);
}

void TakeText(std::string_view text, const std::string& fileName) {
  while (!text.empty()) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    line = TrimBlanks(line.substr(0, RUNOPT::LineLength));
    if (line.empty() || line.front() == RUNOPT::Comment) continue;
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
  if (!STREAM_OPENREAD(stream, name)) AbortOpening(stream);
  const auto text = ARRAYS_ALLOCATE<char>(stream.length);
  // A file that shrank meanwhile has its end there; one that the system fails to read would lose
  // its options without a word, and counts as one that isn't readable.
  if (!STREAM_READ(stream, text.get(), stream.length) && stream.reason != STREAM_SHORT)
    AbortOpening(stream);
  TakeText({text.get(), static_cast<std::size_t>(stream.position)}, name);
  if (!STREAM_CLOSE(stream)) {
    LOGGER::StopHint = stream.reason;
    LOGGER_POSTERRABORT("Error closing file: " + name);
  }
}

std::int32_t RUNOPT_TEAMSIZE(std::int32_t request, std::int32_t processors,
                             std::int32_t threadLimit) {
  const std::int64_t available = std::max(processors, 1);
  std::int64_t size = available;
  if (request < 0) size = std::max<std::int64_t>(available + request, 1);
  if (request > 0) size = std::min<std::int64_t>(available, request);
  return static_cast<std::int32_t>(
      std::min({size, static_cast<std::int64_t>(threadLimit), std::int64_t{RUNOPT::MaxThreads}}));
}

void RUNOPT_SETTHREADS() {
  MATHS_ENDTHREADS();
  // The run-time starts itself by the first call; where it can't, one of them waits for itself.
  const WATCH::What watched = PLATFORM_WATCH(WATCH::What::Return);
  VKCORE::NumThreads = RUNOPT_TEAMSIZE(VKCORE::RunOptions.MaxNumCompThreads, omp_get_num_procs(),
                                       omp_get_thread_limit());
  // A smaller team is slower; the run-time would end the process.
  VKCORE::NumThreads = PLATFORM_STARTABLETHREADS(VKCORE::NumThreads - 1) + 1;
  omp_set_num_threads(VKCORE::NumThreads);
  // First outside of the team: some run-times give threads their master's mode at every fork.
  PLATFORM_FLUSHTOZERO();
#pragma omp parallel
  {
    PLATFORM_FLUSHTOZERO();
    PLATFORM_GUARDTHREAD();
  }
  PLATFORM_WATCH(watched);
}
