// What must hold after any run, whatever its directory held: results that are marked done are there
// and whole, everything else is as it was, and the log tells it in its frames.
#pragma once

#include <string>

#include "directory.hpp"
#include "memory_files.hpp"

inline constexpr std::size_t FlagsFile = 2;  // in FileNames

std::string LogText();

// After a run that found the files `before`; the modules are still as the run left them. `ended`:
// without an error.
void CheckRun(const MemoryFiles& before, bool ended);

enum Compared { AllFiles, FilesButTheLog };

// Times in the log are passed over.
void CheckSame(const MemoryFiles& first, const MemoryFiles& second, Compared compared = AllFiles);
