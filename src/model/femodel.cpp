#include "model/femodel.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "model/fileio.hpp"
#include "model/files.hpp"

namespace {

using FEMODEL::NumElements;
using FEMODEL::NumNodes;

std::int32_t NumElementRecords = 0;  // rows of mx.elems, where mxs.elemflags may count otherwise

void ReadMaterials() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::Materials.name);
  FILEIO_READVALUE<std::int32_t>();
  FEMODEL::NumMaterials = FILEIO_READVALUE<std::int32_t>();
  const std::int64_t count = std::max(FEMODEL::NumMaterials, 0);
  FILEIO_REQUIRE(count, sizeof(MaterialRecord));
  FEMODEL::Materials = ARRAYS_ALLOCATE<MaterialRecord>(count);
  std::fill_n(FEMODEL::Materials.get(), count, MaterialDefaults);
  FILEIO_READBLOCK(FEMODEL::Materials.get(),
                   count * static_cast<std::int64_t>(sizeof(MaterialRecord)));
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

void ReadNodes() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::Nodes.name);
  FILEIO_READVALUE<std::int32_t>();
  FEMODEL::NodeCoords = FILEIO_READTABLE<NodeRecord>(NumNodes);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
  FEMODEL::NumNodeRows = NumNodes;

  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::NodeFlags.name);
  FEMODEL::NodeFlags = FILEIO_READTABLE<std::int16_t>(NumNodes);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
  FEMODEL::NumNodeFlags = NumNodes;

  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::NodeTpIndex.name);
  FEMODEL::NodeTpIndex = FILEIO_READTABLE<std::int32_t>(NumNodes);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
  FEMODEL::NumNodeRows = std::min(FEMODEL::NumNodeRows, NumNodes);
  constexpr std::int32_t mostNodes = std::numeric_limits<std::int32_t>::max() / 3;
  if (NumNodes > mostNodes)
    FILEIO_INVALIDINDEX(FILES::NodeTpIndex.name);  // equations are counted in int32
}

void ReadElements() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::Elements.name);
  FILEIO_READVALUE<std::int32_t>();
  FEMODEL::Elements = FILEIO_READTABLE<ElementRecord>(NumElementRecords);
  FEMODEL::Conn40 = FILEIO_READTABLE<ConnRecord<4>>(FEMODEL::NumConn40);
  FEMODEL::Conn60 = FILEIO_READTABLE<ConnRecord<8>>(FEMODEL::NumConn60);
  FEMODEL::Conn41 = FILEIO_READTABLE<ConnRecord<10>>(FEMODEL::NumConn41);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);

  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::ElementFlags.name);
  FEMODEL::ElementFlags = FILEIO_READTABLE<std::int16_t>(NumElements);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);
}

// s such that the mean magnitude of s x values is 0.5; 0 if all values are 0. Summed in float32, in
// eight partial sums, so that a long list doesn't lose its tail.
float LevelScale(const float* values, std::int32_t count) {
  if (count < 1) return 1.0f;
  float partial[8] = {};
  for (std::int64_t i = 0; i < count; ++i) partial[i % 8] += std::fabs(values[i]);
  float sum = 0.0f;
  for (const float part : partial) sum += part;
  const float mean = sum / static_cast<float>(count);
  return mean > 0.0f ? 0.5f / mean : mean;
}

void ReadLevelField() {
  FILEIO_OPENREAD(FILEIO::ReadUnit, FILES::Level.name);
  const Array<float> values = FILEIO_READTABLE<float>(FEMODEL::NumTp);
  FILEIO_CLOSEREAD(FILEIO::ReadUnit);

  const std::int32_t last = std::max(FEMODEL::NumTp, 0);
  const float scale = LevelScale(values.get(), FEMODEL::NumTp);
  const std::int64_t count = std::max(NumNodes, 0);
  FEMODEL::NodeTpFactor = ARRAYS_ALLOCATE<float>(count);
  for (std::int64_t i = 0; i < count; ++i) {
    const std::int32_t position = FEMODEL::NodeTpIndex[i];
    if (position > last) FILEIO_INVALIDINDEX(FILES::NodeTpIndex.name);
    FEMODEL::NodeTpFactor[i] = position > 0 ? scale * values[Slot(position)] : 1.0f;
  }
}

bool IsIn(std::int32_t number, std::int32_t count) { return number >= 1 && number <= count; }

std::int32_t ConnCount(std::int16_t typeCode) {
  if (typeCode == TypeTet4) return FEMODEL::NumConn40;
  if (typeCode == TypeHex8) return FEMODEL::NumConn60;
  return FEMODEL::NumConn41;
}

bool HasValidIndices(const ElementRecord& element) {
  if (!IsIn(element.MaterialIndex, FEMODEL::NumMaterials)) return false;
  if (!IsIn(element.ConnIndex, ConnCount(element.TypeCode))) return false;
  const std::int32_t* nodes = FEMODEL_NODES(element);
  return std::all_of(nodes, nodes + FEMODEL_NODECOUNT(element.TypeCode),
                     [](std::int32_t node) { return IsIn(node, FEMODEL::NumNodeRows); });
}

// Everything that the element passes will trust. Excluded elements and unknown types may hold
// anything, since no pass looks at them.
void CheckElements() {
  for (std::int32_t e = 1; e <= NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    if (e > NumElementRecords) FILEIO_INVALIDINDEX(FILES::ElementFlags.name);
    const ElementRecord& element = FEMODEL::Elements[Slot(e)];
    if (FEMODEL_NODECOUNT(element.TypeCode) != 0 && !HasValidIndices(element))
      FILEIO_INVALIDINDEX(FILES::Elements.name);
  }
}

}  // namespace

void FEMODEL_LOAD() {
  ReadMaterials();
  FEMAT_BUILDSTIFFNESS();
  ReadNodes();
  ReadElements();
  ReadLevelField();
  CheckElements();
}
