#include "elements/assembly.hpp"

#include <algorithm>
#include <cmath>

#include "elements/feelem.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "platform/slot.hpp"
#include "run/services/vkcore.hpp"
#include "solver/solversta.hpp"

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
  for (std::int32_t i = 0; i < dofCount; ++i)
    if (dofs[i] > 0) AtomicAdd(SysForces[Slot(dofs[i])], forces[i]);
}

// Position (from 0) of column `column` in the row of `count` ascending columns, or -1. Counting the
// smaller columns has no exit to predict and runs in vector registers.
template <class Index>
std::int64_t FindInRow(const Index* row, std::int64_t count, Index column) {
  std::int64_t smaller = 0;
  for (std::int64_t i = 0; i < count; ++i) smaller += row[i] < column ? 1 : 0;
  return smaller < count && row[smaller] == column ? smaller : -1;
}

// Scatter of one matrix into the upper triangle stored by pR, pC. The entry sought in a row mostly
// follows the last hit in that row, since components of a node are neighbours: `next` keeps the
// place after the last hit for the row of each local equation.
template <class Index>
void AddMatrix(const Index* pR, const Index* pC, std::int32_t dofCount, const ElementDofs& dofs,
               const double* forces, const double* matrix, std::int32_t stride) {
  std::int64_t next[MaxElementDofs];
  for (std::int32_t i = 0; i < dofCount; ++i)  // at first the place after the diagonal
    next[i] = dofs[i] > 0 ? static_cast<std::int64_t>(pR[Slot(dofs[i])]) : 0;
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    AtomicAdd(SysForces[Slot(dofs[i])], forces[i]);
    std::int64_t position = Slot(static_cast<std::int64_t>(pR[Slot(dofs[i])]));
    AtomicAdd(SysMatrix[position], matrix[i + i * stride]);
    for (std::int32_t j = i + 1; j < dofCount; ++j) {
      if (dofs[j] <= 0) continue;
      const bool swapped = dofs[j] <= dofs[i];
      const std::int32_t owner = swapped ? j : i;
      const auto column = static_cast<Index>(swapped ? dofs[i] : dofs[j]);
      const std::int64_t first = Slot(static_cast<std::int64_t>(pR[Slot(dofs[owner])]));
      const std::int64_t end = Slot(static_cast<std::int64_t>(pR[Slot(dofs[owner] + 1)]));
      if (next[owner] < end && pC[next[owner]] == column) {
        position = next[owner]++;
      } else if (const std::int64_t at = FindInRow(pC + first, end - first, column); at >= 0) {
        position = first + at;
        next[owner] = position + 1;
      }
      AtomicAdd(SysMatrix[position], matrix[i + j * stride]);
    }
  }
}

void AddSupportForces() {
  for (std::int32_t k = 1; k <= FELOADCASE::NumSupports; ++k) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    SOLVERSTA_SUPPORTFORCE(k, FELOADCASE::Displacements.get(), dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces);
  }
}

void AddSupportMatrices() {
  for (std::int32_t k = 1; k <= FELOADCASE::NumSupports; ++k) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    double forces[3];
    SupportMatrix matrix;
    SOLVERSTA_SUPPORTMATRIXANDFORCE(k, FELOADCASE::Displacements.get(), dofCount, dofs, forces,
                                    matrix);
    SOLVERSTA_ADDTOFFUSYM(dofCount, dofs, forces, matrix, 3);
  }
}

template <class Index>
void RaiseMarkedDiagonals(const Index* pR) {
  for (std::int64_t node = 0; node < FEMODEL::NumNodes; ++node) {
    if (FELOADCASE::NodeDofState[node] == FELOADCASE::NodeStateUnused) continue;
    if ((static_cast<std::uint16_t>(FEMODEL::NodeFlags[node]) & NodeMarked) == 0) continue;
    for (int k = 0; k < 3; ++k)
      if (const std::int32_t dof = FELOADCASE::NodeDofMap[3 * node + k]; dof > 0)
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
  return FELOADCASE::NodalConstraints[Slot(FELOADCASE::SupportList[Slot(k)])];
}

// Equations and displacement of the support's node.
void GatherSupport(const NodalConstraintRecord& row, const double* solution, std::int32_t& dofCount,
                   ElementDofs& dofs, double (&u)[3]) {
  dofCount = 3;
  for (int c = 0; c < 3; ++c) {
    dofs[c] = FELOADCASE::NodeDofMap[3 * Slot(row.Node) + c];
    u[c] = FELOADCASE_DOFVALUE(dofs[c], c, solution);
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
  if (SOLVERSTA::UseIm4)
    AddMatrix(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), dofCount, dofs, forces, matrix, stride);
  else
    AddMatrix(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(), dofCount, dofs, forces, matrix, stride);
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
  const double* solution = FELOADCASE::Displacements.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t element = 1; element <= FEMODEL::NumElements; ++element) {
    if (!FEMODEL_ISACTIVE(element)) continue;
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    FEELEM_INTERNALFORCES(element, solution, dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces);
  }
}

void PREPARESYSMATRIXANDINTERNALFORCES() {
  SOLVERSTA::SolverReady = false;
  ClearInParallel(SysForces.get(), SOLVERSTA::NumEquations);
  ClearInParallel(SysMatrix.get(), SOLVERSTA::NumEntries);
  AddSupportMatrices();
  const double* solution = FELOADCASE::Displacements.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t element = 1; element <= FEMODEL::NumElements; ++element) {
    if (!FEMODEL_ISACTIVE(element)) continue;
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    ElementMatrix matrix;
    FEELEM_MATRIXANDFORCES(element, solution, dofCount, dofs, forces, matrix);
    SOLVERSTA_ADDTOFFUSYM(dofCount, dofs, forces, matrix, MaxElementDofs);
  }
  if (SOLVERSTA::UseIm4) {
    RaiseMarkedDiagonals(SOLVERSTA::pR4.get());
    ScaleMatrix(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get());
  } else {
    RaiseMarkedDiagonals(SOLVERSTA::pR8.get());
    ScaleMatrix(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get());
  }
}
