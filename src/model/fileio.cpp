#include "model/fileio.hpp"

#include <algorithm>
#include <bit>
#include <cassert>

#include "model/files.hpp"

static_assert(std::endian::native == std::endian::little, "files are read and written as they lie");

namespace {

std::string TrimRight(std::string_view text) {
  const auto last = text.find_last_not_of(' ');
  return std::string(text.substr(0, last == std::string_view::npos ? 0 : last + 1));
}

// The messages are prescribed; the reason follows them on standard error.
[[noreturn]] void AbortOpening(const FileStream& stream) {
  LOGGER::StopHint = stream.reason;
  LOGGER_POSTERRABORT("Error opening file: " + stream.name);
}

[[noreturn]] void AbortReading(std::string_view reason) {
  LOGGER::StopHint = reason;
  LOGGER_POSTERRABORT("Error reading file: " + FILEIO::ReadStream.name);
}

// For messages that tell the unit and not the name.
[[noreturn]] void AbortUnit(std::string_view message, int unit, std::string_view name,
                            std::string_view reason) {
  LOGGER::StopHint = std::string(name) + ": " + std::string(reason);
  LOGGER_POSTERRABORT(message, unit);
}

constexpr std::string_view FlushingFailed = "Error flushing file unit: ";

std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

// One file a folder is enough to find the folder again.
void RememberFolder(const FileStream& stream) {
  if (stream.besideName.empty()) return;  // a device
  for (std::string& known : FILEIO::UnsyncedFolders)
    if (FolderOf(known) == FolderOf(stream.target)) return;
  FILEIO::UnsyncedFolders.push_back(stream.target);
}

// What stands behind the stem of a numbered file.
bool IsNumber(std::string_view text) {
  return text == FILEIO::NoNumber ||
         (text.size() == FILEIO::NumberDigits && text.find_first_not_of("0123456789") == text.npos);
}

bool IsWritten(std::string_view name) {
  return std::any_of(std::begin(FILES::All), std::end(FILES::All), [&](const FileTable* file) {
    if (!file->written) return false;
    if (!file->numbered) return name == file->name;
    return name.starts_with(file->name) && IsNumber(name.substr(file->name.size()));
  });
}

}  // namespace

void FILEIO_OPENREAD([[maybe_unused]] int unit, std::string_view fileName) {
  assert(unit == FILEIO::ReadUnit);
  if (!STREAM_OPENREAD(FILEIO::ReadStream, TrimRight(fileName))) AbortOpening(FILEIO::ReadStream);
}

void FILEIO_OPENWRITE([[maybe_unused]] int unit, std::string_view fileName) {
  assert(unit == FILEIO::WriteUnit);
  if (!STREAM_OPENREPLACE(FILEIO::WriteStream, TrimRight(fileName)))
    AbortOpening(FILEIO::WriteStream);
}

void FILEIO_CLOSEREAD(int unit) {
  const FileStream& stream = FILEIO::ReadStream;
  if (!STREAM_CLOSE(FILEIO::ReadStream))
    AbortUnit("Error closing fileunit: ", unit, stream.name, stream.reason);
}

void FILEIO_FLUSHCLOSE(int unit) {
  const FileStream& stream = FILEIO::WriteStream;
  if (!STREAM_FLUSH(FILEIO::WriteStream))
    AbortUnit(FlushingFailed, unit, stream.name, stream.reason);
  if (!STREAM_CLOSE(FILEIO::WriteStream))
    AbortUnit("Error closing file unit: ", unit, stream.name, stream.reason);
  RememberFolder(stream);
}

void FILEIO_SYNCFOLDERS(int unit) {
  for (const std::string& file : FILEIO::UnsyncedFolders) {
    std::string reason;
    if (!STREAM_SYNCFOLDER(file, reason))
      AbortUnit(FlushingFailed, unit, "the folder of " + file, reason);
  }
  FILEIO::UnsyncedFolders.clear();
}

void FILEIO_CLEARUNFINISHED() {
  for (const std::string& name : STREAM_UNFINISHED())
    if (IsWritten(STREAM_REPLACEDBY(name))) STREAM_REMOVE(name);
}

void FILEIO_READBLOCK(void* data, std::int64_t bytes) {
  if (!STREAM_READ(FILEIO::ReadStream, data, bytes)) AbortReading(FILEIO::ReadStream.reason);
}

void FILEIO_REQUIRE(std::int64_t count, std::int64_t rowBytes) {
  if (!STREAM_HOLDS(FILEIO::ReadStream, count, rowBytes)) AbortReading(STREAM_SHORT);
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
