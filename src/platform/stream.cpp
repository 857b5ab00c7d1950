#include "platform/stream.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace {

constexpr std::int64_t LargestTransfer = std::int64_t{1} << 30;  // system calls stop below 2 GiB

int OpenRetry(const std::string& name, int flags) {
  int descriptor = -1;
  do {
    descriptor = ::open(name.c_str(), flags | O_CLOEXEC, 0666);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

// Non-blocking, so that a pipe without a writer can't hold the run up; it has no effect on the
// regular files that are accepted.
int OpenRegular(const std::string& name, std::int64_t& length) {
  const int descriptor = OpenRetry(name, O_RDONLY | O_NONBLOCK);
  if (descriptor < 0) return -1;
  struct stat info = {};
  if (::fstat(descriptor, &info) == 0 && S_ISREG(info.st_mode)) {
    length = info.st_size;
    return descriptor;
  }
  ::close(descriptor);
  return -1;
}

// What stands in the target's place; only the first two kinds can be replaced by renaming.
enum class Target { Absent, Regular, Other };

Target TargetKind(const std::string& name, struct stat& info) {
  if (::lstat(name.c_str(), &info) != 0) return errno == ENOENT ? Target::Absent : Target::Other;
  return S_ISREG(info.st_mode) ? Target::Regular : Target::Other;
}

// A new file beside the target, by its name and a tilde. What a killed run left there goes; a
// directory of that name stays, and another tilde is tried.
void OpenBeside(FileStream& stream) {
  constexpr int mostTildes = 4;
  stream.besideName = stream.name;
  for (int i = 0; i < mostTildes && stream.descriptor < 0; ++i) {
    stream.besideName += '~';
    ::unlink(stream.besideName.c_str());
    stream.descriptor = OpenRetry(stream.besideName, O_WRONLY | O_CREAT | O_EXCL);
  }
}

// Gives the new file the old one's owner, group and mode, as if it had been overwritten. Where the
// process may not, the new file stays its own.
void TakeOver(int descriptor, const struct stat& old) {
  [[maybe_unused]] const int owner = ::fchown(descriptor, old.st_uid, old.st_gid);
  ::fchmod(descriptor, old.st_mode & 07777);
}

}  // namespace

bool STREAM_EXISTS(std::string_view name) {
  std::int64_t length = 0;
  const int descriptor = OpenRegular(std::string(name), length);
  if (descriptor < 0) return false;
  ::close(descriptor);
  return true;
}

bool STREAM_OPENREAD(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  stream.descriptor = OpenRegular(stream.name, stream.length);
  return stream.descriptor >= 0;
}

bool STREAM_HOLDS(const FileStream& stream, std::int64_t count, std::int64_t rowBytes) {
  return count <= (stream.length - stream.position) / rowBytes;
}

bool STREAM_READ(FileStream& stream, void* data, std::int64_t bytes) {
  auto* target = static_cast<unsigned char*>(data);
  for (std::int64_t done = 0; done < bytes;) {
    const std::int64_t chunk = std::min(bytes - done, LargestTransfer);
    const ssize_t got = ::read(stream.descriptor, target + done, static_cast<std::size_t>(chunk));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += got;
    stream.position += got;
  }
  return true;
}

bool STREAM_OPENREPLACE(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  struct stat old = {};
  const Target target = TargetKind(stream.name, old);
  if (target == Target::Other) {
    stream.descriptor = OpenRetry(stream.name, O_WRONLY | O_CREAT | O_TRUNC);
    return stream.descriptor >= 0;
  }
  // Renaming would silently get past a write protection that an overwriting open respects.
  if (target == Target::Regular && ::access(stream.name.c_str(), W_OK) != 0) return false;
  OpenBeside(stream);
  if (stream.descriptor >= 0 && target == Target::Regular) TakeOver(stream.descriptor, old);
  return stream.descriptor >= 0;
}

bool STREAM_OPENDIRECT(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  stream.descriptor = OpenRetry(stream.name, O_WRONLY | O_CREAT | O_TRUNC);
  return stream.descriptor >= 0;
}

bool STREAM_WRITE(FileStream& stream, const void* data, std::int64_t bytes) {
  const auto* source = static_cast<const unsigned char*>(data);
  for (std::int64_t done = 0; done < bytes;) {
    const std::int64_t chunk = std::min(bytes - done, LargestTransfer);
    const ssize_t put = ::write(stream.descriptor, source + done, static_cast<std::size_t>(chunk));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      stream.writeFailed = true;
      return false;
    }
    done += put;
  }
  return true;
}

bool STREAM_FLUSH(FileStream& stream) {
  if (stream.besideName.empty()) return !stream.writeFailed;
  if (!stream.writeFailed && ::fdatasync(stream.descriptor) != 0) stream.writeFailed = true;
  if (stream.writeFailed) ::unlink(stream.besideName.c_str());
  return !stream.writeFailed;
}

bool STREAM_CLOSE(FileStream& stream) {
  const int descriptor = stream.descriptor;
  stream.descriptor = -1;
  if (::close(descriptor) != 0 || stream.writeFailed) return false;
  if (stream.besideName.empty()) return true;
  return ::rename(stream.besideName.c_str(), stream.name.c_str()) == 0;
}
