// Module SOLVERSTA, state: the equation system of one constraint pattern.
// Allocated by SOLVERSTA_CONFIGURE, kept until the pattern changes, freed by SOLVERSTA_RELEASE.
// Compressed upper triangle, rows in equation order; index values are 1-based. Invariant: the first
// entry of row i, at position pR(i), is its diagonal, the other columns ascend. One index pair
// exists at a time. The assembly loops fill SysForces and SysMatrix; once scaled, SysMatrix has a
// unit diagonal. The analysis step forms SysRhs.
#pragma once

#include <cstdint>

#include "run/services/arrays.hpp"
#include "run/services/vkcore.hpp"

namespace SOLVERSTA {

// Values of IMode: what the option Sys.ComputationMode asks for and the PARDISO driver resolves.
using VKCORE::ModeAutomatic;
using VKCORE::ModeFactorised;
using VKCORE::ModeIterative;
inline std::int32_t IMode = ModeAutomatic;

inline std::int32_t NumEquations = 0;
inline std::int64_t NumEntries = 0;  // low 32 bits of the true count, sign-extended
inline std::int32_t MaxBW = 0;       // bandwidth figure of the file, logged only

inline bool UseIm4 = true;       // 32-bit index path: pR4, pC4; otherwise pR8, pC8
inline Array<std::int32_t> pR4;  // [NumEquations + 1] position of each row's first entry
inline Array<std::int32_t> pC4;  // [NumEntries] column of each entry
inline Array<std::int64_t> pR8;
inline Array<std::int64_t> pC8;

inline Array<double> SysMatrix;   // [NumEntries]
inline Array<float> SysMatrixSP;  // [NumEntries] copy for the factor; made by its driver
inline Array<double> SysForces;   // [NumEquations] internal forces
inline Array<double> SysRhs;      // [NumEquations] right-hand side
inline Array<double> SysScale;    // [NumEquations] 1 / sqrt(diagonal)

inline bool SolverReady = false;  // the solver is prepared for the present SysMatrix

}  // namespace SOLVERSTA

// Hands the index pair of the present width, pR and pC, to `use`. Nothing else asks for the width.
template <class Use>
void SOLVERSTA_WITHINDICES(Use use) {
  if (SOLVERSTA::UseIm4)
    use(SOLVERSTA::pR4, SOLVERSTA::pC4);
  else
    use(SOLVERSTA::pR8, SOLVERSTA::pC8);
}
