#include "elements/assembly.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "elements/feelem.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "platform/slot.hpp"
#include "run/services/vkcore.hpp"
#include "solver/system_arrays.hpp"

namespace {

using SOLVERSTA::SysForces;
using SOLVERSTA::SysMatrix;
using SOLVERSTA::SysScale;

constexpr double MarkedDiagonal = 1.0000000001;  // factor on the diagonal of marked nodes

void AtomicAdd(double& target, double value) {
#pragma omp atomic
  target += value;
}

// The threads that will work on a part of an array are the first to touch it.
void ClearInParallel(double* values, std::int64_t count) {
#pragma omp parallel for schedule(static)
  for (std::int64_t i = 0; i < count; ++i) values[i] = 0.0;
}

void AddForces(std::int32_t dofCount, const ElementDofs& dofs, const double* forces) {
  double* target = SysForces.get();
  for (std::int32_t i = 0; i < dofCount; ++i)
    if (dofs[i] > 0) AtomicAdd(target[Slot(dofs[i])], forces[i]);
}

// Position (from 0) of column `column` in the row of `count` ascending columns, or -1. Counting the
// smaller columns has no exit to predict and runs in vector registers.
template <class Index>
std::int64_t FindInRow(const Index* row, std::int64_t count, Index column) {
  std::int64_t smaller = 0;
  for (std::int64_t i = 0; i < count; ++i) smaller += row[i] < column ? 1 : 0;
  return smaller < count && row[smaller] == column ? smaller : -1;
}

// Row of the system that a local equation owns: positions (from 0), and where the next entry is
// sought first. Components of a node are neighbours in a row, so that is the place after the last
// hit.
struct SystemRow {
  std::int64_t first, end, next;
};

// Position of `column` in `row`, or -1. `fromEnd`: distance of the column's last hit from the end
// of its row; the rows of a node's three components end alike, so it mostly holds for the next row
// too.
template <class Index>
std::int64_t FindColumn(const Index* pC, SystemRow& row, std::int32_t column,
                        std::int64_t& fromEnd) {
  const auto sought = static_cast<Index>(column);
  std::int64_t position = row.next;
  if (position >= row.end || pC[position] != sought) position = row.end - fromEnd;
  if (position < row.first || position >= row.end || pC[position] != sought) {
    const std::int64_t at = FindInRow(pC + row.first, row.end - row.first, sought);
    if (at < 0) return -1;
    position = row.first + at;
  }
  row.next = position + 1;
  fromEnd = row.end - position;
  return position;
}

using MatrixPlaces = std::int64_t[MaxElementDofs * (MaxElementDofs + 1) / 2];

// Positions (from 0) of the terms of one matrix in the upper triangle stored by pR, pC, row by row
// from the diagonal on, in the order of the adds. All are found, and asked for from memory, before
// the first add: an atomic add lets no later access overtake it.
template <class Index>
void FindPlaces(const Index* pR, const Index* pC, std::int32_t dofCount, const ElementDofs& dofs,
                MatrixPlaces& places) {
  SystemRow rows[MaxElementDofs];
  std::int64_t fromEnd[MaxElementDofs] = {};
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    const auto first = Slot(static_cast<std::int64_t>(pR[Slot(dofs[i])]));
    rows[i] = {first, Slot(static_cast<std::int64_t>(pR[dofs[i]])), first + 1};
  }
  const double* matrix = SysMatrix.get();
  std::int64_t* place = places;
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    std::int64_t position = rows[i].first;
    *place++ = position;
    __builtin_prefetch(matrix + position, 1);
    for (std::int32_t j = i + 1; j < dofCount; ++j) {
      if (dofs[j] <= 0) continue;
      const std::int32_t owner = dofs[j] <= dofs[i] ? j : i;
      const std::int32_t other = i + j - owner;
      const std::int64_t found = FindColumn(pC, rows[owner], dofs[other], fromEnd[other]);
      if (found >= 0) position = found;  // else the place of the previous add stays in use
      *place++ = position;
      __builtin_prefetch(matrix + position, 1);
    }
  }
}

void AddMatrix(std::int32_t dofCount, const ElementDofs& dofs, const double* matrix,
               std::int32_t stride, const MatrixPlaces& places) {
  double* target = SysMatrix.get();
  const std::int64_t* place = places;
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    for (std::int32_t j = i; j < dofCount; ++j)
      if (dofs[j] > 0) AtomicAdd(target[*place++], matrix[i + j * stride]);
  }
}

void AddSupportForces() {
  for (std::int32_t k = 1; k <= FELOADCASE::NumSupports; ++k) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    SOLVERSTA_SUPPORTFORCE(k, FEDOF::Displacements.get(), dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces);
  }
}

void AddSupportMatrices() {
  for (std::int32_t k = 1; k <= FELOADCASE::NumSupports; ++k) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    double forces[3];
    SupportMatrix matrix;
    SOLVERSTA_SUPPORTMATRIXANDFORCE(k, FEDOF::Displacements.get(), dofCount, dofs, forces, matrix);
    SOLVERSTA_ADDTOFFUSYM(dofCount, dofs, forces, matrix, 3);
  }
}

template <class Index>
void RaiseMarkedDiagonals(const Index* pR) {
  for (std::int64_t node = 0; node < FEMODEL::NumNodes; ++node) {
    if (FEDOF::NodeDofState[node] == FEDOF::NodeStateUnused) continue;
    if (!FEMODEL_ISMARKED(node + 1)) continue;
    for (int k = 0; k < 3; ++k)
      if (const std::int32_t dof = FEDOF::NodeDofMap[3 * node + k]; dof > 0)
        SysMatrix[Slot(static_cast<std::int64_t>(pR[Slot(dof)]))] *= MarkedDiagonal;
  }
}

// SysScale = 1 / sqrt(diagonal), then entry (i, j) by the scales of i and j: a unit diagonal. A
// diagonal that isn't positive gives an infinite or undefined scale, which flows on.
template <class Index>
void ScaleMatrix(const Index* pR, const Index* pC) {
  const std::int32_t n = SOLVERSTA::NumEquations;
  double* matrix = SysMatrix.get();
  double* scale = SysScale.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < n; ++i)
    scale[i] = 1.0 / std::sqrt(matrix[Slot(static_cast<std::int64_t>(pR[i]))]);
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < n; ++i)
    for (auto p = static_cast<std::int64_t>(pR[i]); p < static_cast<std::int64_t>(pR[i + 1]); ++p)
      matrix[Slot(p)] = matrix[Slot(p)] * scale[i] * scale[Slot(pC[Slot(p)])];
}

// u . n - offset of an elastic support's axis.
double SupportGap(const double (&u)[3], const float (&axis)[3], float offset) {
  double along = 0.0;
  for (int k = 0; k < 3; ++k) along += u[k] * static_cast<double>(axis[k]);
  return along - static_cast<double>(offset);
}

const NodalConstraintRecord& SupportRow(std::int32_t k) {
  return FEDOF::NodalConstraints[Slot(FELOADCASE::SupportList[Slot(k)])];
}

// Equations and displacement of the support's node.
void GatherSupport(const NodalConstraintRecord& row, const double* solution, std::int32_t& dofCount,
                   ElementDofs& dofs, double (&u)[3]) {
  dofCount = 3;
  for (int c = 0; c < 3; ++c) {
    dofs[c] = FEDOF::NodeDofMap[3 * Slot(row.Node) + c];
    u[c] = FEDOF_VALUE(dofs[c], c, solution);
  }
}

bool ActsOn(const NodalConstraintRecord& row, int axis) {
  return (row.DofMask & (1u << axis)) != 0;
}

// forces += stiffness gap n over the active axes.
void AddSupportForce(const NodalConstraintRecord& row, const double (&u)[3], double* forces) {
  const auto stiffness = static_cast<double>(VKCORE::RunOptions.SupportStiffness);
  for (int b = 0; b < 3; ++b) {
    if (!ActsOn(row, b)) continue;
    const double gap = SupportGap(u, row.Axis[b], row.Value[b]);
    for (int c = 0; c < 3; ++c) forces[c] += stiffness * gap * static_cast<double>(row.Axis[b][c]);
  }
}

// matrix += stiffness n n-transposed over the active axes, upper triangle.
void AddSupportMatrix(const NodalConstraintRecord& row, SupportMatrix& matrix) {
  const auto stiffness = static_cast<double>(VKCORE::RunOptions.SupportStiffness);
  for (int b = 0; b < 3; ++b) {
    if (!ActsOn(row, b)) continue;
    for (int j = 0; j < 3; ++j)
      for (int i = 0; i <= j; ++i)
        matrix[i + 3 * j] +=
            stiffness * static_cast<double>(row.Axis[b][i]) * static_cast<double>(row.Axis[b][j]);
  }
}

}  // namespace

void SOLVERSTA_ADDTOFFUSYM(std::int32_t dofCount, const ElementDofs& dofs, const double* forces,
                           const double* matrix, std::int32_t stride) {
  MatrixPlaces places;
  SOLVERSTA_WITHINDICES([&](const auto& pR, const auto& pC) {
    FindPlaces(pR.get(), pC.get(), dofCount, dofs, places);
  });
  AddForces(dofCount, dofs, forces);
  AddMatrix(dofCount, dofs, matrix, stride, places);
}

void SOLVERSTA_SUPPORTFORCE(std::int32_t k, const double* solution, std::int32_t& dofCount,
                            ElementDofs& dofs, ElementVector& forces) {
  const NodalConstraintRecord& row = SupportRow(k);
  double u[3];
  GatherSupport(row, solution, dofCount, dofs, u);
  std::fill(std::begin(forces), std::end(forces), 0.0);
  AddSupportForce(row, u, forces);
}

void SOLVERSTA_SUPPORTMATRIXANDFORCE(std::int32_t k, const double* solution, std::int32_t& dofCount,
                                     ElementDofs& dofs, double (&forces)[3],
                                     SupportMatrix& matrix) {
  const NodalConstraintRecord& row = SupportRow(k);
  double u[3];
  GatherSupport(row, solution, dofCount, dofs, u);
  std::fill(std::begin(forces), std::end(forces), 0.0);
  std::fill(std::begin(matrix), std::end(matrix), 0.0);
  AddSupportForce(row, u, forces);
  AddSupportMatrix(row, matrix);
}

void PREPARESYSINTERNALFORCES() {
  ClearInParallel(SysForces.get(), SOLVERSTA::NumEquations);
  AddSupportForces();
  const double* solution = FEDOF::Displacements.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    std::int32_t dofCount = 0;  // stays 0 for an unknown type
    ElementDofs dofs;
    ElementVector forces;
    FEELEM_INTERNALFORCES(FEMODEL_ELEMENT(e), solution, dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces);
  }
}

void PREPARESYSMATRIXANDINTERNALFORCES() {
  SOLVERSTA::SolverReady = false;
  ClearInParallel(SysForces.get(), SOLVERSTA::NumEquations);
  ClearInParallel(SysMatrix.get(), SOLVERSTA::NumEntries);
  AddSupportMatrices();
  const double* solution = FEDOF::Displacements.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    std::int32_t dofCount = 0;  // stays 0 for an unknown type
    ElementDofs dofs;
    ElementVector forces;
    ElementMatrix matrix;
    FEELEM_MATRIXANDFORCES(FEMODEL_ELEMENT(e), solution, dofCount, dofs, forces, matrix);
    SOLVERSTA_ADDTOFFUSYM(dofCount, dofs, forces, matrix, MaxElementDofs);
  }
  SOLVERSTA_WITHINDICES([](const auto& pR, const auto& pC) {
    RaiseMarkedDiagonals(pR.get());
    ScaleMatrix(pR.get(), pC.get());
  });
}
