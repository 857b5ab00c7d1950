#include "elemlib/fegeom.hpp"

#include "model/fedof.hpp"
#include "model/femodel.hpp"

namespace {

template <int Nodes>
void GatherDisplacements(const ConnRecord<Nodes>& row, const double* solution,
                         ElementVector& disp) {
  for (int i = 0; i < Nodes; ++i) {
    const std::int32_t* dofs = &FEDOF::NodeDofMap[3 * Slot(row.Node[i])];
    for (int k = 0; k < 3; ++k) disp[3 * i + k] = FEDOF_VALUE(dofs[k], k, solution);
  }
}

template <int Nodes>
void GatherCoordinates(const ConnRecord<Nodes>& row, ElementVector& coords) {
  for (int i = 0; i < Nodes; ++i) {
    const NodeRecord& node = FEMODEL::NodeCoords[Slot(row.Node[i])];
    coords[3 * i] = static_cast<double>(node.X);
    coords[3 * i + 1] = static_cast<double>(node.Y);
    coords[3 * i + 2] = static_cast<double>(node.Z);
  }
}

}  // namespace

void FEGEOM_ELEMDOFS(std::int32_t elementNumber, std::int32_t& dofCount, ElementDofs& dofs) {
  const ElementRecord& element = FEMODEL::Elements[Slot(elementNumber)];
  const int count = FEMODEL_NODECOUNT(element.TypeCode);
  if (count == 0) return;
  const std::int32_t* nodes = FEMODEL_NODES(element);
  dofCount = 3 * count;
  for (int i = 0; i < count; ++i)
    for (int k = 0; k < 3; ++k) dofs[3 * i + k] = FEDOF::NodeDofMap[3 * Slot(nodes[i]) + k];
}

void FEGEOM_ELEMDISP(std::int32_t elementNumber, const double* solution, ElementVector& disp) {
  const ElementRecord& element = FEMODEL::Elements[Slot(elementNumber)];
  if (element.TypeCode == TypeTet4) FEGEOM_ELEMDISP_TET4(element.ConnIndex, solution, disp);
  if (element.TypeCode == TypeHex8) FEGEOM_ELEMDISP_HEX8(element.ConnIndex, solution, disp);
  if (element.TypeCode == TypeTet10) FEGEOM_ELEMDISP_TET10(element.ConnIndex, solution, disp);
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
