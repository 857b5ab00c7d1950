#include "model/fileio.hpp"

#include <bit>
#include <cassert>

static_assert(std::endian::native == std::endian::little, "files are read and written as they lie");

namespace {

std::string TrimRight(std::string_view text) {
  const auto last = text.find_last_not_of(' ');
  return std::string(text.substr(0, last == std::string_view::npos ? 0 : last + 1));
}

[[noreturn]] void AbortOpening(std::string_view name) {
  LOGGER_POSTERRABORT("Error opening file: " + TrimRight(name));
}

[[noreturn]] void AbortReading() {
  LOGGER_POSTERRABORT("Error reading file: " + FILEIO::ReadStream.name);
}

}  // namespace

void FILEIO_OPENREAD([[maybe_unused]] int unit, std::string_view fileName) {
  assert(unit == FILEIO::ReadUnit);
  if (!STREAM_OPENREAD(FILEIO::ReadStream, TrimRight(fileName))) AbortOpening(fileName);
}

void FILEIO_OPENWRITE([[maybe_unused]] int unit, std::string_view fileName) {
  assert(unit == FILEIO::WriteUnit);
  if (!STREAM_OPENREPLACE(FILEIO::WriteStream, TrimRight(fileName))) AbortOpening(fileName);
}

void FILEIO_CLOSEREAD(int unit) {
  if (!STREAM_CLOSE(FILEIO::ReadStream)) LOGGER_POSTERRABORT("Error closing fileunit: ", unit);
}

void FILEIO_FLUSHCLOSE(int unit) {
  if (!STREAM_FLUSH(FILEIO::WriteStream)) LOGGER_POSTERRABORT("Error flushing file unit: ", unit);
  if (!STREAM_CLOSE(FILEIO::WriteStream)) LOGGER_POSTERRABORT("Error closing file unit: ", unit);
}

void FILEIO_READBLOCK(void* data, std::int64_t bytes) {
  if (!STREAM_READ(FILEIO::ReadStream, data, bytes)) AbortReading();
}

void FILEIO_REQUIRE(std::int64_t count, std::int64_t rowBytes) {
  if (!STREAM_HOLDS(FILEIO::ReadStream, count, rowBytes)) AbortReading();
}

void FILEIO_WRITEBLOCK(const void* data, std::int64_t bytes) {
  STREAM_WRITE(FILEIO::WriteStream, data, bytes);
}

void FILEIO_INVALIDINDEX(std::string_view fileName) {
  LOGGER_POSTERRABORT("Invalid index in file: " + std::string(fileName));
}

std::string FILEIO_NUMBEREDNAME(std::string_view stem, std::int32_t number) {
  if (number < 0 || number > FILEIO::HighestNumber)
    return std::string(stem) + std::string(FILEIO::NoNumber);
  const std::string digits = std::to_string(number);
  return std::string(stem) + std::string(FILEIO::NumberDigits - digits.size(), '0') + digits;
}
