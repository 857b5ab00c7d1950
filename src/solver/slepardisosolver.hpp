// Module SLEPARDISOSOLVER: driver of the sparse direct solver.
// It computes a single-precision factor of the scaled system matrix, which the conjugate-gradient
// loop applies as its preconditioner; it never delivers the solution itself. In automatic mode it
// also decides whether the factor is affordable, and turns SOLVERSTA::IMode into 2 or 1. All calls
// come from the main thread; the library threads inside, with the run's team size.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace SLEPARDISOSOLVER {

inline void* pt[64] = {};            // the library's handle; zero before a new factorisation
inline std::int32_t iparm[64] = {};  // parameter table of the 32-bit entry
inline long long iparm8[64] = {};    // and of the 64-bit entry

inline std::int32_t PardisoError = 0;  // last non-zero code since the preparation
inline constexpr int ErrorTextLength = 128;
inline std::string PardisoErrorText(ErrorTextLength, ' ');  // blank-padded
inline bool PardisoFactorHeld = false;                      // pt holds memory that must be released

}  // namespace SLEPARDISOSOLVER

// Factorises SysMatrix under the rules of the mode. Leaves SolverReady true and IMode at 1 or 2.
// Aborts: allocation; any error of the library in mode 2.
void SLEPARDISOSOLVER_PREPARE();

// Analysis, memory test and factorisation. `budget`: gigabytes, <= 0 for none; below zero
// afterwards when the factor was not affordable. The 64-bit path posts no estimate and its test
// never fails.
void SLEPARDISOSOLVER_FACTOR_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                const float* matrix, float& budget);
void SLEPARDISOSOLVER_FACTOR_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                const float* matrix, float& budget);

// x := inverse(factor) b, both float32 [NumEquations]. After an error x stays as it is. Index:
// std::int32_t or std::int64_t, each with a name of its own below.
template <class Index>
void SLEPARDISOSOLVER_SOLVE(const Index* pR, const Index* pC, const float* matrix, float* b,
                            float* x);
void SLEPARDISOSOLVER_SOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                               const float* matrix, float* b, float* x);
void SLEPARDISOSOLVER_SOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                               const float* matrix, float* b, float* x);

// Releases the factor by the entry that made it, whatever the present width.
void SLEPARDISOSOLVER_RELEASE();
void SLEPARDISOSOLVER_RELEASE_I4();
void SLEPARDISOSOLVER_RELEASE_I8();

bool SLEPARDISOSOLVER_HASERROR();
bool SLEPARDISOSOLVER_HASFACTOR();
void SLEPARDISOSOLVER_GETERRORTEXT(char (&buffer)[SLEPARDISOSOLVER::ErrorTextLength]);

// Keeps a non-zero code with its text and posts the text as a warning.
void HANDLEERROR(std::int32_t code, std::string_view phaseText);
