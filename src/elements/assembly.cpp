#include "elements/assembly.hpp"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <iterator>

#include "elements/feelem.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "platform/process.hpp"
#include "platform/slot.hpp"
#include "run/services/arrays.hpp"
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

template <bool Shared>
void Add(double& target, double value) {
  if constexpr (Shared)
    AtomicAdd(target, value);
  else
    target += value;
}

// Bit n: node n of an element belongs to elements of several threads. What is added to its forces,
// and to the block of two such nodes, may meet an add of another thread and has to be atomic.
// Everything else that an element adds to, one thread alone adds to.
using SharedNodes = std::uint32_t;
constexpr SharedNodes NoneShared = 0;
constexpr SharedNodes AllShared = ~NoneShared;

bool IsShared(SharedNodes shared, std::int32_t node) { return (shared >> node & 1u) != 0; }

// For each node the thread whose elements use it, from 1; 0 for none, SeveralThreads for more.
using NodeUsers = Array<std::uint8_t>;
constexpr std::uint8_t SeveralThreads = 255;
static_assert(LargestTeam < SeveralThreads);

void NoteUser(std::uint8_t& users, std::uint8_t thread) {
  const std::atomic_ref<std::uint8_t> noted(users);
  std::uint8_t seen = noted.load(std::memory_order_relaxed);
  if (seen == thread || seen == SeveralThreads) return;
  if (seen != 0 || !noted.compare_exchange_strong(seen, thread, std::memory_order_relaxed))
    noted.store(SeveralThreads, std::memory_order_relaxed);
}

// Called by all threads of a team, ahead of a loop that shares the elements out in the same way.
// Null where there is one thread, or no memory.
void NoteUsers(std::uint8_t* users) {
  if (users == nullptr) return;
  const std::int64_t nodes = FEMODEL::NumNodes;
  const auto thread = static_cast<std::uint8_t>(omp_get_thread_num() + 1);
#pragma omp for schedule(static)
  for (std::int64_t node = 0; node < nodes; ++node) users[node] = 0;
#pragma omp for schedule(static)
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    const ElementView element = FEMODEL_ELEMENT(e);
    for (int i = 0; i < element.nodeCount; ++i) NoteUser(users[Slot(element.nodes[i])], thread);
  }
}

NodeUsers MakeNodeUsers() {
  if (omp_get_max_threads() == 1) return nullptr;
  return ARRAYS_TRYALLOCATE<std::uint8_t>(std::max(FEMODEL::NumNodes, 0));
}

SharedNodes SharedNodesOf(const ElementView& element, const std::uint8_t* users) {
  if (users == nullptr) return omp_get_num_threads() == 1 ? NoneShared : AllShared;
  SharedNodes shared = NoneShared;
  for (int i = 0; i < element.nodeCount; ++i)
    shared |= SharedNodes{users[Slot(element.nodes[i])] == SeveralThreads} << i;
  return shared;
}

// Calls `work` with each element that isn't excluded and with its shared nodes, in parallel.
template <class Work>
void ForElements(const Work& work) {
  const NodeUsers users = MakeNodeUsers();
#pragma omp parallel
  {
    NoteUsers(users.get());
#pragma omp for schedule(static)
    for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
      if (FEMODEL_ISEXCLUDED(e)) continue;
      const ElementView element = FEMODEL_ELEMENT(e);
      work(element, SharedNodesOf(element, users.get()));
    }
  }
}

void AddForces(std::int32_t dofCount, const ElementDofs& dofs, const double* forces,
               SharedNodes shared) {
  double* target = SysForces.get();
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    if (IsShared(shared, i / 3))
      Add<true>(target[Slot(dofs[i])], forces[i]);
    else
      Add<false>(target[Slot(dofs[i])], forces[i]);
  }
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

void AddEntries(std::int32_t dofCount, const ElementDofs& dofs, const double* matrix,
                std::int32_t stride, const MatrixPlaces& places) {
  double* target = SysMatrix.get();
  const std::int64_t* place = places;
  for (std::int32_t i = 0; i < dofCount; ++i) {
    if (dofs[i] <= 0) continue;
    for (std::int32_t j = i; j < dofCount; ++j)
      if (dofs[j] > 0) AtomicAdd(target[*place++], matrix[i + j * stride]);
  }
}

// Where the rows of a 3 by 3 block of the system begin, positions from 0. In a diagonal block they
// begin left of the diagonal, where nothing is stored.
struct BlockPlace {
  std::int64_t row[3];
};

using BlockPlaces = BlockPlace[MaxElementNodes * (MaxElementNodes + 1) / 2];

// Equation of the x of a node whose three components have equations, which follow each other;
// otherwise 0.
std::int32_t FirstEquation(const std::int32_t* dofs) {
  return dofs[0] > 0 && dofs[1] == dofs[0] + 1 && dofs[2] == dofs[0] + 2 ? dofs[0] : 0;
}

// The block of the node whose equations begin with `a` and the one whose begin with `b`, a <= b.
// False unless all its entries are stored, and each row's at the same distance from the row's
// beginning, less those left of the diagonal: the columns ascend, so first and last tell.
template <class Index>
bool FindBlock(const Index* pR, const Index* pC, std::int32_t a, std::int32_t b,
               BlockPlace& place) {
  const auto first = static_cast<Index>(b);
  const Index last = first + 2;
  std::int64_t column = 0;
  for (std::int64_t r = 0; r < 3; ++r) {
    const auto begin = Slot(static_cast<std::int64_t>(pR[Slot(a) + r]));
    const auto end = Slot(static_cast<std::int64_t>(pR[a + r]));
    if (r == 0 && a != b)
      for (std::int64_t i = begin; i < end; ++i) column += pC[i] < first ? 1 : 0;
    const std::int64_t row = begin + column - r;
    place.row[r] = row;
    if (row + 2 >= end || pC[row + 2] != last) return false;
    if (a != b && (row < begin || pC[row] != first)) return false;
  }
  return true;
}

// The places of all blocks of an element, pair by pair of its nodes, asked for from memory. False
// where one of them isn't there as a whole: a fixed component, a structure without an entry, a node
// that the element has twice, equations that don't come in threes.
template <class Index>
bool FindBlocks(const Index* pR, const Index* pC, std::int32_t dofCount, const ElementDofs& dofs,
                BlockPlaces& places) {
  if (dofCount % 3 != 0) return false;
  const double* matrix = SysMatrix.get();
  BlockPlace* place = places;
  for (std::int32_t i = 0; i < dofCount; i += 3) {
    const std::int32_t a = FirstEquation(dofs + i);
    if (a == 0) return false;
    for (std::int32_t j = i; j < dofCount; j += 3, ++place) {
      const std::int32_t b = FirstEquation(dofs + j);
      if (b == 0 || (b == a && j != i)) return false;
      if (!FindBlock(pR, pC, std::min(a, b), std::max(a, b), *place)) return false;
      for (const std::int64_t row : place->row) __builtin_prefetch(matrix + row, 1);
    }
  }
  return true;
}

// The part of a block from the diagonal of the node pair on, or all of it. `entry`: the matrix's
// first entry of the block, whose rows and columns are that far apart.
template <bool Shared, bool Diagonal>
void AddBlock(const BlockPlace& place, const double* entry, std::ptrdiff_t rowStep,
              std::ptrdiff_t columnStep) {
  for (std::ptrdiff_t i = 0; i < 3; ++i) {
    double* row = SysMatrix.get() + place.row[i];
    for (std::ptrdiff_t j = Diagonal ? i : 0; j < 3; ++j)
      Add<Shared>(row[j], entry[i * rowStep + j * columnStep]);
  }
}

template <bool Shared>
void AddBlock(const BlockPlace& place, const double* matrix, std::int32_t stride, std::int32_t i,
              std::int32_t j, bool turned) {
  const double* entry = matrix + i + std::ptrdiff_t{stride} * j;
  if (i == j)
    AddBlock<Shared, true>(place, entry, 1, stride);
  else if (turned)
    AddBlock<Shared, false>(place, entry, stride, 1);
  else
    AddBlock<Shared, false>(place, entry, 1, stride);
}

// The upper triangle of an element whose blocks were found. A pair of nodes whose order in the
// element isn't that of their equations is added transposed.
void AddBlocks(std::int32_t dofCount, const ElementDofs& dofs, const double* matrix,
               std::int32_t stride, const BlockPlaces& places, SharedNodes shared) {
  const BlockPlace* place = places;
  for (std::int32_t i = 0; i < dofCount; i += 3)
    for (std::int32_t j = i; j < dofCount; j += 3, ++place) {
      const bool turned = dofs[j] < dofs[i];
      if (IsShared(shared, i / 3) && IsShared(shared, j / 3))
        AddBlock<true>(*place, matrix, stride, i, j, turned);
      else
        AddBlock<false>(*place, matrix, stride, i, j, turned);
    }
}

// By blocks where that is possible, otherwise entry by entry, and then atomically throughout.
template <class Index>
void AddMatrix(const Index* pR, const Index* pC, std::int32_t dofCount, const ElementDofs& dofs,
               const double* matrix, std::int32_t stride, SharedNodes shared) {
  BlockPlaces blocks;
  if (FindBlocks(pR, pC, dofCount, dofs, blocks)) {
    AddBlocks(dofCount, dofs, matrix, stride, blocks, shared);
  } else {
    MatrixPlaces places;
    FindPlaces(pR, pC, dofCount, dofs, places);
    AddEntries(dofCount, dofs, matrix, stride, places);
  }
}

void AddToSystem(std::int32_t dofCount, const ElementDofs& dofs, const double* forces,
                 const double* matrix, std::int32_t stride, SharedNodes shared) {
  AddForces(dofCount, dofs, forces, shared);
  SOLVERSTA_WITHINDICES([&](const auto& pR, const auto& pC) {
    AddMatrix(pR.get(), pC.get(), dofCount, dofs, matrix, stride, shared);
  });
}

void AddSupportForces() {
  for (std::int32_t k = 1; k <= FELOADCASE::NumSupports; ++k) {
    std::int32_t dofCount = 0;
    ElementDofs dofs;
    ElementVector forces;
    SOLVERSTA_SUPPORTFORCE(k, FEDOF::Displacements.get(), dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces, NoneShared);
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
  AddToSystem(dofCount, dofs, forces, matrix, stride, AllShared);
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
  ForElements([solution](const ElementView& element, SharedNodes shared) {
    std::int32_t dofCount = 0;  // stays 0 for an unknown type
    ElementDofs dofs;
    ElementVector forces;
    FEELEM_INTERNALFORCES(element, solution, dofCount, dofs, forces);
    AddForces(dofCount, dofs, forces, shared);
  });
}

void PREPARESYSMATRIXANDINTERNALFORCES() {
  SOLVERSTA::SolverReady = false;
  ClearInParallel(SysForces.get(), SOLVERSTA::NumEquations);
  ClearInParallel(SysMatrix.get(), SOLVERSTA::NumEntries);
  AddSupportMatrices();
  const double* solution = FEDOF::Displacements.get();
  ForElements([solution](const ElementView& element, SharedNodes shared) {
    std::int32_t dofCount = 0;  // stays 0 for an unknown type
    ElementDofs dofs;
    ElementVector forces;
    ElementMatrix matrix;
    FEELEM_MATRIXANDFORCES(element, solution, dofCount, dofs, forces, matrix);
    AddToSystem(dofCount, dofs, forces, matrix, MaxElementDofs, shared);
  });
  SOLVERSTA_WITHINDICES([](const auto& pR, const auto& pC) {
    RaiseMarkedDiagonals(pR.get());
    ScaleMatrix(pR.get(), pC.get());
  });
}
