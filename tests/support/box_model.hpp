// A model and its equation system in memory, without files: a box of cells, each cut into six
// tetrahedra around its diagonal. Small ones for tests, large ones for benchmarks.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "elemlib/feinteg.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "run/services/arrays.hpp"
#include "solver/solversta.hpp"

template <class T>
Array<T> Copy(const std::vector<T>& rows) {
  Array<T> array = ARRAYS_ALLOCATE<T>(static_cast<std::int64_t>(rows.size()));
  std::copy(rows.begin(), rows.end(), array.get());
  return array;
}

inline MaterialRecord Steel() {
  MaterialRecord m = {};
  m.MaterialFlags = MaterialIsotropic;
  m.E = 1000.0f;
  m.Nu = 0.25f;
  m.HardeningRatio = 0.001f;
  m.LimitStress = 1.0f;
  return m;
}

inline void SetMaterials(const std::vector<MaterialRecord>& materials) {
  FEMODEL::Materials = Copy(materials);
  FEMODEL::NumMaterials = static_cast<std::int32_t>(materials.size());
  FEMAT_BUILDSTIFFNESS();
}

// Nodes without flags and design points, level value 1.0.
inline void SetNodes(const std::vector<NodeRecord>& nodes) {
  FEMODEL::NodeCoords = Copy(nodes);
  FEMODEL::NumNodes = static_cast<std::int32_t>(nodes.size());
  FEMODEL::NumNodeRows = FEMODEL::NumNodes;
  FEMODEL::NodeFlags = Copy(std::vector<std::int16_t>(nodes.size(), 0));
  FEMODEL::NodeTpIndex = Copy(std::vector<std::int32_t>(nodes.size(), 0));
  FEMODEL::NodeTpFactor = Copy(std::vector<float>(nodes.size(), 1.0f));
}

// Element flags 0, element states 1.0.
inline void SetElements(const std::vector<ElementRecord>& elements) {
  FEMODEL::Elements = Copy(elements);
  FEMODEL::NumElements = static_cast<std::int32_t>(elements.size());
  FEMODEL::ElementFlags = Copy(std::vector<std::int16_t>(elements.size(), 0));
  FELOADCASE::ElementState = Copy(std::vector<float>(elements.size(), 1.0f));
}

// Elements of the rows of Conn40, all of material 1.
inline void SetTetrahedra(const std::vector<ConnRecord<4>>& rows) {
  FEMODEL::Conn40 = Copy(rows);
  FEMODEL::NumConn40 = static_cast<std::int32_t>(rows.size());
  std::vector<ElementRecord> elements;
  for (std::int32_t row = 1; row <= FEMODEL::NumConn40; ++row)
    elements.push_back({1, TypeTet4, row});
  SetElements(elements);
}

// The six ways from corner 0 to the opposite corner along the edges of a cell, each a tetrahedron;
// corners as bits x = 1, y = 2, z = 4.
inline constexpr int CellTetrahedra[6][4] = {{0, 1, 3, 7}, {0, 3, 2, 7}, {0, 2, 6, 7},
                                             {0, 6, 4, 7}, {0, 4, 5, 7}, {0, 5, 1, 7}};

// nx x ny x nz unit cells: nodes x fastest, z slowest; one isotropic material.
inline void SetBox(int nx, int ny, int nz) {
  std::vector<NodeRecord> nodes;
  for (int k = 0; k <= nz; ++k)
    for (int j = 0; j <= ny; ++j)
      for (int i = 0; i <= nx; ++i)
        nodes.push_back({static_cast<float>(i), static_cast<float>(j), static_cast<float>(k)});
  std::vector<ConnRecord<4>> rows;
  for (int k = 0; k < nz; ++k)
    for (int j = 0; j < ny; ++j)
      for (int i = 0; i < nx; ++i)
        for (const auto& corners : CellTetrahedra) {
          ConnRecord<4> row;
          for (int n = 0; n < 4; ++n)
            row.Node[n] =
                1 + i + (corners[n] & 1) +
                (nx + 1) * (j + (corners[n] >> 1 & 1) + (ny + 1) * (k + (corners[n] >> 2 & 1)));
          rows.push_back(row);
        }
  SetNodes(nodes);
  SetMaterials({Steel()});
  SetTetrahedra(rows);
  FEINTEG_INITTETRULES();
}

inline void SetConstraints(const std::vector<NodalConstraintRecord>& rows) {
  FEDOF::NodalConstraints = Copy(rows);
  FEDOF::NumNodalConstraints = static_cast<std::int32_t>(rows.size());
  std::vector<std::int32_t> supports;
  for (std::size_t i = 0; i < rows.size(); ++i)
    if ((rows[i].Kind & ConstraintPenalty) != 0)
      supports.push_back(static_cast<std::int32_t>(i) + 1);
  FELOADCASE::SupportList = Copy(supports);
  FELOADCASE::NumSupports = static_cast<std::int32_t>(supports.size());
}

// Prescribed displacement of a node in the directions of `mask` (bits 0, 1, 2).
inline NodalConstraintRecord Prescribed(std::int32_t node, std::uint16_t mask, float x = 0.0f,
                                        float y = 0.0f, float z = 0.0f) {
  return {0, mask, node, {x, y, z}, {}};
}

// Every node of the plane x = 0 fixed.
inline std::vector<NodalConstraintRecord> ClampedFace() {
  std::vector<NodalConstraintRecord> rows;
  for (std::int32_t node = 1; node <= FEMODEL::NumNodes; ++node)
    if (FEMODEL::NodeCoords[Slot(node)].X == 0.0f) rows.push_back(Prescribed(node, 7));
  return rows;
}

// The numbering for the present constraints, displacements zero.
inline void SetNumbering() {
  FEDOF_BUILDNUMBERING();
  FEDOF::Displacements =
      Copy(std::vector<double>(static_cast<std::size_t>(FEDOF::NumEquations), 0.0));
}

// For each node itself and the neighbours of higher number, ascending.
inline std::vector<std::vector<std::int32_t>> UpperNeighbours() {
  std::vector<std::vector<std::int32_t>> rows(static_cast<std::size_t>(FEMODEL::NumNodes));
  for (std::int32_t node = 1; node <= FEMODEL::NumNodes; ++node)
    rows[static_cast<std::size_t>(Slot(node))].push_back(node);
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    const ElementRecord& element = FEMODEL::Elements[Slot(e)];
    const int count = FEMODEL_NODECOUNT(element.TypeCode);
    for (int a = 0; a < count; ++a)
      for (int b = 0; b < count; ++b) {
        const std::int32_t* nodes = FEMODEL_NODES(element);
        if (nodes[a] < nodes[b]) rows[static_cast<std::size_t>(Slot(nodes[a]))].push_back(nodes[b]);
      }
  }
  for (auto& row : rows) {
    std::sort(row.begin(), row.end());
    row.erase(std::unique(row.begin(), row.end()), row.end());
  }
  return rows;
}

// The raw structure as mxs.sadr has it: all components of all nodes.
struct RawStructure {
  std::int32_t maxBw = 0;
  std::vector<std::int32_t> columns;
  std::vector<std::int64_t> starts{1};
};

inline RawStructure MakeRawStructure() {
  RawStructure raw;
  for (const auto& row : UpperNeighbours())
    for (int k = 1; k <= 3; ++k) {
      for (const std::int32_t node : row)
        for (int c = node == row.front() ? k : 1; c <= 3; ++c)
          raw.columns.push_back(3 * (node - 1) + c);
      raw.starts.push_back(static_cast<std::int64_t>(raw.columns.size()) + 1);
    }
  return raw;
}

// Index pair and uncleared arrays of a system with the given rows and columns.
inline void SetStructure(const std::vector<std::int64_t>& starts,
                         const std::vector<std::int64_t>& columns, bool use4) {
  SOLVERSTA::NumEquations = static_cast<std::int32_t>(starts.size()) - 1;
  SOLVERSTA::NumEntries = static_cast<std::int64_t>(columns.size());
  SOLVERSTA::UseIm4 = use4;
  SOLVERSTA::pR4.reset();
  SOLVERSTA::pC4.reset();
  SOLVERSTA::pR8.reset();
  SOLVERSTA::pC8.reset();
  if (use4) {
    SOLVERSTA::pR4 = Copy(std::vector<std::int32_t>(starts.begin(), starts.end()));
    SOLVERSTA::pC4 = Copy(std::vector<std::int32_t>(columns.begin(), columns.end()));
  } else {
    SOLVERSTA::pR8 = Copy(starts);
    SOLVERSTA::pC8 = Copy(columns);
  }
  SOLVERSTA::SysForces = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
  SOLVERSTA::SysMatrix = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEntries);
  SOLVERSTA::SysRhs = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
  SOLVERSTA::SysScale = ARRAYS_ALLOCATE<double>(SOLVERSTA::NumEquations);
  SOLVERSTA::SysMatrixSP.reset();
}

// The compressed structure of the present numbering.
inline void SetSystem(bool use4) {
  const RawStructure raw = MakeRawStructure();
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  std::vector<std::int64_t> starts{1};
  std::vector<std::int64_t> columns;
  for (std::size_t r = 0; r + 1 < raw.starts.size(); ++r) {
    if (map[r] <= 0) continue;
    for (auto k = raw.starts[r]; k < raw.starts[r + 1]; ++k) {
      const std::int32_t c = map[Slot(raw.columns[static_cast<std::size_t>(Slot(k))])];
      if (c > 0) columns.push_back(c);
    }
    starts.push_back(static_cast<std::int64_t>(columns.size()) + 1);
  }
  SetStructure(starts, columns, use4);
}

inline std::int64_t RowStart(std::int64_t row) {
  return SOLVERSTA::UseIm4 ? std::int64_t{SOLVERSTA::pR4[Slot(row)]} : SOLVERSTA::pR8[Slot(row)];
}

inline std::int64_t ColumnAt(std::int64_t position) {
  return SOLVERSTA::UseIm4 ? std::int64_t{SOLVERSTA::pC4[Slot(position)]}
                           : SOLVERSTA::pC8[Slot(position)];
}
