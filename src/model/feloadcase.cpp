#include "model/feloadcase.hpp"

#include <algorithm>
#include <string>

#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "model/fenod.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "platform/slot.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/vkcore.hpp"

namespace {

bool IsNode(std::int32_t node) { return node >= 1 && node <= FEMODEL::NumNodes; }

bool AnyMaterialWithState() {
  constexpr std::uint32_t kinds = MaterialYielding | MaterialCompressionOnly;
  for (std::int32_t i = 0; i < FEMODEL::NumMaterials; ++i)
    if ((FEMODEL::Materials[i].MaterialFlags & kinds) != 0) return true;
  return false;
}

// The saved state of all elements from the file being read. False where the file has another count
// or another length than the model asks for; one that can't be read is an error like any other.
bool ReadElementState() {
  const std::int64_t count = FEMODEL::NumElements;
  constexpr auto width = static_cast<std::int64_t>(sizeof(float));
  if (count < 1 || !STREAM_HOLDS(FILEIO::ReadStream, count + 1, width)) return false;
  if (FILEIO_READVALUE<std::int32_t>() != count) return false;
  FILEIO_READBLOCK(FELOADCASE::ElementState.get(), count * width);
  return true;
}

// Sets MatStateMissing. A file of the wrong length is taken as a state of all 1.0, silently.
void LoadElementState(std::int32_t number) {
  const std::string name = FILEIO_NUMBEREDNAME(FILES::ElementState.name, number);
  const std::int32_t count = std::max(FEMODEL::NumElements, 0);
  if (!FELOADCASE::ElementState) FELOADCASE::ElementState = ARRAYS_ALLOCATE<float>(count);
  VKCORE::MatStateMissing = !STREAM_EXISTS(name);
  bool taken = false;
  if (!VKCORE::MatStateMissing) {
    FILEIO_OPENREAD(FILEIO::ReadUnit, name);
    taken = ReadElementState();
    FILEIO_CLOSEREAD(FILEIO::ReadUnit);
  }
  if (!taken) std::fill_n(FELOADCASE::ElementState.get(), count, 1.0f);
}

// Section 4 of the load-case file. Without pairs the array keeps what an earlier load case left.
void ReadNodalScalars(const std::string& name) {
  const auto count = FILEIO_READVALUE<std::int32_t>();
  VKCORE::NoNodalScalars = count == 0;
  if (VKCORE::NoNodalScalars) return;
  const Array<NodalScalarPair> pairs = FILEIO_READARRAY<NodalScalarPair>(count);
  const std::int32_t nodes = std::max(FEMODEL::NumNodes, 0);
  if (!FELOADCASE::NodalScalars) FELOADCASE::NodalScalars = ARRAYS_ALLOCATE<float>(nodes);
  std::fill_n(FELOADCASE::NodalScalars.get(), nodes, 0.0f);
  for (std::int32_t i = 0; i < count; ++i) {
    if (!IsNode(pairs[i].Node)) FILEIO_INVALIDINDEX(name);
    FELOADCASE::NodalScalars[Slot(pairs[i].Node)] = pairs[i].Value;
  }
}

// The node's flags are looked at first; a marked node's force leads no further.
bool IsForceNode(std::int32_t node) {
  return node >= 1 && node <= FEMODEL::NumNodeFlags &&
         (FEMODEL_ISMARKED(node) || node <= FEMODEL::NumNodes);
}

void CheckForceNodes(const NodalForceRecord* rows, std::int32_t count, const std::string& name) {
  for (std::int32_t i = 0; i < count; ++i)
    if (!IsForceNode(rows[i].Node)) FILEIO_INVALIDINDEX(name);
}

// The matrix pass looks at the flags of every node with an equation.
void CheckFlaggedNodes() {
  for (std::int64_t node = std::max(FEMODEL::NumNodeFlags, 0); node < FEMODEL::NumNodes; ++node)
    if (FEDOF::NodeDofState[node] != FEDOF::NodeStateUnused)
      FILEIO_INVALIDINDEX(FILES::NodeFlags.name);
}

// The rows that the passes will follow: every elastic support, and the prescribed displacements
// where a numbering is built from them. A kept numbering must find the rows it refers to.
void CheckConstraints(const std::string& name) {
  constexpr std::uint16_t directions = 7;
  for (std::int32_t i = 0; i < FEDOF::NumNodalConstraints; ++i) {
    const NodalConstraintRecord& row = FEDOF::NodalConstraints[i];
    const bool used =
        FEDOF_ISSUPPORT(row) || (VKCORE::PatternChanged && (row.DofMask & directions) != 0);
    if (used && !IsNode(row.Node)) FILEIO_INVALIDINDEX(name);
  }
  const std::int32_t rows = std::max(FEDOF::NumNodalConstraints, 0);
  if (!VKCORE::PatternChanged && FEDOF::LastPrescribingRow > rows) FILEIO_INVALIDINDEX(name);
}

void ReadLoadCaseFile(std::int32_t number) {
  const std::string name = FILEIO_NUMBEREDNAME(FILES::LoadCaseMap.name, number);
  FILEIO_OPENREAD(FILEIO::ReadUnit, name);
  FEDOF::NodalConstraints = FILEIO_READTABLE<NodalConstraintRecord>(FEDOF::NumNodalConstraints);
  FELOADCASE::NodalForces2 = FILEIO_READTABLE<NodalForceRecord>(FELOADCASE::NumNodalForces2);
  FELOADCASE::NodalForces3 = FILEIO_READTABLE<NodalForceRecord>(FELOADCASE::NumNodalForces3);
  ReadNodalScalars(name);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
  CheckConstraints(name);
  CheckForceNodes(FELOADCASE::NodalForces2.get(), FELOADCASE::NumNodalForces2, name);
  CheckForceNodes(FELOADCASE::NodalForces3.get(), FELOADCASE::NumNodalForces3, name);
}

void BuildSupportList() {
  const NodalConstraintRecord* rows = FEDOF::NodalConstraints.get();
  const std::int32_t count = std::max(FEDOF::NumNodalConstraints, 0);
  FELOADCASE::NumSupports =
      static_cast<std::int32_t>(std::count_if(rows, rows + count, FEDOF_ISSUPPORT));
  FELOADCASE::SupportList = ARRAYS_ALLOCATE<std::int32_t>(FELOADCASE::NumSupports);
  std::int32_t next = 0;
  for (std::int32_t row = 1; row <= count; ++row)
    if (FEDOF_ISSUPPORT(rows[Slot(row)])) FELOADCASE::SupportList[next++] = row;
}

}  // namespace

void FELOADCASE_PREPARE(std::int32_t number, std::int32_t kind, std::int32_t patternIndex) {
  VKCORE::LCaseId = number;
  VKCORE::LoadCaseKind = kind;
  VKCORE::MatStateEnabled = AnyMaterialWithState();
  VKCORE::PatternChanged = patternIndex != FELOADCASE::PreviousPattern;
  FELOADCASE::PreviousPattern = patternIndex;
  VKCORE::MatStateMissing = true;
  if (VKCORE::MatStateEnabled) LoadElementState(number);
  LOGGER_POSTDATA(LOGLINES::LCaseId.text, number);
  LOGGER_POSTINF(LOGLINES::LCasePatInx.text, patternIndex);
  ReadLoadCaseFile(number);
  BuildSupportList();
  if (VKCORE::PatternChanged) {
    FEDOF_BUILDNUMBERING();
    CheckFlaggedNodes();
  }
  FEDOF_REQUIREEQUATIONS();  // a first pattern index of 0 leaves no numbering
  FENOD_LOADDISP(FILEIO::ReadUnit, FILEIO_NUMBEREDNAME(FILES::Displacements.name, number),
                 FEDOF::Displacements.get());
}

void FELOADCASE_SAVESTATE(std::int32_t number) {
  FILEIO_OPENWRITE(FILEIO::WriteUnit, FILEIO_NUMBEREDNAME(FILES::ElementState.name, number));
  FILEIO_WRITEVALUE(FEMODEL::NumElements);
  FILEIO_WRITEARRAY(FELOADCASE::ElementState.get(), FEMODEL::NumElements);
  FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
}
