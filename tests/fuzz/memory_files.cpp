#include "memory_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <vector>

namespace {

using MEMORYFILES::Files;

constexpr int FirstDescriptor = 1 << 20;  // far above those that the system hands out

struct Open {
  Content content;  // null once closed
  std::size_t position = 0;
};
std::vector<Open> Descriptors;  // [descriptor - FirstDescriptor]

bool IsOurs(const char* name) { return MEMORYFILES::Mounted && std::strchr(name, '/') == nullptr; }

bool IsOurs(int descriptor) { return descriptor >= FirstDescriptor; }

int Fail(int error) {
  errno = error;
  return -1;
}

// Null behind a closed descriptor.
Open* At(int descriptor) {
  const auto place = static_cast<std::size_t>(descriptor - FirstDescriptor);
  if (place >= Descriptors.size() || !Descriptors[place].content) return nullptr;
  return &Descriptors[place];
}

// By hand: the fuzzer takes note of what goes through the library's comparison.
bool IsSame(std::string_view one, std::string_view other) {
  if (one.size() != other.size()) return false;
  std::size_t i = 0;
  while (i < one.size() && one[i] == other[i]) ++i;
  return i == one.size();
}

MemoryFiles::iterator Find(std::string_view name) {
  return std::find_if(Files.begin(), Files.end(),
                      [name](const MemoryFile& file) { return IsSame(file.name, name); });
}

int NewDescriptor(Content content) {
  const auto free = std::find_if(Descriptors.begin(), Descriptors.end(),
                                 [](const Open& open) { return !open.content; });
  const auto place = free - Descriptors.begin();
  if (free == Descriptors.end()) Descriptors.emplace_back();
  Descriptors[static_cast<std::size_t>(place)] = {std::move(content), 0};
  return FirstDescriptor + static_cast<int>(place);
}

int OpenFile(const char* name, int flags) {
  if ((flags & O_DIRECTORY) != 0) return NewDescriptor(std::make_shared<std::string>());
  const auto found = Find(name);
  if (found == Files.end() && (flags & O_CREAT) == 0) return Fail(ENOENT);
  if (found != Files.end() && (flags & O_EXCL) != 0) return Fail(EEXIST);
  const bool fresh = found == Files.end() || (flags & O_TRUNC) != 0;
  const Content content = fresh ? std::make_shared<std::string>() : found->content;
  if (fresh) MEMORYFILES_PUT(name, content);
  return NewDescriptor(content);
}

void Describe(const std::string& content, struct stat* info) {
  *info = {};
  info->st_mode = S_IFREG | 0644;
  info->st_nlink = 1;
  info->st_size = static_cast<off_t>(content.size());
}

int DescribeName(const char* name, struct stat* info) {
  const auto found = Find(name);
  if (found == Files.end()) return Fail(ENOENT);
  Describe(*found->content, info);
  return 0;
}

}  // namespace

void MEMORYFILES_CLEAR() {
  Files.clear();
  Descriptors.clear();
}

void MEMORYFILES_PUT(std::string_view name, Content content) {
  const auto found = Find(name);
  if (found != Files.end())
    found->content = std::move(content);
  else
    Files.push_back({std::string(name), std::move(content)});
}

Content MEMORYFILES_FIND(const MemoryFiles& files, std::string_view name) {
  for (const MemoryFile& file : files)
    if (IsSame(file.name, name)) return file.content;
  return nullptr;
}

// The linker's names for the wrapped calls, and for what they wrap.
extern "C" {

int __real_open(const char* name, int flags, ...);
int __real_close(int descriptor);
ssize_t __real_read(int descriptor, void* data, std::size_t bytes);
ssize_t __real_write(int descriptor, const void* data, std::size_t bytes);
int __real_fstat(int descriptor, struct stat* info);
int __real_stat(const char* name, struct stat* info);
int __real_lstat(const char* name, struct stat* info);
int __real_access(const char* name, int mode);
int __real_unlink(const char* name);
int __real_rename(const char* from, const char* to);
int __real_fsync(int descriptor);
int __real_fdatasync(int descriptor);
int __real_fchown(int descriptor, uid_t owner, gid_t group);
int __real_fchmod(int descriptor, mode_t mode);
int __real_fcntl(int descriptor, int command, ...);

int __wrap_open(const char* name, int flags, ...) {
  if (IsOurs(name)) return OpenFile(name, flags);
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = va_arg(rest, mode_t);
  va_end(rest);
  return __real_open(name, flags, mode);
}

int __wrap_close(int descriptor) {
  if (!IsOurs(descriptor)) return __real_close(descriptor);
  Open* open = At(descriptor);
  if (open == nullptr) return Fail(EBADF);
  open->content.reset();
  return 0;
}

ssize_t __wrap_read(int descriptor, void* data, std::size_t bytes) {
  if (!IsOurs(descriptor)) return __real_read(descriptor, data, bytes);
  Open* open = At(descriptor);
  if (open == nullptr) return Fail(EBADF);
  const std::string& content = *open->content;
  const std::size_t count =
      std::min(bytes, content.size() - std::min(open->position, content.size()));
  if (count > 0) std::memcpy(data, content.data() + open->position, count);
  open->position += count;
  return static_cast<ssize_t>(count);
}

ssize_t __wrap_write(int descriptor, const void* data, std::size_t bytes) {
  if (!IsOurs(descriptor)) return __real_write(descriptor, data, bytes);
  Open* open = At(descriptor);
  if (open == nullptr) return Fail(EBADF);
  std::string& content = *open->content;
  content.resize(std::max(content.size(), open->position + bytes));
  if (bytes > 0) std::memcpy(content.data() + open->position, data, bytes);
  open->position += bytes;
  return static_cast<ssize_t>(bytes);
}

int __wrap_fstat(int descriptor, struct stat* info) {
  if (!IsOurs(descriptor)) return __real_fstat(descriptor, info);
  const Open* open = At(descriptor);
  if (open == nullptr) return Fail(EBADF);
  Describe(*open->content, info);
  return 0;
}

int __wrap_stat(const char* name, struct stat* info) {
  return IsOurs(name) ? DescribeName(name, info) : __real_stat(name, info);
}

int __wrap_lstat(const char* name, struct stat* info) {
  return IsOurs(name) ? DescribeName(name, info) : __real_lstat(name, info);
}

int __wrap_access(const char* name, int mode) {
  if (!IsOurs(name)) return __real_access(name, mode);
  return Find(name) != Files.end() ? 0 : Fail(ENOENT);
}

int __wrap_unlink(const char* name) {
  if (!IsOurs(name)) return __real_unlink(name);
  const auto found = Find(name);
  if (found == Files.end()) return Fail(ENOENT);
  Files.erase(found);
  return 0;
}

int __wrap_rename(const char* from, const char* to) {
  if (!IsOurs(from)) return __real_rename(from, to);
  const auto found = Find(from);
  if (found == Files.end()) return Fail(ENOENT);
  const Content content = found->content;
  Files.erase(found);
  MEMORYFILES_PUT(to, content);
  return 0;
}

int __wrap_fsync(int descriptor) { return IsOurs(descriptor) ? 0 : __real_fsync(descriptor); }

int __wrap_fdatasync(int descriptor) {
  return IsOurs(descriptor) ? 0 : __real_fdatasync(descriptor);
}

int __wrap_fchown(int descriptor, uid_t owner, gid_t group) {
  return IsOurs(descriptor) ? 0 : __real_fchown(descriptor, owner, group);
}

int __wrap_fchmod(int descriptor, mode_t mode) {
  return IsOurs(descriptor) ? 0 : __real_fchmod(descriptor, mode);
}

int __wrap_fcntl(int descriptor, int command, ...) {
  if (IsOurs(descriptor)) return 0;
  va_list rest;
  va_start(rest, command);
  void* argument = va_arg(rest, void*);
  va_end(rest);
  return __real_fcntl(descriptor, command, argument);
}

}  // extern "C"
