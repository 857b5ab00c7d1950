// Everything that reads a file of the working directory, on files that may hold anything: each
// input is a whole directory. Beyond the readers, the passes over elements, supports and loads run,
// since they follow the indices that the readers let through; only the solver is left out.
//
// An input is, for each file in the order of FileNames, an int32 length and the bytes; a negative
// length leaves the file out. The mutator changes one file at a time and starts from valid models.
#include <fcntl.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "elements/assembly.hpp"
#include "elements/feelem.hpp"
#include "elemlib/feinteg.hpp"
#include "model/fenod.hpp"
#include "platform/stop.hpp"
#include "response/compsave.hpp"
#include "run/services/runopt.hpp"
#include "solver/analysis.hpp"
#include "support/model_files.hpp"
#include "support/module_state.hpp"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

constexpr std::array<const char*, 16> FileNames = {
    "vk_rund_cmd.txt", "mxs.lcdata",     "mxs.lcflags",    "mx.mats",
    "mx.nodes",        "mxs.nodeflags",  "mxs.tpadr",      "mx.elems",
    "mxs.elemflags",   "mxs.tp",         "mxs.lcmap.0001", "mxs.lcmap.0002",
    "mxs.sadr",        "ws.mstate.0001", "ws.sstate.0001", "ws.tcval.0001"};

struct File {
  bool exists = false;
  std::string content;
};
using Directory = std::array<File, FileNames.size()>;

char WorkingPlace[] = "/dev/shm/vk_fuzz_XXXXXX";

struct Stopped {
  int code;
};

Directory Unpack(std::string_view input) {
  Directory directory;
  for (File& file : directory) {
    std::int32_t length = -1;
    if (input.size() >= sizeof length) {
      std::memcpy(&length, input.data(), sizeof length);
      input.remove_prefix(sizeof length);
    }
    file.exists = length >= 0;
    if (!file.exists) continue;
    file.content = input.substr(0, static_cast<std::size_t>(length));
    input.remove_prefix(file.content.size());
  }
  return directory;
}

std::string Pack(const Directory& directory) {
  std::string input;
  for (const File& file : directory) {
    input += Bytes(file.exists ? static_cast<std::int32_t>(file.content.size()) : -1);
    if (file.exists) input += file.content;
  }
  return input;
}

void Write(const Directory& directory) {
  for (std::size_t i = 0; i < directory.size(); ++i) {
    ::unlink(FileNames[i]);
    if (!directory[i].exists) continue;
    const int descriptor = ::open(FileNames[i], O_WRONLY | O_CREAT, 0600);
    const std::string& content = directory[i].content;
    if (::write(descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
      std::abort();
    ::close(descriptor);
  }
}

ModelFiles AllTypes() {
  ModelFiles model = OneTetrahedron();
  model.nodes = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}, {0, 0, 1},
                 {1, 0, 1}, {0, 1, 1}, {1, 1, 1}, {2, 0, 0}, {0, 2, 0}};
  model.nodeFlags.assign(10, 0);
  model.nodeFlags[7] = static_cast<std::int16_t>(NodeMarked);
  model.levelIndex = {1, 2, 3, 0, 1, 2, 3, 0, 1, 2};
  model.level = {1.0f, -0.5f, 0.25f};
  model.materials.resize(3, model.materials[0]);
  model.materials[1].MaterialFlags = MaterialYielding;
  model.materials[1].YieldStress = 1.0f;
  model.materials[2].MaterialFlags = MaterialCompressionOnly;
  model.elements = {{1, TypeHex8, 1}, {2, TypeTet10, 1}, {3, TypeTet4, 1}};
  model.elementFlags = {0, 2, 0};
  model.conn60 = {{{1, 2, 3, 4, 5, 6, 7, 8}}};
  model.conn41 = {{{1, 9, 10, 5, 2, 4, 3, 6, 8, 7}}};
  return model;
}

// A valid directory: a plain tetrahedron, or one of all types, supports and state files.
Directory Seed(bool full) {
  const ModelFiles model = full ? AllTypes() : OneTetrahedron();
  LoadCaseFile first = PulledTip();
  LoadCaseFile second = PulledTip();
  if (full) {
    first.constraints.push_back(Support(8));
    first.constraints.push_back(Prescribed(9, 2, 0.0f, 0.25f));
    first.forces3 = {{8, 1, 0, 0}};
    second.scalars = {{1, 20.0f}, {2, 30.0f}};
  }
  std::array<std::string, FileNames.size()> contents = {
      "* options\nSta.BStressExp=6\nSta.MatSlopeFactor = 2.5D2 /\nSys.ComputationMode=1\n",
      LoadCaseRecordBytes({Case(1, 1), Case(full ? 1 : 2, 2)}),
      Table(std::vector<std::int32_t>{1, 1}) + Bytes(0.0f) + Bytes(0.0f),
      MaterialBytes(model),
      NodeBytes(model),
      Table(model.nodeFlags),
      Table(model.levelIndex),
      ElementBytes(model),
      Table(model.elementFlags),
      Table(model.level),
      LoadCaseBytes(first),
      LoadCaseBytes(second),
      FullStructureBytes(static_cast<std::int32_t>(model.nodes.size())),
      Table(std::vector<float>(model.elements.size(), 0.5f)),
      Bytes(std::int32_t{1}) + Table(std::vector<float>(3 * model.nodes.size(), 0.25f)),
      Table(model.level)};
  Directory directory;
  for (std::size_t i = 0; i < contents.size(); ++i)
    directory[i] = {full || i < 13, std::move(contents[i])};
  return directory;
}

// What a run does with a load case, up to and from the solver.
void PassOver(std::int32_t number) {
  const LoadCaseRecord& record = RUN::LoadCases[Slot(number)];
  FELOADCASE_PREPARE(number, record.Kind, record.PatternIndex);
  if (VKCORE::PatternChanged) SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, "mxs.sadr");
  PREPARESYSMATRIXANDINTERNALFORCES();
  PREPARESYSINTERNALFORCES();
  VKCORE_FORMRIGHTHANDSIDE();
  VKCORE::TcBlendFactor = 0.5f;
  VKCORE_COMPSAVERESPONSE();
  FENOD_SAVEDISP(FILEIO::WriteUnit, "ws.out", FEDOF::Displacements.get());
}

void RunDirectory() {
  RUNOPT_READ(101, "vk_rund_cmd.txt");
  SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
  RUN_READINPUT();
  for (std::int32_t i = 1; i <= std::min(RUN::NumLoadCases, 4); ++i)
    PassOver(RUN::LoadCases[Slot(i)].RunOrder);
}

// One of the values that counts and indices go wrong at.
void PutOddInteger(std::string& content, std::mt19937& random) {
  if (content.size() < sizeof(std::int32_t)) return;
  constexpr std::int32_t odd[] = {0, 1, 2, 3, 4, 5, 11, -1, -2, 128, 0x7FFFFFFF, -0x7FFFFFFF - 1};
  const std::int32_t value = odd[random() % std::size(odd)];
  const std::size_t words = content.size() / sizeof value;
  std::memcpy(content.data() + random() % words * sizeof value, &value, sizeof value);
}

void MutateContent(std::string& content, std::size_t room, std::mt19937& random) {
  if (random() % 2 == 0) return PutOddInteger(content, random);
  const std::size_t size = content.size();
  content.resize(size + room);
  content.resize(
      LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(content.data()), size, content.size()));
}

// The fuzzer reads its arguments after the working directory has changed.
void MakePathsAbsolute(int count, char** arguments) {
  static std::vector<std::string> absolute(static_cast<std::size_t>(count));
  for (std::size_t i = 1; i < absolute.size(); ++i) {
    const std::string_view argument = arguments[i];
    const std::string_view option = "-artifact_prefix=";
    const std::string_view path =
        argument.starts_with(option) ? argument.substr(option.size()) : argument;
    if (path.empty() || path.starts_with('-')) continue;
    absolute[i] = argument.substr(0, argument.size() - path.size());
    absolute[i] += (std::filesystem::current_path() / path).string();
    arguments[i] = absolute[i].data();
  }
}

}  // namespace

// In the place of the library's, which would end the fuzzer. The log is a device that takes
// everything, so no other code can come.
void PLATFORM_STOP(int code, std::string_view why) {
  if (code != StopError) {
    std::fprintf(stderr, "unexpected stop %d: %.*s\n", code, static_cast<int>(why.size()),
                 why.data());
    std::abort();
  }
  throw Stopped{code};
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  MakePathsAbsolute(*argc, *argv);
  if (::mkdtemp(WorkingPlace) == nullptr || ::chdir(WorkingPlace) != 0) std::abort();
  std::atexit([] { std::filesystem::remove_all(WorkingPlace); });
  omp_set_num_threads(1);
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Write(Unpack({reinterpret_cast<const char*>(data), size}));
  ResetModules();
  LOGGER_OPEN("/dev/null");
  try {
    RunDirectory();
  } catch (const Stopped&) {
    // An error was told: as good an end as any.
  }
  ResetModules();
  return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned int seed) {
  std::mt19937 random(seed);
  constexpr std::size_t smallest = sizeof(std::int32_t) * FileNames.size();
  Directory directory = size < smallest || random() % 64 == 0
                            ? Seed(random() % 2 == 0)
                            : Unpack({reinterpret_cast<const char*>(data), size});
  File& file = directory[random() % directory.size()];
  const std::size_t used = Pack(directory).size();
  if (file.exists && random() % 32 != 0)
    MutateContent(file.content, std::min<std::size_t>(maxSize - std::min(used, maxSize), 64),
                  random);
  else
    file.exists = !file.exists;
  const std::string input = Pack(directory);
  const std::size_t length = std::min(input.size(), maxSize);
  std::memcpy(data, input.data(), length);
  return length;
}
