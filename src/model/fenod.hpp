// Module FENOD: nodal displacements to and from the state file ws.sstate.NNNN.
// The file: int32 1, int32 3 x NumNodes, then float32 [node][xyz], prescribed values included.
#pragma once

#include <string_view>

// Writes the displacements of all nodes; `displacements` [equation]. Aborts: allocation and file
// failures.
void FENOD_SAVEDISP(int unit, std::string_view fileName, const double* displacements);

// Fills `displacements` [equation] from the file: free components only, prescribed ones in the file
// have no effect. Zeros if the file is missing or too short, with no message; the header is not
// compared with the model. Returns whether the file exists. Aborts: allocation, opening, closing.
bool FENOD_LOADDISP(int unit, std::string_view fileName, double* displacements);
