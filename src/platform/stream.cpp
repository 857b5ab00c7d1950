#include "platform/stream.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>

#include "platform/process.hpp"

namespace {

constexpr std::int64_t LargestTransfer = std::int64_t{1} << 30;  // system calls stop below 2 GiB
constexpr int MostLinks = 40;                                    // one behind the other, as Linux
constexpr char BesideMark = '~';  // between a file's name and the digits of the one replacing it
constexpr std::string_view BesideDigits = "0123456789abcdef";
constexpr std::size_t NumBesideDigits = 16;

// The first failure counts: those behind it are mostly its consequences.
bool Fail(FileStream& stream, std::string_view why) {
  if (stream.reason.empty()) stream.reason = why;
  return false;
}

bool FailBySystem(FileStream& stream, int number) { return Fail(stream, PLATFORM_REASON(number)); }

bool CloseAndFail(FileStream& stream, std::string_view why) {
  ::close(stream.descriptor);
  stream.descriptor = -1;
  return Fail(stream, why);
}

// Never makes a terminal the process's own.
int OpenRetry(const std::string& name, int flags, mode_t mode = 0666) {
  int descriptor = -1;
  do {
    descriptor = ::open(name.c_str(), flags | O_CLOEXEC | O_NOCTTY, mode);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor;
}

template <class Sync>
bool SyncRetry(Sync sync, int descriptor) {
  int status = 0;
  do {
    status = sync(descriptor);
  } while (status != 0 && errno == EINTR);
  return status == 0;
}

bool IsDevice(mode_t mode) { return S_ISCHR(mode) || S_ISBLK(mode); }

std::string_view KindText(mode_t mode) {
  if (S_ISDIR(mode)) return "it is a directory";
  if (S_ISFIFO(mode)) return "it is a pipe";
  if (S_ISSOCK(mode)) return "it is a socket";
  return IsDevice(mode) ? "it is a device" : "it is no regular file";
}

// With the slash, or empty.
std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

std::string NameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Sets the target's name and kind; the kind is 0 where nothing is there yet. Links are followed by
// hand, since the replacement has to lie beside a file that may be still to be made, and such a
// file has no real path to ask for.
bool FollowLinks(FileStream& stream, struct stat& info) {
  stream.target = stream.name;
  for (int links = 0; links <= MostLinks; ++links) {
    info = {};
    if (::lstat(stream.target.c_str(), &info) != 0)
      return errno == ENOENT || FailBySystem(stream, errno);
    if (!S_ISLNK(info.st_mode)) return true;
    char text[PATH_MAX];
    const ssize_t length = ::readlink(stream.target.c_str(), text, sizeof text);
    if (length < 0) return FailBySystem(stream, errno);
    const std::string next(text, static_cast<std::size_t>(length));
    stream.target = next.starts_with('/') ? next : FolderOf(stream.target) + next;
  }
  return FailBySystem(stream, ELOOP);
}

// That names differ is all that is needed where the system has no random bits: a file that is there
// is never opened.
std::uint64_t RandomBits() {
  std::uint64_t bits = 0;
  if (::getrandom(&bits, sizeof bits, GRND_NONBLOCK) == ssize_t{sizeof bits}) return bits;
  static std::uint64_t calls = 0;
  bits = static_cast<std::uint64_t>(PLATFORM_CLOCKCOUNT()) + (++calls << 48);
  return bits * 0x9E3779B97F4A7C15u + static_cast<std::uint64_t>(::getpid());
}

std::string BesideEnding() {
  std::string ending(1, BesideMark);
  std::uint64_t bits = RandomBits();
  for (std::size_t i = 0; i < NumBesideDigits; ++i, bits >>= 4) ending += BesideDigits[bits & 15];
  return ending;
}

// A new file in the target's folder. It is named by the stream and not by the target, whose name
// may be as long as names can be.
bool OpenBeside(FileStream& stream, mode_t mode) {
  constexpr int mostTries = 8;
  const std::string stem = FolderOf(stream.target) + NameIn(stream.name);
  for (int i = 0; i < mostTries; ++i) {
    stream.besideName = stem + BesideEnding();
    stream.descriptor =
        OpenRetry(stream.besideName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
    if (stream.descriptor >= 0) return true;
    if (errno != EEXIST) break;
  }
  return FailBySystem(stream, errno);
}

// Gives the new file the old one's owner, group and mode, as if it had been overwritten. Where the
// process may not, the new file stays its own.
void TakeOver(int descriptor, const struct stat& old) {
  [[maybe_unused]] const int owner = ::fchown(descriptor, old.st_uid, old.st_gid);
  ::fchmod(descriptor, old.st_mode & 07777);
}

bool IsWrittenThrough(mode_t mode) { return S_ISREG(mode) || IsDevice(mode); }

// Takes regular files and devices only. Opening doesn't wait, in case that the kind has changed
// since it was looked at; writing does.
bool OpenThrough(FileStream& stream, int flags) {
  struct stat info = {};
  if (::stat(stream.name.c_str(), &info) == 0 && !IsWrittenThrough(info.st_mode))
    return Fail(stream, KindText(info.st_mode));
  stream.descriptor = OpenRetry(stream.name, O_WRONLY | O_TRUNC | O_NONBLOCK | flags);
  if (stream.descriptor < 0) return FailBySystem(stream, errno);
  if (::fstat(stream.descriptor, &info) != 0) return CloseAndFail(stream, PLATFORM_REASON(errno));
  if (!IsWrittenThrough(info.st_mode)) return CloseAndFail(stream, KindText(info.st_mode));
  if (::fcntl(stream.descriptor, F_SETFL, 0) != 0)
    return CloseAndFail(stream, PLATFORM_REASON(errno));
  return true;
}

// What the sync of a folder answers on file systems that have nothing to do for it.
bool NeedsNoSync(int number) {
  return number == EINVAL || number == ENOTSUP || number == EBADF || number == ENOSYS;
}

// The error number of `sync`, 0 where it did its work or has none. Closes.
template <class Sync>
int SyncAndClose(Sync sync, int descriptor) {
  const int number = SyncRetry(sync, descriptor) || NeedsNoSync(errno) ? 0 : errno;
  ::close(descriptor);
  return number;
}

}  // namespace

bool STREAM_EXISTS(std::string_view name) {
  struct stat info = {};
  if (::stat(std::string(name).c_str(), &info) == 0) return S_ISREG(info.st_mode);
  return errno != ENOENT && errno != ENOTDIR;
}

bool STREAM_OPENREAD(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  stream.descriptor = OpenRetry(stream.name, O_RDONLY | O_NONBLOCK);
  if (stream.descriptor < 0) return FailBySystem(stream, errno);
  struct stat info = {};
  if (::fstat(stream.descriptor, &info) != 0) return CloseAndFail(stream, PLATFORM_REASON(errno));
  if (!S_ISREG(info.st_mode)) return CloseAndFail(stream, KindText(info.st_mode));
  stream.length = info.st_size;
  return true;
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
    if (got < 0) return FailBySystem(stream, errno);
    if (got == 0) return Fail(stream, STREAM_SHORT);
    done += got;
    stream.position += got;
  }
  return true;
}

bool STREAM_OPENREPLACE(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  struct stat old = {};
  if (!FollowLinks(stream, old)) return false;
  if (IsDevice(old.st_mode)) return OpenThrough(stream, 0);
  const bool replaces = S_ISREG(old.st_mode);
  if (!replaces && old.st_mode != 0) return Fail(stream, KindText(old.st_mode));
  // Renaming would silently get past a write protection that an overwriting open respects.
  if (replaces && ::access(stream.target.c_str(), W_OK) != 0) return FailBySystem(stream, errno);
  if (!OpenBeside(stream, replaces ? old.st_mode & 0777 : 0666)) return false;
  if (replaces) TakeOver(stream.descriptor, old);
  return true;
}

bool STREAM_OPENDIRECT(FileStream& stream, std::string_view name) {
  stream = FileStream{};
  stream.name = name;
  return OpenThrough(stream, O_CREAT);
}

bool STREAM_WRITE(FileStream& stream, const void* data, std::int64_t bytes) {
  const auto* source = static_cast<const unsigned char*>(data);
  for (std::int64_t done = 0; done < bytes;) {
    const std::int64_t chunk = std::min(bytes - done, LargestTransfer);
    const ssize_t put = ::write(stream.descriptor, source + done, static_cast<std::size_t>(chunk));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) {
      stream.writeFailed = true;
      return FailBySystem(stream, put < 0 ? errno : ENOSPC);
    }
    done += put;
  }
  return true;
}

bool STREAM_FLUSH(FileStream& stream) {
  if (stream.besideName.empty()) return !stream.writeFailed;
  if (!stream.writeFailed && !SyncRetry(::fdatasync, stream.descriptor))
    stream.writeFailed = !FailBySystem(stream, errno);
  if (stream.writeFailed) STREAM_REMOVE(stream.besideName);
  return !stream.writeFailed;
}

bool STREAM_CLOSE(FileStream& stream) {
  const int descriptor = stream.descriptor;
  stream.descriptor = -1;
  bool whole = !stream.writeFailed;
  if (whole) stream.reason.clear();  // of a read that failed and that the caller did without
  if (::close(descriptor) != 0) whole = FailBySystem(stream, errno);
  if (stream.besideName.empty()) return whole;
  if (whole && ::rename(stream.besideName.c_str(), stream.target.c_str()) != 0)
    whole = FailBySystem(stream, errno);
  if (!whole) STREAM_REMOVE(stream.besideName);
  return whole;
}

bool STREAM_SYNCFOLDER(const std::string& path, std::string& reason) {
  const std::string folder = FolderOf(path);
  int number = 0;
  if (const int opened = OpenRetry(folder.empty() ? "." : folder, O_RDONLY | O_DIRECTORY);
      opened >= 0)
    number = SyncAndClose(::fsync, opened);
  else if (errno != EACCES)
    number = errno;
  // A folder that may be entered and written but not read: its whole file system is brought to the
  // disk, by way of the file that was put there.
  else if (const int file = OpenRetry(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW); file >= 0)
    number = SyncAndClose(::syncfs, file);
  if (number != 0) reason = PLATFORM_REASON(number);
  return number == 0;
}

std::string_view STREAM_REPLACEDBY(std::string_view besideName) {
  if (besideName.size() <= NumBesideDigits + 1) return {};
  const auto mark = besideName.size() - NumBesideDigits - 1;
  const bool fits = besideName[mark] == BesideMark &&
                    besideName.find_first_not_of(BesideDigits, mark + 1) == besideName.npos;
  return fits ? besideName.substr(0, mark) : std::string_view{};
}

std::vector<std::string> STREAM_UNFINISHED() {
  std::vector<std::string> names;
  DIR* folder = ::opendir(".");
  if (folder == nullptr) return names;
  while (const dirent* entry = ::readdir(folder)) {
    struct stat info = {};
    if (!STREAM_REPLACEDBY(entry->d_name).empty() && ::lstat(entry->d_name, &info) == 0 &&
        S_ISREG(info.st_mode))
      names.emplace_back(entry->d_name);
  }
  ::closedir(folder);
  return names;
}

void STREAM_REMOVE(const std::string& name) { ::unlink(name.c_str()); }
