#include "elemlib/fegeom.hpp"

#include <cstddef>

#include "model/fedof.hpp"
#include "platform/slot.hpp"

namespace {

void GatherDisplacements(const std::int32_t* nodes, int count, const double* solution,
                         ElementVector& disp) {
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    const std::int32_t* dofs = &FEDOF::NodeDofMap[3 * Slot(nodes[i])];
    for (int k = 0; k < 3; ++k) disp[3 * i + k] = FEDOF_VALUE(dofs[k], k, solution);
  }
}

void GatherCoordinates(const std::int32_t* nodes, int count, ElementVector& coords) {
  for (std::ptrdiff_t i = 0; i < count; ++i) {
    const NodeRecord& node = FEMODEL::NodeCoords[Slot(nodes[i])];
    coords[3 * i] = static_cast<double>(node.X);
    coords[3 * i + 1] = static_cast<double>(node.Y);
    coords[3 * i + 2] = static_cast<double>(node.Z);
  }
}

template <int Nodes>
void GatherDisplacements(const ConnRecord<Nodes>& row, const double* solution,
                         ElementVector& disp) {
  GatherDisplacements(row.Node, Nodes, solution, disp);
}

template <int Nodes>
void GatherCoordinates(const ConnRecord<Nodes>& row, ElementVector& coords) {
  GatherCoordinates(row.Node, Nodes, coords);
}

}  // namespace

void FEGEOM_ELEMDOFS(const ElementView& element, std::int32_t& dofCount, ElementDofs& dofs) {
  if (element.nodeCount == 0) return;
  dofCount = 3 * element.nodeCount;
  for (int i = 0; i < element.nodeCount; ++i)
    for (int k = 0; k < 3; ++k) dofs[3 * i + k] = FEDOF::NodeDofMap[3 * Slot(element.nodes[i]) + k];
}

void FEGEOM_ELEMDISP(const ElementView& element, const double* solution, ElementVector& disp) {
  GatherDisplacements(element.nodes, element.nodeCount, solution, disp);
}

void FEGEOM_ELEMCOORDS(const ElementView& element, ElementVector& coords) {
  GatherCoordinates(element.nodes, element.nodeCount, coords);
}

void FEGEOM_ELEMDOFS(std::int32_t elementNumber, std::int32_t& dofCount, ElementDofs& dofs) {
  FEGEOM_ELEMDOFS(FEMODEL_ELEMENT(elementNumber), dofCount, dofs);
}

void FEGEOM_ELEMDISP(std::int32_t elementNumber, const double* solution, ElementVector& disp) {
  FEGEOM_ELEMDISP(FEMODEL_ELEMENT(elementNumber), solution, disp);
}

void FEGEOM_ELEMDISP_TET4(std::int32_t connIndex, const double* solution, ElementVector& disp) {
  GatherDisplacements(FEMODEL::Conn40[Slot(connIndex)], solution, disp);
}

void FEGEOM_ELEMDISP_HEX8(std::int32_t connIndex, const double* solution, ElementVector& disp) {
  GatherDisplacements(FEMODEL::Conn60[Slot(connIndex)], solution, disp);
}

void FEGEOM_ELEMDISP_TET10(std::int32_t connIndex, const double* solution, ElementVector& disp) {
  GatherDisplacements(FEMODEL::Conn41[Slot(connIndex)], solution, disp);
}

void FEGEOM_ELEMCOORDS_TET4(std::int32_t connIndex, ElementVector& coords) {
  GatherCoordinates(FEMODEL::Conn40[Slot(connIndex)], coords);
}

void FEGEOM_ELEMCOORDS_HEX8(std::int32_t connIndex, ElementVector& coords) {
  GatherCoordinates(FEMODEL::Conn60[Slot(connIndex)], coords);
}

void FEGEOM_ELEMCOORDS_TET10(std::int32_t connIndex, ElementVector& coords) {
  GatherCoordinates(FEMODEL::Conn41[Slot(connIndex)], coords);
}

void FEGEOM_NODEVALUES(const float* values, const std::int32_t* nodes, int count,
                       ElementScalars& gathered) {
  for (int i = 0; i < count; ++i) gathered[i] = static_cast<double>(values[Slot(nodes[i])]);
}
