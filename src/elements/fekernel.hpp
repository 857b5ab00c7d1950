// Module FEKERNEL: the nine element kernels, three shapes times forces, matrix, response.
// Pure functions of their arguments, of the integration rules and of Sta.MatSlopeFactor; they are
// called concurrently for different elements. Nothing is tested: a degenerate element gives
// infinities or NaNs that flow on.
//
// Inputs: loadData and stiffness from FEMAT_GETPROPS; coords (x, y, z per node); phi, the level
// values (TET10: the four corners); disp, displacements; scalars, temperatures.
// FORCES writes all 30 entries of forces; MATRIX all 30 of forces and all 900 of matrix (upper
// triangle filled, the rest 0.0); RESPONSE all 9 of response.
#pragma once

#include "elemlib/element_types.hpp"

void FEKERNEL_TET4_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces);
void FEKERNEL_TET4_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix);
void FEKERNEL_TET4_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response);

void FEKERNEL_HEX8_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces);
void FEKERNEL_HEX8_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                          const ElementVector& coords, const ElementScalars& phi,
                          const ElementVector& disp, const ElementScalars& scalars,
                          ElementVector& forces, ElementMatrix& matrix);
void FEKERNEL_HEX8_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                            const ElementVector& coords, const ElementScalars& phi,
                            const ElementVector& disp, const ElementScalars& scalars,
                            ElementResponse& response);

void FEKERNEL_TET10_FORCES(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces);
void FEKERNEL_TET10_MATRIX(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                           const ElementVector& coords, const ElementScalars& phi,
                           const ElementVector& disp, const ElementScalars& scalars,
                           ElementVector& forces, ElementMatrix& matrix);
void FEKERNEL_TET10_RESPONSE(const MaterialLoadData& loadData, const MaterialConstants& stiffness,
                             const ElementVector& coords, const ElementScalars& phi,
                             const ElementVector& disp, const ElementScalars& scalars,
                             ElementResponse& response);
