#include "run/services/logger.hpp"

#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <mutex>

#include "platform/stop.hpp"

namespace {

std::mutex Lock;

std::string TrimRight(std::string_view text) {
  const auto last = text.find_last_not_of(' ');
  return std::string(text.substr(0, last == std::string_view::npos ? 0 : last + 1));
}

[[noreturn]] void StopByLog(std::string_view what) {
  const std::string& reason = LOGGER::Stream.reason;
  PLATFORM_STOP(StopLog, "cannot " + std::string(what) + " the log \"" + LOGGER::Stream.name +
                             "\"" + (reason.empty() ? "" : " (" + reason + ")"));
}

// One line of the parts.
void WriteLine(std::initializer_list<std::string_view> parts) {
  std::string line;
  for (const std::string_view part : parts) line += part;
  line += '\n';
  if (!STREAM_WRITE(LOGGER::Stream, line.data(), static_cast<std::int64_t>(line.size())))
    StopByLog("write");
}

// A value in its field, left-adjusted; asterisks where it doesn't fit.
std::string FieldText(const char* format, float value, std::size_t width) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "Infinity" : "-Infinity";
  char text[64];
  std::snprintf(text, sizeof text, format, static_cast<double>(value));
  const std::string result = text;
  return result.size() > width ? std::string(width, '*') : result;
}

std::string FixedText(float value) { return FieldText("%.5f", value, 12); }
std::string ScientificText(float value) { return FieldText("%.6E", value, 14); }

void PostInfo(std::string_view message, const std::string& tail) {
  const std::lock_guard guard(Lock);
  WriteLine({LOGGER::InfoFrame, TrimRight(message), " ", tail, LOGGER::FrameEnd});
}

void PostData(std::string_view key, const std::string& value) {
  const std::lock_guard guard(Lock);
  WriteLine({LOGGER::DataFrame, TrimRight(key), LOGGER::DataValue, value, LOGGER::FrameEnd});
}

[[noreturn]] void PostErrorAndStop(const std::string& text) {
  const std::lock_guard guard(Lock);
  WriteLine({LOGGER::ErrorFrame, text, LOGGER::FrameEnd});
  LOGGER_CLOSE();
  PLATFORM_STOP(StopError, LOGGER::StopHint.empty() ? text : text + " (" + LOGGER::StopHint + ")");
}

}  // namespace

void LOGGER_OPEN(std::string_view fileName) {
  if (!STREAM_OPENDIRECT(LOGGER::Stream, fileName)) StopByLog("open");
}

void LOGGER_POSTINF(std::string_view message) { PostInfo(message, ""); }

void LOGGER_POSTINF(std::string_view message, std::int32_t number) {
  PostInfo(message, std::to_string(number));
}

void LOGGER_POSTINF(std::string_view message, float value) { PostInfo(message, FixedText(value)); }

void LOGGER_POSTINF(std::string_view message, std::int32_t number, float value) {
  PostInfo(message, std::to_string(number) + " / " + FixedText(value));
}

void LOGGER_POSTDATA(std::string_view key) { PostData(key, ""); }

void LOGGER_POSTDATA(std::string_view key, std::int32_t number) {
  PostData(key, std::to_string(number));
}

void LOGGER_POSTDATA(std::string_view key, float value) { PostData(key, ScientificText(value)); }

void LOGGER_POSTWARN(std::string_view message) {
  const std::lock_guard guard(Lock);
  WriteLine({LOGGER::WarningFrame, TrimRight(message), LOGGER::FrameEnd});
}

void LOGGER_POSTERRABORT(std::string_view message) { PostErrorAndStop(TrimRight(message)); }

void LOGGER_POSTERRABORT(std::string_view message, std::int32_t code) {
  PostErrorAndStop(TrimRight(message) + " " + std::to_string(code));
}

void LOGGER_CLOSE() {
  if (!STREAM_FLUSH(LOGGER::Stream)) StopByLog("flush");
  if (!STREAM_CLOSE(LOGGER::Stream)) StopByLog("close");
}
