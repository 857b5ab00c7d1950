// A working directory in memory. While it is mounted, system calls that name a file without a
// folder, and those on the descriptors that come of them, work on it; all others, the fuzzer's own
// too, pass through. Targets are linked with these calls wrapped (see CMakeLists.txt): a directory
// of twenty files costs microseconds, and the disk nothing.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Shared by the name and by open descriptors; never changed once the descriptor that made it is
// closed, so that a copy of the list is a picture of the directory.
using Content = std::shared_ptr<std::string>;

struct MemoryFile {
  std::string name;
  Content content;
};
using MemoryFiles = std::vector<MemoryFile>;

namespace MEMORYFILES {

inline MemoryFiles Files;
inline bool Mounted = false;

}  // namespace MEMORYFILES

// Forgets all files and descriptors.
void MEMORYFILES_CLEAR();

void MEMORYFILES_PUT(std::string_view name, Content content);

// The content of that name in a list of files, or null.
Content MEMORYFILES_FIND(const MemoryFiles& files, std::string_view name);
