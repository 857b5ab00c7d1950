#include "directory.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "memory_files.hpp"
#include "platform/stop.hpp"
#include "support/model_files.hpp"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

enum Place : std::size_t { Options, LoadCases, Flags, Materials };  // of some files in FileNames

template <class Range>
auto& Pick(Range& range, Random& random) {
  return range[random() % std::size(range)];
}

bool OneIn(unsigned count, Random& random) { return random() % count == 0; }

// --- valid directories

ModelFiles UnitCube() {
  ModelFiles model = OneTetrahedron();
  model.nodes = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0},
                 {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};
  model.nodeFlags.assign(8, 0);
  model.levelIndex = {1, 2, 3, 0, 1, 2, 3, 0};
  model.level = {1.0f, -0.5f, 0.25f};
  model.elements = {{1, TypeHex8, 1}};
  model.conn40.clear();
  model.conn60 = {{{1, 2, 4, 3, 5, 6, 8, 7}}};
  return model;
}

ModelFiles Quadratic() {
  ModelFiles model = OneTetrahedron();
  model.nodes = {{0, 0, 0},       {1, 0, 0},    {0, 1, 0},    {0, 0, 1},       {0.5f, 0, 0},
                 {0.5f, 0.5f, 0}, {0, 0.5f, 0}, {0, 0, 0.5f}, {0.5f, 0, 0.5f}, {0, 0.5f, 0.5f}};
  model.nodeFlags.assign(10, 0);
  model.levelIndex = {1, 2, 3, 4, 0, 0, 0, 0, 0, 0};
  model.elements = {{1, TypeTet10, 1}};
  model.conn40.clear();
  model.conn41 = {{{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}}};
  return model;
}

// All types and kinds of materials on ten nodes; the quadratic element is left out of the model.
ModelFiles AllTypes() {
  ModelFiles model = UnitCube();
  model.nodes.push_back({2, 0, 0});
  model.nodes.push_back({0, 2, 0});
  model.nodeFlags.assign(10, 0);
  model.nodeFlags[7] = static_cast<std::int16_t>(NodeMarked);
  model.levelIndex = {1, 2, 3, 0, 1, 2, 3, 0, 1, 2};
  model.materials.resize(3, model.materials[0]);
  model.materials[1].MaterialFlags = MaterialYielding;
  model.materials[1].YieldStress = 1.0f;
  model.materials[2].MaterialFlags = MaterialCompressionOnly;
  model.elements = {{1, TypeHex8, 1}, {2, TypeTet10, 1}, {3, TypeTet4, 1}};
  model.elementFlags = {0, 4, 0};
  model.conn40 = {{{1, 2, 3, 5}}};
  model.conn41 = {{{1, 9, 10, 5, 2, 4, 3, 6, 8, 7}}};
  return model;
}

MaterialRecord Orthotropic() {
  MaterialRecord material = Isotropic(1000.0f, 0.25f);
  material.MaterialFlags = MaterialOrthotropic;
  material.E1 = material.E2 = 1000.0f;
  material.E3 = 500.0f;
  material.Nu12 = material.Nu13 = material.Nu23 = 0.2f;
  material.G12 = material.G13 = material.G23 = 400.0f;
  return material;
}

ModelFiles RandomModel(Random& random) {
  constexpr std::uint32_t kinds[] = {MaterialIsotropic, MaterialIsotropic, MaterialYielding,
                                     MaterialCompressionOnly};
  switch (random() % 4) {
    case 0:
      return AllTypes();
    case 1: {
      ModelFiles cube = UnitCube();
      if (OneIn(2, random)) cube.materials[0] = Orthotropic();
      return cube;
    }
    default: {
      ModelFiles tetrahedron = OneIn(2, random) ? Quadratic() : OneTetrahedron();
      tetrahedron.materials[0].MaterialFlags = Pick(kinds, random);
      tetrahedron.materials[0].YieldStress = 1.0f;
      return tetrahedron;
    }
  }
}

constexpr std::string_view Keys[] = {
    "Sys.AvailableMemGB",   "Sys.MaxNumCompThreads", "Sys.ComputationMode",
    "Sta.SupportStiffness", "Sta.ResponseDumpFac",   "Sta.TopCriteriaCode",
    "Sta.BStressExp",       "Sta.YieldStressFac",    "Sta.MatSlopeFactor"};
constexpr std::string_view Values[] = {"0",       "1",     "2",          "-1",   "0.5",   "1e-30",
                                       "2.5D2 /", "1E38",  ".5,3",       "1000", "-1e-9", "24",
                                       "1e-8",    " 0.99", "2147483647", "9999"};
constexpr std::string_view OddValues[] = {"",  "x",     "1e60", "99999999999",
                                          "-", "1.5.2", "NaN",  "inf"};

std::string OptionLine(Random& random) {
  const std::string_view value = OneIn(16, random) ? Pick(OddValues, random) : Pick(Values, random);
  return std::string(Pick(Keys, random)) + (OneIn(8, random) ? " = " : "=") + std::string(value) +
         "\n";
}

std::string ModeLine(Random& random) {
  return "Sys.ComputationMode=" + std::to_string(random() % 3) + "\n";
}

LoadCaseFile RandomLoadCase(std::size_t nodes, Random& random) {
  LoadCaseFile file = PulledTip();
  const auto last = static_cast<std::int32_t>(nodes);
  if (nodes > 4 && OneIn(2, random)) file.constraints.push_back(Support(last));
  if (nodes > 4 && OneIn(2, random)) file.constraints.push_back(Prescribed(5, 2, 0.0f, 0.25f));
  if (OneIn(2, random)) file.forces3 = {{last, 1, 0, 0}};
  if (OneIn(2, random)) file.scalars = {{1, 20.0f}, {2, 30.0f}};
  return file;
}

// --- mutations

constexpr std::int32_t OddIntegers[] = {0,
                                        1,
                                        2,
                                        3,
                                        4,
                                        5,
                                        6,
                                        7,
                                        8,
                                        10,
                                        11,
                                        30,
                                        -1,
                                        -2,
                                        -3,
                                        40,
                                        41,
                                        60,
                                        127,
                                        128,
                                        9999,
                                        0x7FFFFFFF,
                                        -0x7FFFFFFF - 1};
constexpr std::int16_t OddShorts[] = {0,  1,  2,      3,     4,     7,     8,     -1,    40,
                                      41, 60, 0x0100, 0x104, 0x200, 0x400, 0x7FF, 0x800, -32768};
constexpr float OddFloats[] = {0.0f,
                               -0.0f,
                               1.0f,
                               -1.0f,
                               0.5f,
                               1e-20f,
                               1e20f,
                               -1e20f,
                               1e30f,
                               1e-30f,
                               1e-40f,
                               -0.2f,
                               0.999f,
                               0.001f,
                               1e5f,
                               std::numeric_limits<float>::max(),
                               -std::numeric_limits<float>::max(),
                               std::numeric_limits<float>::min(),
                               std::numeric_limits<float>::denorm_min(),
                               std::numeric_limits<float>::infinity(),
                               -std::numeric_limits<float>::infinity(),
                               std::numeric_limits<float>::quiet_NaN()};

// An offset at which `width` bytes of `content` stand, aligned; the reserved bytes of the load-case
// and material records, which nothing reads, are mostly left alone.
std::size_t PickOffset(const std::string& content, std::size_t width, std::size_t file,
                       Random& random) {
  const std::size_t offset = random() % (content.size() / width) * width;
  if (file == LoadCases && offset >= 8 && !OneIn(16, random))
    return std::min(8 + (offset - 8) / sizeof(LoadCaseRecord) * sizeof(LoadCaseRecord) +
                        random() % 3 * 4 / width * width,
                    content.size() / width * width - width);
  return offset;
}

template <class T>
void PutAt(std::string& content, std::size_t offset, T value) {
  std::memcpy(content.data() + offset, &value, sizeof value);
}

template <class T>
void PutOdd(std::string& content, std::size_t file, T value, Random& random) {
  if (content.size() >= sizeof value)
    PutAt(content, PickOffset(content, sizeof value, file, random), value);
}

// A number near the one that stands there: an index just outside, a count of one more.
void Nudge(std::string& content, std::size_t file, Random& random) {
  if (content.size() < 4) return;
  const std::size_t offset = PickOffset(content, 4, file, random);
  if (OneIn(2, random)) {
    const auto value = static_cast<std::uint32_t>(ValueAt<std::int32_t>(content, offset));
    PutAt(content, offset, OneIn(2, random) ? value + 1 : value - 1);
  } else {
    constexpr float factors[] = {-1.0f, 0.5f, 2.0f, 1e-3f, 1e3f, 1.0001f, 1e10f, 1e-10f};
    PutAt(content, offset, ValueAt<float>(content, offset) * Pick(factors, random));
  }
}

void CopyWord(std::string& content, std::size_t file, Random& random) {
  if (content.size() < 4) return;
  const auto value = ValueAt<std::int32_t>(content, PickOffset(content, 4, file, random));
  PutAt(content, PickOffset(content, 4, file, random), value);
}

void FlipBit(std::string& content, Random& random) {
  if (content.empty()) return;
  char& byte = Pick(content, random);
  byte = static_cast<char>(byte ^ (1 << random() % 8));
}

void CutOrExtend(std::string& content, std::size_t room, Random& random) {
  if (OneIn(2, random))
    content.resize(content.size() - std::min<std::size_t>(content.size(), random() % 9));
  else
    content.append(std::min<std::size_t>(room, random() % 65), OneIn(2, random) ? '\0' : '\1');
}

void Generic(std::string& content, std::size_t room, Random&) {
  const std::size_t size = content.size();
  content.resize(size + room);
  content.resize(
      LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(content.data()), size, content.size()));
}

void MutateOptions(std::string& content, Random& random) {
  if (OneIn(3, random))
    content = OneIn(2, random) ? ModeLine(random) : "* nothing\n" + OptionLine(random);
  else
    content += OneIn(3, random) ? ModeLine(random) : OptionLine(random);
}

void MutateContent(std::size_t file, std::string& content, std::size_t room, Random& random) {
  if (file == Options && !OneIn(4, random)) return MutateOptions(content, random);
  switch (random() % 12) {
    case 0:
    case 1:
    case 2:
      return PutOdd(content, file, Pick(OddIntegers, random), random);
    case 3:
      return PutOdd(content, file, Pick(OddShorts, random), random);
    case 4:
    case 5:
    case 6:
      return PutOdd(content, file, Pick(OddFloats, random), random);
    case 7:
      return Nudge(content, file, random);
    case 8:
      return CopyWord(content, file, random);
    case 9:
      return FlipBit(content, random);
    case 10:
      return CutOrExtend(content, room, random);
    default:
      return Generic(content, room, random);
  }
}

std::size_t PackedSize(const Directory& directory) {
  std::size_t size = sizeof(std::int32_t) * directory.size();
  for (const Content& file : directory)
    if (file) size += file->size();
  return size;
}

void MutateFile(Directory& directory, std::size_t maxSize, Random& random) {
  const std::size_t place = random() % directory.size();
  Content& file = directory[place];
  const std::size_t used = PackedSize(directory);
  if (!file)
    file = std::make_shared<std::string>();
  else if (OneIn(64, random))
    file.reset();
  else
    MutateContent(place, *file, std::min<std::size_t>(maxSize - std::min(used, maxSize), 64),
                  random);
}

std::size_t Store(const Directory& directory, std::uint8_t* data, std::size_t maxSize) {
  const std::string input = Pack(directory);
  const std::size_t length = std::min(input.size(), maxSize);
  std::memcpy(data, input.data(), length);
  return length;
}

std::string_view View(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

}  // namespace

Directory Unpack(std::string_view input) {
  Directory directory;
  for (Content& file : directory) {
    std::int32_t length = -1;
    if (input.size() >= sizeof length) {
      std::memcpy(&length, input.data(), sizeof length);
      input.remove_prefix(sizeof length);
    }
    if (length < 0) continue;
    file = std::make_shared<std::string>(input.substr(0, static_cast<std::size_t>(length)));
    input.remove_prefix(file->size());
  }
  return directory;
}

std::string Pack(const Directory& directory) {
  std::string input;
  input.reserve(PackedSize(directory));
  for (const Content& file : directory) {
    const std::int32_t length = file ? static_cast<std::int32_t>(file->size()) : -1;
    input.append(reinterpret_cast<const char*>(&length), sizeof length);
    if (file) input += *file;
  }
  return input;
}

Directory Seed(Random& random) {
  const ModelFiles model = RandomModel(random);
  const std::size_t nodes = model.nodes.size();
  const bool state = OneIn(2, random);
  std::vector<LoadCaseRecord> records;
  const auto cases = static_cast<std::int32_t>(1 + random() % 3);
  for (std::int32_t i = 1; i <= cases; ++i)
    records.push_back(Case(OneIn(2, random) ? 1 : i, cases + 1 - i));
  const std::string displacements =
      Bytes(std::int32_t{1}) + Table(std::vector<float>(3 * nodes, 0.001f));
  const std::string elementState = Table(std::vector<float>(model.elements.size(), 0.5f));
  // One set of constraints for all, so that load cases of one pattern agree.
  const LoadCaseFile first = RandomLoadCase(nodes, random);
  LoadCaseFile second = RandomLoadCase(nodes, random);
  second.constraints = first.constraints;
  const auto given = [](std::string content) {
    return std::make_shared<std::string>(std::move(content));
  };
  const auto rest = [&](std::string content) {
    return state ? given(std::move(content)) : Content();
  };
  return {given(ModeLine(random) + (OneIn(2, random) ? "Sta.ResponseDumpFac=0.5\n" : "")),
          given(LoadCaseRecordBytes(records)),
          given(Table(std::vector<std::int32_t>(records.size(), LoadCaseRequested)) +
                Bytes(std::vector<float>(records.size(), 0.5f))),
          given(MaterialBytes(model)),
          given(NodeBytes(model)),
          given(Table(model.nodeFlags)),
          given(Table(model.levelIndex)),
          given(ElementBytes(model)),
          given(Table(model.elementFlags)),
          given(Table(model.level)),
          given(LoadCaseBytes(first)),
          given(LoadCaseBytes(second)),
          given(LoadCaseBytes(first)),
          given(FullStructureBytes(static_cast<std::int32_t>(nodes))),
          rest(elementState),
          rest(elementState),
          rest(displacements),
          rest(displacements),
          rest(Table(model.level)),
          rest(Table(model.level))};
}

void Write(const Directory& directory) {
  MEMORYFILES_CLEAR();
  for (std::size_t i = 0; i < directory.size(); ++i)
    if (directory[i]) MEMORYFILES_PUT(FileNames[i], directory[i]);
}

void Finding(std::string_view what) {
  MEMORYFILES::Mounted = false;
  std::fprintf(stderr, "finding: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

void PLATFORM_STOP(int code, std::string_view why) {
  if (code != StopError)
    Finding("unexpected stop " + std::to_string(code) + ": " + std::string(why));
  throw Stopped{code};
}

// Less memory kept back and shorter histories of it, for speed; ASAN_OPTIONS can ask for more when
// a finding is looked at.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1:malloc_context_size=1:quarantine_size_mb=1:"
         "thread_local_quarantine_size_kb=64:max_malloc_fill_size=0";
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned int seed) {
  Random random(seed);
  constexpr std::size_t smallest = sizeof(std::int32_t) * FileNames.size();
  Directory directory =
      size < smallest || OneIn(64, random) ? Seed(random) : Unpack(View(data, size));
  do MutateFile(directory, maxSize, random);
  while (OneIn(2, random));
  return Store(directory, data, maxSize);
}

// Each file from one of the two.
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstSize,
                                                 const std::uint8_t* second, std::size_t secondSize,
                                                 std::uint8_t* data, std::size_t maxSize,
                                                 unsigned int seed) {
  Random random(seed);
  Directory directory = Unpack(View(first, firstSize));
  Directory other = Unpack(View(second, secondSize));
  for (std::size_t i = 0; i < directory.size(); ++i)
    if (OneIn(4, random)) directory[i] = std::move(other[i]);
  return Store(directory, data, maxSize);
}
