// The binary files of a working directory: their names, and what follows what in each. Readers and
// writers take the names from here; the items are what they read and write, in that order.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "model/records.hpp"
#include "platform/described.hpp"

// One value, or a table of rows. As many rows as the item `count` says, none where that is
// negative, plus `more`; without a count, one row.
struct FileItem {
  std::string_view name;
  Scalar type = Scalar::Int32;
  int columns = 1;                      // values of a row
  const RecordTable* record = nullptr;  // rows are records: no type, no columns
  std::string_view count = {};
  int more = 0;
  std::string_view condition = {};  // without rows unless this item is above 0
  std::string_view meaning = {};
  ValueTable values = {};
};

struct FileTable {
  std::string_view name;  // whole, or the stem that a load-case number is put behind
  bool numbered;
  bool read, written;
  std::string_view meaning;
  std::span<const FileItem> items;
};

constexpr std::int64_t ITEM_ROWBYTES(const FileItem& item) {
  return item.record != nullptr ? item.record->bytes : item.columns * SCALAR_BYTES(item.type);
}

namespace FILES {

inline constexpr FileItem HeaderItem = {.name = "Header", .meaning = "not used"};

// --- load cases

inline constexpr FileItem LoadCaseItems[] = {
    {.name = "NumLoadCases"},
    {.name = "Format", .values = {ValueKind::Codes, LoadCaseFormats}},
    {.name = "LoadCases", .record = &LoadCaseTable, .count = "NumLoadCases"},
};
inline constexpr FileTable LoadCases = {"mxs.lcdata",     false,        true, false,
                                        "the load cases", LoadCaseItems};

inline constexpr FileItem LoadCaseFlagItems[] = {
    {.name = "NumLoadCases"},
    {.name = "LoadCaseFlags",
     .count = "NumLoadCases",
     .meaning = "what is to be run and what is done; other bits are kept",
     .values = {ValueKind::Bits, LoadCaseFlagBits}},
    {.name = "LoadCaseValues",
     .type = Scalar::Float32,
     .count = "NumLoadCases",
     .meaning = "carried along"},
};
inline constexpr FileTable LoadCaseFlags = {
    "mxs.lcflags", false, true, true, "which load cases are run and done", LoadCaseFlagItems};

// --- model

inline constexpr FileItem MaterialItems[] = {
    HeaderItem,
    {.name = "NumMaterials"},
    {.name = "Materials", .record = &MaterialTable, .count = "NumMaterials"},
};
inline constexpr FileTable Materials = {"mx.mats", false, true, false, "materials", MaterialItems};

inline constexpr FileItem NodeItems[] = {
    HeaderItem,
    {.name = "NumNodes"},
    {.name = "NodeCoords", .record = &NodeTable, .count = "NumNodes"},
};
inline constexpr FileTable Nodes = {"mx.nodes", false, true, false, "node coordinates", NodeItems};

inline constexpr FileItem NodeFlagItems[] = {
    {.name = "NumNodes"},
    {.name = "NodeFlags",
     .type = Scalar::Int16,
     .count = "NumNodes",
     .values = {ValueKind::Bits, NodeFlagBits}},
};
inline constexpr FileTable NodeFlags = {"mxs.nodeflags", false,        true,
                                        false,           "node flags", NodeFlagItems};

inline constexpr FileItem NodeTpIndexItems[] = {
    {.name = "NumNodes"},
    {.name = "NodeTpIndex",
     .count = "NumNodes",
     .meaning = "position of the node's level value in mxs.tp, 0 or negative for none (the level "
                "is then 1.0)"},
};
inline constexpr FileTable NodeTpIndex = {
    "mxs.tpadr", false, true, false, "design point of each node", NodeTpIndexItems};

inline constexpr FileItem ElementItems[] = {
    HeaderItem,
    {.name = "NumElements"},
    {.name = "Elements", .record = &ElementTable, .count = "NumElements"},
    {.name = "NumConn40"},
    {.name = "Conn40",
     .columns = 4,
     .count = "NumConn40",
     .meaning = "node numbers of 4-node tetrahedra"},
    {.name = "NumConn60"},
    {.name = "Conn60",
     .columns = 8,
     .count = "NumConn60",
     .meaning = "node numbers of 8-node hexahedra"},
    {.name = "NumConn41"},
    {.name = "Conn41",
     .columns = 10,
     .count = "NumConn41",
     .meaning = "node numbers of 10-node tetrahedra"},
};
inline constexpr FileTable Elements = {"mx.elems",  false, true, false, "elements and their nodes",
                                       ElementItems};

inline constexpr FileItem ElementFlagItems[] = {
    {.name = "NumElements"},
    {.name = "ElementFlags",
     .type = Scalar::Int16,
     .count = "NumElements",
     .values = {ValueKind::Bits, ElementFlagBits}},
};
inline constexpr FileTable ElementFlags = {"mxs.elemflags", false,           true,
                                           false,           "element flags", ElementFlagItems};

inline constexpr FileItem LevelItems[] = {
    {.name = "NumTp"},
    {.name = "Values",
     .type = Scalar::Float32,
     .count = "NumTp",
     .meaning = "level value of each design point: material lies where it is positive"},
};
inline constexpr FileTable Level = {"mxs.tp", false, true, false, "the level field", LevelItems};

// --- one load case

inline constexpr FileItem ElementStateItems[] = {
    {.name = "NumElements"},
    {.name = "ElementState",
     .type = Scalar::Float32,
     .count = "NumElements",
     .meaning = "state factor of each element"},
};
inline constexpr FileTable ElementState = {
    "ws.mstate.", true, true, true, "state of the elements", ElementStateItems};

inline constexpr FileItem LoadCaseMapItems[] = {
    {.name = "NumNodalConstraints"},
    {.name = "NodalConstraints",
     .record = &NodalConstraintTable,
     .count = "NumNodalConstraints",
     .meaning = "supports and prescribed displacements"},
    {.name = "NumNodalForces2"},
    {.name = "NodalForces2",
     .record = &NodalForceTable,
     .count = "NumNodalForces2",
     .meaning = "forces"},
    {.name = "NumNodalForces3"},
    {.name = "NodalForces3",
     .record = &NodalForceTable,
     .count = "NumNodalForces3",
     .meaning = "more forces; both lists act alike"},
    {.name = "NumNodalScalars"},
    {.name = "NodalScalars",
     .record = &NodalScalarTable,
     .count = "NumNodalScalars",
     .meaning = "temperatures; other nodes have 0"},
};
inline constexpr FileTable LoadCaseMap = {
    "mxs.lcmap.", true, true, false, "constraints, forces and temperatures", LoadCaseMapItems};

inline constexpr std::int32_t SaveKind = 1;
inline constexpr NamedValue SaveKinds[] = {{"displacements", SaveKind, "always written"}};

inline constexpr FileItem DisplacementItems[] = {
    {.name = "SaveKind", .meaning = "not used in reading", .values = {ValueKind::Codes, SaveKinds}},
    {.name = "ValueCount", .meaning = "3 x nodes; not used in reading"},
    {.name = "NodalValues",
     .type = Scalar::Float32,
     .count = "ValueCount",
     .meaning = "displacement x, y, z of each node, prescribed ones included"},
};
inline constexpr FileTable Displacements = {"ws.sstate.",     true, true, true, "displacements",
                                            DisplacementItems};

// --- the equation system

inline constexpr FileItem AddressItems[] = {
    {.name = "NumRawRows", .meaning = "rows, 3 x nodes"},
    {.name = "MaxBW", .meaning = "bandwidth figure, logged only"},
    {.name = "NumRawEntries", .type = Scalar::Int64, .meaning = "entries"},
    {.name = "RawColumn",
     .count = "NumRawEntries",
     .condition = "NumRawRows",
     .meaning = "row number of each entry's column; the first entry of a row is its diagonal, the "
                "others are the coupled components of higher number, ascending"},
    {.name = "RawRowStart",
     .type = Scalar::Int64,
     .count = "NumRawRows",
     .more = 1,
     .condition = "NumRawRows",
     .meaning = "position of each row's first entry, counted from 1; the last is entries + 1"},
};
inline constexpr FileTable Addresses = {
    "mxs.sadr", false, true, false, "sparse structure of all components", AddressItems};

// --- results

inline constexpr FileItem CriterionItems[] = {
    {.name = "NumTp"},
    {.name = "TcValues",
     .type = Scalar::Float32,
     .count = "NumTp",
     .meaning = "criterion of each design point"},
};
inline constexpr FileTable Criterion = {"ws.tcval.", true, true, true, "criterion", CriterionItems};

inline constexpr FileItem StressItems[] = {
    {.name = "NumNodes"},
    {.name = "AmsValues",
     .type = Scalar::Float32,
     .count = "NumNodes",
     .meaning = "equivalent stress of each node, with the sign of the mean stress"},
};
inline constexpr FileTable Stress = {"ws.amsval.", true, false, true, "stress", StressItems};

inline constexpr FileItem MagnitudeItems[] = {
    {.name = "NumNodes"},
    {.name = "DisValues",
     .type = Scalar::Float32,
     .count = "NumNodes",
     .meaning = "magnitude of each node's displacement"},
};
inline constexpr FileTable Magnitudes = {"ws.disval.",  true, false, true, "displacement magnitude",
                                         MagnitudeItems};

inline constexpr FileItem TotalsItems[] = {{.name = "Totals", .record = &TotalsTable}};
inline constexpr FileTable Totals = {"ws.comval.", true, false, true, "totals", TotalsItems};

// In the order in which a run meets them.
inline constexpr const FileTable* All[] = {
    &LoadCases, &LoadCaseFlags, &Materials, &Nodes,        &NodeFlags,   &NodeTpIndex,
    &Elements,  &ElementFlags,  &Level,     &ElementState, &LoadCaseMap, &Displacements,
    &Addresses, &Criterion,     &Stress,    &Magnitudes,   &Totals,
};

}  // namespace FILES
