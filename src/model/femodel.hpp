// Module FEMODEL: the model arrays, loaded once at the start of a run and read-only after that.
// Counts are as the files give them, a later file's count overwriting an earlier one; what the
// passes would use outside an array is refused at loading, so that nothing checks an index later.
#pragma once

#include <cstdint>

#include "model/records.hpp"
#include "platform/slot.hpp"
#include "run/services/arrays.hpp"

namespace FEMODEL {

inline std::int32_t NumMaterials = 0;
inline Array<MaterialRecord> Materials;
inline Array<float> MaterialStiffness;  // [material][9]: C11 C12 C13 C22 C23 C33 S1 S2 S3

inline std::int32_t NumNodes = 0;      // the count of mxs.tpadr
inline std::int32_t NumNodeFlags = 0;  // the count of mxs.nodeflags
inline std::int32_t NumNodeRows = 0;   // nodes with coordinates: what elements may use
inline Array<NodeRecord> NodeCoords;
inline Array<std::int16_t> NodeFlags;
inline Array<std::int32_t> NodeTpIndex;  // 1-based position in the level value list, <= 0: none
inline Array<float> NodeTpFactor;        // level value; mean magnitude of the list scaled to 0.5
inline std::int32_t NumTp = 0;           // length of the level value list

inline std::int32_t NumElements = 0;  // the count of mxs.elemflags
inline Array<ElementRecord> Elements;
inline Array<std::int16_t> ElementFlags;
inline std::int32_t NumConn40 = 0;
inline Array<ConnRecord<4>> Conn40;
inline std::int32_t NumConn60 = 0;
inline Array<ConnRecord<8>> Conn60;
inline std::int32_t NumConn41 = 0;
inline Array<ConnRecord<10>> Conn41;

}  // namespace FEMODEL

// Reads mx.mats, mx.nodes, mxs.nodeflags, mxs.tpadr, mx.elems, mxs.elemflags and mxs.tp, and
// derives MaterialStiffness and NodeTpFactor. Aborts: a file can't be opened, read or closed, an
// array can't be allocated, an index would leave its array.
void FEMODEL_LOAD();

// MaterialStiffness from Materials, in float32; defined in material_stiffness.cpp. A material of no
// known kind gets a row of zeros. Nothing is tested: Nu = 0.5 gives infinite constants.
void FEMAT_BUILDSTIFFNESS();

// Nodes of an element of the type, 0 for an unknown type.
constexpr int FEMODEL_NODECOUNT(std::int16_t typeCode) {
  if (typeCode == TypeTet4) return 4;
  if (typeCode == TypeHex8) return 8;
  if (typeCode == TypeTet10) return 10;
  return 0;
}

// The element's row of 1-based node numbers; null for an unknown type.
inline const std::int32_t* FEMODEL_NODES(const ElementRecord& element) {
  const std::int64_t row = Slot(element.ConnIndex);
  if (element.TypeCode == TypeTet4) return FEMODEL::Conn40[row].Node;
  if (element.TypeCode == TypeHex8) return FEMODEL::Conn60[row].Node;
  if (element.TypeCode == TypeTet10) return FEMODEL::Conn41[row].Node;
  return nullptr;
}

// True for a node (1-based) whose loads are skipped and whose diagonal entries are raised.
inline bool FEMODEL_ISMARKED(std::int64_t node) {
  return (static_cast<std::uint16_t>(FEMODEL::NodeFlags[Slot(node)]) & NodeMarked) != 0;
}

// True when element `element` (1-based) is left out of the model: its record may hold anything.
inline bool FEMODEL_ISEXCLUDED(std::int32_t element) {
  const auto flags = static_cast<std::uint16_t>(FEMODEL::ElementFlags[Slot(element)]);
  return (flags & ElementExcluded) != 0;
}

// An element and what its record leads to: looked up once, handed on by the passes.
struct ElementView {
  std::int32_t number = 0;  // 1-based
  const ElementRecord* record = nullptr;
  int nodeCount = 0;  // 0 for an unknown type, which no pass works on
  // Of a known type:
  const std::int32_t* nodes = nullptr;  // [nodeCount] 1-based node numbers
  const MaterialRecord* material = nullptr;
};

// Element `number`, which must not be excluded.
inline ElementView FEMODEL_ELEMENT(std::int32_t number) {
  const ElementRecord& record = FEMODEL::Elements[Slot(number)];
  const int nodeCount = FEMODEL_NODECOUNT(record.TypeCode);
  if (nodeCount == 0) return {.number = number, .record = &record};
  return {.number = number,
          .record = &record,
          .nodeCount = nodeCount,
          .nodes = FEMODEL_NODES(record),
          .material = &FEMODEL::Materials[Slot(record.MaterialIndex)]};
}
