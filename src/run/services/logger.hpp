// Module LOGGER: the text log, the program's only report to the outside.
// Each posting is exactly one line, written with one system call, so a reader beside the run sees
// whole lines only. One lock is held over the building and writing of a line; it is taken inside
// these operations and nowhere else. Any thread may post. Nothing may be posted before LOGGER_OPEN
// or after LOGGER_CLOSE. Trailing blanks of messages and keys are cut. A failure of the log itself
// stops the process with 1005.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/stream.hpp"

namespace LOGGER {

inline constexpr std::string_view FileName = "vk_rund_log.txt";

inline FileStream Stream;

// A sentence that explains an error further, for standard error alone; the log stays as prescribed.
inline std::string StopHint;

// A line begins and ends in its frame.
inline constexpr std::string_view InfoFrame = "Info<Msg:";
inline constexpr std::string_view DataFrame = "Data<Key:";
inline constexpr std::string_view DataValue = "><Value:";  // between key and value
inline constexpr std::string_view WarningFrame = "Warning<Msg:";
inline constexpr std::string_view ErrorFrame = "Error<Msg:";
inline constexpr std::string_view FrameEnd = ">";

}  // namespace LOGGER

// Opens the log, replacing an old one.
void LOGGER_OPEN(std::string_view fileName);

// Info<Msg:MESSAGE TAIL>: the tail is the integer, the float with 5 decimals, or both with " / "
// between; without one the line ends in a blank and ">".
void LOGGER_POSTINF(std::string_view message);
void LOGGER_POSTINF(std::string_view message, std::int32_t number);
void LOGGER_POSTINF(std::string_view message, float value);
void LOGGER_POSTINF(std::string_view message, std::int32_t number, float value);

// Data<Key:KEY><Value:VALUE>: an integer, or a float in scientific notation with 6 decimals.
void LOGGER_POSTDATA(std::string_view key);
void LOGGER_POSTDATA(std::string_view key, std::int32_t number);
void LOGGER_POSTDATA(std::string_view key, float value);

// Warning<Msg:MESSAGE>
void LOGGER_POSTWARN(std::string_view message);

// Error<Msg:MESSAGE> or Error<Msg:MESSAGE CODE>, then closes the log and stops with 1010. Keeps the
// lock to the end of the process, so that its line is the last.
[[noreturn]] void LOGGER_POSTERRABORT(std::string_view message);
[[noreturn]] void LOGGER_POSTERRABORT(std::string_view message, std::int32_t code);

// For an end that nobody chose: the error's line, from any thread and from a signal's handler, also
// one that interrupted a posting of its own thread. Nothing is posted behind it. True where the log
// isn't open or an error was posted before; false when the line couldn't be written.
bool LOGGER_POSTLAST(std::string_view text);

// Flushes and closes.
void LOGGER_CLOSE();
