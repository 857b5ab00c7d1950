// What all targets share: an input is a whole working directory, that is, for each file in the
// order of FileNames, an int32 length and the bytes; a negative length leaves the file out. The
// mutator that libFuzzer calls (directory.cpp) starts from valid directories, knows where counts,
// indices and floats stand, and changes a few of them at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include "memory_files.hpp"

inline constexpr std::array<const char*, 20> FileNames = {
    "vk_rund_cmd.txt", "mxs.lcdata",     "mxs.lcflags",    "mx.mats",       "mx.nodes",
    "mxs.nodeflags",   "mxs.tpadr",      "mx.elems",       "mxs.elemflags", "mxs.tp",
    "mxs.lcmap.0001",  "mxs.lcmap.0002", "mxs.lcmap.0003", "mxs.sadr",      "ws.mstate.0001",
    "ws.mstate.0002",  "ws.sstate.0001", "ws.sstate.0002", "ws.tcval.0001", "ws.tcval.0002"};

using Directory = std::array<Content, FileNames.size()>;  // null: the file is missing

using Random = std::minstd_rand;

Directory Unpack(std::string_view input);
std::string Pack(const Directory& directory);

// A valid directory, of which every requested load case can be solved.
Directory Seed(Random& random);

// The directory in memory (memory_files.hpp), in the place of what stood there.
void Write(const Directory& directory);

// Thrown in the place of the end of the process by the stop that the targets are linked with. The
// log can always be written here, so no other code than that of an error can come.
struct Stopped {
  int code;
};

// Ends the fuzzer, as a crash does, with a sentence.
[[noreturn]] void Finding(std::string_view what);
