// Complete working directories of a few elements, to be changed by a test and written.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "model/records.hpp"
#include "support/files.hpp"

struct ModelFiles {
  std::vector<MaterialRecord> materials;
  std::vector<NodeRecord> nodes;
  std::vector<std::int16_t> nodeFlags;
  std::vector<std::int32_t> levelIndex;
  std::vector<ElementRecord> elements;
  std::vector<ConnRecord<4>> conn40;
  std::vector<ConnRecord<8>> conn60;
  std::vector<ConnRecord<10>> conn41;
  std::vector<std::int16_t> elementFlags;
  std::vector<float> level;
};

struct LoadCaseFile {
  std::vector<NodalConstraintRecord> constraints;
  std::vector<NodalForceRecord> forces2;
  std::vector<NodalForceRecord> forces3;
  std::vector<NodalScalarPair> scalars;
};

struct LoadCaseTables {
  std::vector<LoadCaseRecord> records;
  std::vector<std::int32_t> flags;
  std::vector<float> values;
};

inline MaterialRecord Isotropic(float e, float nu) {
  MaterialRecord material = {};
  material.MaterialFlags = MaterialIsotropic;
  material.E = e;
  material.Nu = nu;
  material.HardeningRatio = 0.001f;
  material.LimitStress = 1.0f;
  return material;
}

// One tetrahedron with unit edges along the axes; node 4 lies on the z axis.
inline ModelFiles OneTetrahedron() {
  ModelFiles model;
  model.materials = {Isotropic(1000.0f, 0.25f)};
  model.nodes = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  model.nodeFlags = {0, 0, 0, 0};
  model.levelIndex = {1, 2, 3, 4};
  model.elements = {{1, TypeTet4, 1}};
  model.conn40 = {{{1, 2, 3, 4}}};
  model.elementFlags = {0};
  model.level = {1.0f, 1.0f, 1.0f, 1.0f};
  return model;
}

inline std::string MaterialBytes(const ModelFiles& model) {
  return Bytes(std::int32_t{0}) + Table(model.materials);
}

inline std::string NodeBytes(const ModelFiles& model) {
  return Bytes(std::int32_t{0}) + Table(model.nodes);
}

inline std::string ElementBytes(const ModelFiles& model) {
  return Bytes(std::int32_t{0}) + Table(model.elements) + Table(model.conn40) +
         Table(model.conn60) + Table(model.conn41);
}

inline void WriteModel(const ModelFiles& model) {
  WriteFile("mx.mats", MaterialBytes(model));
  WriteFile("mx.nodes", NodeBytes(model));
  WriteFile("mxs.nodeflags", Table(model.nodeFlags));
  WriteFile("mxs.tpadr", Table(model.levelIndex));
  WriteFile("mx.elems", ElementBytes(model));
  WriteFile("mxs.elemflags", Table(model.elementFlags));
  WriteFile("mxs.tp", Table(model.level));
}

inline std::string LoadCaseBytes(const LoadCaseFile& file) {
  return Table(file.constraints) + Table(file.forces2) + Table(file.forces3) + Table(file.scalars);
}

inline std::string Numbered(const std::string& stem, int number) {
  const std::string digits = std::to_string(number);
  return stem + std::string(4 - digits.size(), '0') + digits;
}

inline void WriteLoadCase(int number, const LoadCaseFile& file) {
  WriteFile(Numbered("mxs.lcmap.", number), LoadCaseBytes(file));
}

inline std::string LoadCaseRecordBytes(const std::vector<LoadCaseRecord>& records,
                                       std::int32_t format = LoadCaseFormat) {
  return Bytes(static_cast<std::int32_t>(records.size())) + Bytes(format) + Bytes(records);
}

inline void WriteLoadCaseTables(const LoadCaseTables& tables,
                                std::int32_t format = LoadCaseFormat) {
  WriteFile("mxs.lcdata", LoadCaseRecordBytes(tables.records, format));
  WriteFile("mxs.lcflags", Table(tables.flags) + Bytes(tables.values));
}

// Every component of every node coupled to every other.
inline std::string FullStructureBytes(std::int32_t nodes) {
  const std::int32_t rows = 3 * nodes;
  std::vector<std::int32_t> columns;
  std::vector<std::int64_t> starts = {1};
  for (std::int32_t row = 1; row <= rows; ++row) {
    for (std::int32_t column = row; column <= rows; ++column) columns.push_back(column);
    starts.push_back(static_cast<std::int64_t>(columns.size()) + 1);
  }
  return Bytes(rows) + Bytes(rows) + Bytes(static_cast<std::int64_t>(columns.size())) +
         Bytes(columns) + Bytes(starts);
}

inline void WriteFullStructure(std::int32_t nodes) {
  WriteFile("mxs.sadr", FullStructureBytes(nodes));
}

inline NodalConstraintRecord Prescribed(std::int32_t node, std::uint16_t mask, float x = 0.0f,
                                        float y = 0.0f, float z = 0.0f) {
  NodalConstraintRecord row = {};
  row.DofMask = mask;
  row.Node = node;
  row.Value[0] = x;
  row.Value[1] = y;
  row.Value[2] = z;
  return row;
}

inline NodalConstraintRecord Support(std::int32_t node) {
  NodalConstraintRecord row = Prescribed(node, 7);
  row.Kind = ConstraintPenalty;
  for (int k = 0; k < 3; ++k) row.Axis[k][k] = 1.0f;
  return row;
}

inline LoadCaseRecord Case(std::int32_t pattern, std::int32_t runOrder,
                           std::int32_t kind = LoadCaseStatic) {
  LoadCaseRecord record = {};
  record.Kind = kind;
  record.PatternIndex = pattern;
  record.RunOrder = runOrder;
  return record;
}

// Nodes 1 to 3 held, a force on node 4.
inline LoadCaseFile PulledTip(float force = 1.0f) {
  LoadCaseFile file;
  file.constraints = {Prescribed(1, 7), Prescribed(2, 7), Prescribed(3, 7)};
  file.forces2 = {{4, 0.0f, 0.0f, force}};
  return file;
}
