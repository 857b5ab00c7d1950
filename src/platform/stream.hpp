// File streams: raw bytes, whole blocks, no record marks.
// A FileStream is owned by the module that opens it. Every operation answers true when it did all
// it was asked for; otherwise `reason` says why, and the wording of the message belongs to the
// callers. No opening waits for another process.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct FileStream {
  int descriptor = -1;
  std::int64_t length = 0;    // reading: bytes in the file when it was opened
  std::int64_t position = 0;  // reading: bytes read so far
  bool writeFailed = false;   // writing: told by STREAM_FLUSH, like a buffered stream
  std::string name;
  std::string target;      // replacing: the file that `name` leads to, links followed
  std::string besideName;  // replacing: the file that takes the target's place at closing, or empty
  std::string reason;      // of the first failure
};

// False only where there is surely no such file to read: the system calls it missing, or it is no
// regular file. What can't be looked at counts as there, so that opening it tells the failure.
bool STREAM_EXISTS(std::string_view name);

// Opens a regular file for reading; anything else (directory, device, pipe) counts as not openable.
bool STREAM_OPENREAD(FileStream& stream, std::string_view name);

// True when the file holds at least `count` more rows of `rowBytes` bytes. Asked before a count
// from the file is used as a size.
bool STREAM_HOLDS(const FileStream& stream, std::int64_t count, std::int64_t rowBytes);

// The reason where a file holds less than is wanted of it.
inline constexpr std::string_view STREAM_SHORT = "the file ends too early";

// Reads exactly `bytes` bytes.
bool STREAM_READ(FileStream& stream, void* data, std::int64_t bytes);

// Opens a file that replaces `name`, or the file that a link of that name leads to. The bytes go to
// a new file of an unpredictable name in the target's folder, which STREAM_CLOSE renames over the
// target: at no moment is the target missing or torn. A device is written through; a directory, a
// pipe or a socket is refused.
bool STREAM_OPENREPLACE(FileStream& stream, std::string_view name);

// Opens `name` truncated and for direct writing, for a file that others read while it grows: a
// regular file or a device, a link followed.
bool STREAM_OPENDIRECT(FileStream& stream, std::string_view name);

// Writes `bytes` bytes in as few system calls as possible: one for anything shorter than 1 GiB.
bool STREAM_WRITE(FileStream& stream, const void* data, std::int64_t bytes);

// False if any write failed since opening; a file that replaces another is brought to the disk, or
// removed if that can't be done.
bool STREAM_FLUSH(FileStream& stream);

// Closes, and puts a replacing file in its target's place or, where that can't be done, removes it.
// Call it after a STREAM_FLUSH that succeeded; false if a write had failed.
bool STREAM_CLOSE(FileStream& stream);

// Brings to the disk which files the folder of `path` has, so that what was renamed there outlives
// a loss of power. True also where the file system can't do that for a folder.
bool STREAM_SYNCFOLDER(const std::string& path, std::string& reason);

// Of a name that STREAM_OPENREPLACE may give to a new file: the name it replaces. Otherwise empty.
std::string_view STREAM_REPLACEDBY(std::string_view besideName);

// Regular files of such names in the working directory: new files that are being written, or that
// a killed process left. As far as the directory can be read.
std::vector<std::string> STREAM_UNFINISHED();

// Removes a file; nothing is told where that can't be done.
void STREAM_REMOVE(const std::string& name);
