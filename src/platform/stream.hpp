// File streams: raw bytes, whole blocks, no record marks.
// A FileStream is owned by the module that opens it. Every operation answers true when it did all
// it was asked for; the wording of failures belongs to the callers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct FileStream {
  int descriptor = -1;
  std::int64_t length = 0;    // reading: bytes in the file when it was opened
  std::int64_t position = 0;  // reading: bytes read so far
  bool writeFailed = false;   // writing: told by STREAM_FLUSH, like a buffered stream
  std::string name;
  std::string besideName;  // writing: the file that takes the target's place at closing, or empty
};

// True when `name` can be opened for reading and is a regular file.
bool STREAM_EXISTS(std::string_view name);

// Opens a regular file for reading; anything else (directory, device, pipe) counts as not openable.
bool STREAM_OPENREAD(FileStream& stream, std::string_view name);

// True when the file holds at least `count` more rows of `rowBytes` bytes. Asked before a count
// from the file is used as a size.
bool STREAM_HOLDS(const FileStream& stream, std::int64_t count, std::int64_t rowBytes);

// Reads exactly `bytes` bytes.
bool STREAM_READ(FileStream& stream, void* data, std::int64_t bytes);

// Opens a file that replaces `name`. If the target is absent or a regular file, the bytes go to a
// file beside it, which STREAM_CLOSE renames over the target: at no moment is the target missing or
// torn. Anything else (a link, a device) is written through.
bool STREAM_OPENREPLACE(FileStream& stream, std::string_view name);

// Opens `name` truncated and for direct writing, for a file that others read while it grows.
bool STREAM_OPENDIRECT(FileStream& stream, std::string_view name);

// Writes `bytes` bytes in as few system calls as possible: one for anything shorter than 1 GiB.
bool STREAM_WRITE(FileStream& stream, const void* data, std::int64_t bytes);

// False if any write failed since opening; a file that replaces another is brought to the disk, or
// removed if that can't be done.
bool STREAM_FLUSH(FileStream& stream);

// Closes, and puts a replacing file in its target's place. Call it after a STREAM_FLUSH that
// succeeded; false if a write had failed.
bool STREAM_CLOSE(FileStream& stream);
