// Module FILEIO: binary files of the working directory, by unit number.
// Two units exist: 200 reads, 400 writes; each has at most one file open. Unit numbers appear in
// messages. Files are raw little-endian streams, counts ahead of the arrays.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/stream.hpp"
#include "run/services/arrays.hpp"

namespace FILEIO {

inline constexpr int ReadUnit = 200;
inline constexpr int WriteUnit = 400;

// Load-case numbers in file names; one of more digits becomes that many asterisks.
inline constexpr int NumberDigits = 4;
inline constexpr std::int32_t HighestNumber = 9999;
inline constexpr std::string_view NoNumber = "****";

inline FileStream ReadStream;
inline FileStream WriteStream;

// A file of each folder in which files were replaced since FILEIO_SYNCFOLDERS.
inline std::vector<std::string> UnsyncedFolders;

}  // namespace FILEIO

// Open for reading, or for replacing as a whole. Abort: "Error opening file: " and the name.
void FILEIO_OPENREAD(int unit, std::string_view fileName);
void FILEIO_OPENWRITE(int unit, std::string_view fileName);

// Closes a file that was read. Aborts: "Error closing fileunit: " and the unit.
void FILEIO_CLOSEREAD(int unit);

// Flushes and closes a file that was written. Aborts: "Error flushing file unit: " or "Error
// closing file unit: " and the unit.
void FILEIO_FLUSHCLOSE(int unit);

// Brings to the disk that files were replaced; their content is there since FILEIO_FLUSHCLOSE. What
// is renamed later may reach the disk earlier, so this stands between files that rely on another.
// Aborts: "Error flushing file unit: " and the unit.
void FILEIO_SYNCFOLDERS(int unit);

// Removes what killed runs left of the files that they were replacing; a name that merely looks
// alike stays. Only for a run that holds the directory.
void FILEIO_CLEARUNFINISHED();

// One block of bytes from the file being read. Aborts: "Error reading file: " and the name.
void FILEIO_READBLOCK(void* data, std::int64_t bytes);

// Aborts like a short read unless the file being read holds `count` more rows of `rowBytes` bytes:
// asked before a count from a file becomes a size.
void FILEIO_REQUIRE(std::int64_t count, std::int64_t rowBytes);

// One block of bytes to the file being written. A failure shows at FILEIO_FLUSHCLOSE.
void FILEIO_WRITEBLOCK(const void* data, std::int64_t bytes);

// Aborts: "Invalid index in file: " and the name. For an index or count in a file that would be
// used outside its array.
[[noreturn]] void FILEIO_INVALIDINDEX(std::string_view fileName);

// STEM followed by the load-case number as four digits with leading zeros, or by four asterisks.
std::string FILEIO_NUMBEREDNAME(std::string_view stem, std::int32_t number);

template <class T>
T FILEIO_READVALUE() {
  T value{};
  FILEIO_READBLOCK(&value, sizeof value);
  return value;
}

// A new array of max(count, 0) rows with the file's next rows in it; empty tables have no bytes.
template <class T>
Array<T> FILEIO_READARRAY(std::int64_t count) {
  const std::int64_t rows = count > 0 ? count : 0;
  FILEIO_REQUIRE(rows, sizeof(T));
  Array<T> array = ARRAYS_ALLOCATE<T>(rows);
  FILEIO_READBLOCK(array.get(), rows * static_cast<std::int64_t>(sizeof(T)));
  return array;
}

// An int32 count into `count`, then that many rows.
template <class T>
Array<T> FILEIO_READTABLE(std::int32_t& count) {
  count = FILEIO_READVALUE<std::int32_t>();
  return FILEIO_READARRAY<T>(count);
}

template <class T>
void FILEIO_WRITEVALUE(T value) {
  FILEIO_WRITEBLOCK(&value, sizeof value);
}

// The first max(count, 0) rows.
template <class T>
void FILEIO_WRITEARRAY(const T* rows, std::int64_t count) {
  if (count > 0) FILEIO_WRITEBLOCK(rows, count * static_cast<std::int64_t>(sizeof(T)));
}
