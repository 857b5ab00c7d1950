#include "model/fedof.hpp"

#include <algorithm>

#include "model/femodel.hpp"
#include "platform/slot.hpp"
#include "run/services/logger.hpp"

namespace {

using FEDOF::NodeDofMap;
using FEDOF::NodeDofState;

// Clears the three component bits of every node that an active element touches.
void MarkActiveNodes() {
  for (std::int32_t e = 1; e <= FEMODEL::NumElements; ++e) {
    if (FEMODEL_ISEXCLUDED(e)) continue;
    const ElementView element = FEMODEL_ELEMENT(e);
    for (int i = 0; i < element.nodeCount; ++i)
      NodeDofState[Slot(element.nodes[i])] &= FEDOF::NodeStateActive;
  }
}

// Later rows win. The test is on the value: NaN counts as non-zero.
void ApplyPrescribed() {
  for (std::int32_t r = 1; r <= FEDOF::NumNodalConstraints; ++r) {
    const NodalConstraintRecord& row = FEDOF::NodalConstraints[Slot(r)];
    if (FEDOF_ISSUPPORT(row)) continue;
    for (int k = 0; k < 3; ++k) {
      if ((row.DofMask & (1u << k)) == 0) continue;
      NodeDofState[Slot(row.Node)] |= static_cast<std::uint8_t>(1u << k);
      NodeDofMap[3 * Slot(row.Node) + k] = row.Value[k] == 0.0f ? 0 : -r;
    }
  }
}

std::int32_t NumberEquations() {
  std::int32_t equation = 0;
  for (std::int64_t node = 0; node < FEMODEL::NumNodes; ++node)
    for (int k = 0; k < 3; ++k)
      if ((NodeDofState[node] & (1u << k)) == 0) NodeDofMap[3 * node + k] = ++equation;
  return equation;
}

}  // namespace

void FEDOF_BUILDNUMBERING() {
  const std::int64_t nodes = std::max(FEMODEL::NumNodes, 0);
  NodeDofState = ARRAYS_ALLOCATE<std::uint8_t>(nodes);
  std::fill_n(NodeDofState.get(), nodes, FEDOF::NodeStateUnused);
  MarkActiveNodes();
  NodeDofMap = ARRAYS_ALLOCATE<std::int32_t>(3 * nodes);
  std::fill_n(NodeDofMap.get(), 3 * nodes, 0);
  ApplyPrescribed();
  const std::int32_t* map = NodeDofMap.get();
  FEDOF::LastPrescribingRow = nodes > 0 ? -*std::min_element(map, map + 3 * nodes) : 0;
  FEDOF::NumEquations = NumberEquations();
  FEDOF::Displacements = ARRAYS_ALLOCATE<double>(FEDOF::NumEquations);
}

void FEDOF_REQUIREEQUATIONS() {
  if (NodeDofMap && FEDOF::NumEquations > 0) return;
  LOGGER_POSTERRABORT(
      "Structure with no degrees of freedom. Check displacement boundary conditions.");
}
