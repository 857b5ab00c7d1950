// Module FEGEOM: gathers an element's data from the model arrays into the caller's buffers.
// Elements are not excluded and their indices valid: both were settled at loading. The gathers only
// read shared arrays and run concurrently for different elements.
#pragma once

#include <cstdint>

#include "elemlib/element_types.hpp"
#include "model/femodel.hpp"

// The element's NodeDofMap entries, node by node, x, y, z. dofCount: 12, 24 or 30. An unknown type
// leaves both as they were.
void FEGEOM_ELEMDOFS(const ElementView& element, std::int32_t& dofCount, ElementDofs& dofs);

// The element's displacements in the same order: equations from `solution` ([equation]), prescribed
// values from the constraint rows, 0.0 where fixed.
void FEGEOM_ELEMDISP(const ElementView& element, const double* solution, ElementVector& disp);

// The coordinates of the element's nodes in the same order, widened to float64.
void FEGEOM_ELEMCOORDS(const ElementView& element, ElementVector& coords);

// The same by the number of the element, and by the row of a connectivity table.
void FEGEOM_ELEMDOFS(std::int32_t elementNumber, std::int32_t& dofCount, ElementDofs& dofs);
void FEGEOM_ELEMDISP(std::int32_t elementNumber, const double* solution, ElementVector& disp);
void FEGEOM_ELEMDISP_TET4(std::int32_t connIndex, const double* solution, ElementVector& disp);
void FEGEOM_ELEMDISP_HEX8(std::int32_t connIndex, const double* solution, ElementVector& disp);
void FEGEOM_ELEMDISP_TET10(std::int32_t connIndex, const double* solution, ElementVector& disp);
void FEGEOM_ELEMCOORDS_TET4(std::int32_t connIndex, ElementVector& coords);
void FEGEOM_ELEMCOORDS_HEX8(std::int32_t connIndex, ElementVector& coords);
void FEGEOM_ELEMCOORDS_TET10(std::int32_t connIndex, ElementVector& coords);

// One float32 value per node at the first `count` nodes of `nodes`, widened to float64.
void FEGEOM_NODEVALUES(const float* values, const std::int32_t* nodes, int count,
                       ElementScalars& gathered);
