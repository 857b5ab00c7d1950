#include "run/services/logger.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <iterator>
#include <mutex>

#include "platform/stop.hpp"

namespace {

std::mutex Lock;

// Who holds the lock, and whether the error line is out. A handler that comes in the middle of a
// line can't wait for the lock, which its own thread may hold; it goes by these.
std::atomic<pid_t> Writer = 0;
std::atomic<bool> Closing = false;
std::atomic<bool> ErrorPosted = false;

constexpr int LongestWait = 1000;  // milliseconds, for another thread's line
constexpr std::size_t LongestText = 2048;

std::string_view TrimRight(std::string_view text) {
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

// Held while a line is built and written.
struct Turn {
  Turn() {
    Lock.lock();
    Writer = ::gettid();
    if (!Closing) return;
    Writer = 0;
    for (;;) ::pause();  // the last line is being written, and then the process ends
  }
  ~Turn() {
    Writer = 0;
    Lock.unlock();
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
};

// The parts, one behind the other, in a text of fixed size: a line needs no memory. What doesn't
// fit is cut; no message comes near.
struct Text {
  char characters[LongestText];
  std::size_t length = 0;
};

std::string_view Joined(Text& text, std::initializer_list<std::string_view> parts) {
  for (const std::string_view part : parts)
    text.length += part.copy(text.characters + text.length, LongestText - text.length);
  return {text.characters, text.length};
}

[[noreturn]] void StopByLog(std::string_view what) {
  const std::string& reason = LOGGER::Stream.reason;
  const bool known = !reason.empty();
  Text why;
  PLATFORM_STOP(StopLog, Joined(why, {"cannot ", what, " the log \"", LOGGER::Stream.name, "\"",
                                      known ? " (" : "", reason, known ? ")" : ""}));
}

// One line of the parts and the frame's end.
bool TryWriteLine(std::initializer_list<std::string_view> parts) {
  constexpr std::size_t end = LOGGER::FrameEnd.size() + 1;
  Text line;
  Joined(line, parts);
  line.length = std::min(line.length, LongestText - end);
  Joined(line, {LOGGER::FrameEnd, "\n"});
  return STREAM_WRITE(LOGGER::Stream, line.characters, static_cast<std::int64_t>(line.length));
}

void WriteLine(std::initializer_list<std::string_view> parts) {
  if (!TryWriteLine(parts)) StopByLog("write");
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

void PostInfo(std::string_view message, std::string_view tail) {
  const Turn turn;
  WriteLine({LOGGER::InfoFrame, TrimRight(message), " ", tail});
}

void PostData(std::string_view key, std::string_view value) {
  const Turn turn;
  WriteLine({LOGGER::DataFrame, TrimRight(key), LOGGER::DataValue, value});
}

// `tail`: the code, with a blank ahead, or nothing.
[[noreturn]] void PostErrorAndStop(std::string_view message, std::string_view tail) {
  const Turn turn;
  WriteLine({LOGGER::ErrorFrame, TrimRight(message), tail});
  ErrorPosted = true;
  LOGGER_CLOSE();
  Text why;
  const bool hint = !LOGGER::StopHint.empty();
  PLATFORM_STOP(StopError, Joined(why, {TrimRight(message), tail, hint ? " (" : "",
                                        LOGGER::StopHint, hint ? ")" : ""}));
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
  const Turn turn;
  WriteLine({LOGGER::WarningFrame, TrimRight(message)});
}

void LOGGER_POSTERRABORT(std::string_view message) { PostErrorAndStop(message, ""); }

void LOGGER_POSTERRABORT(std::string_view message, std::int32_t code) {
  char tail[16] = " ";
  const char* end = std::to_chars(tail + 1, std::end(tail), code).ptr;
  PostErrorAndStop(message, {tail, static_cast<std::size_t>(end - tail)});
}

bool LOGGER_POSTLAST(std::string_view text) {
  Closing = true;
  const pid_t self = ::gettid();
  for (int i = 0; i < LongestWait && Writer != 0 && Writer != self; ++i) ::usleep(1000);
  if (ErrorPosted || LOGGER::Stream.descriptor < 0) return true;
  return TryWriteLine({LOGGER::ErrorFrame, text});
}

void LOGGER_CLOSE() {
  if (!STREAM_FLUSH(LOGGER::Stream)) StopByLog("flush");
  if (!STREAM_CLOSE(LOGGER::Stream)) StopByLog("close");
}
