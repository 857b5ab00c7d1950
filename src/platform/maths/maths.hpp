// The direct solver that the maths library gives. It is called everywhere under these names and
// with this argument order; which library stands behind it is chosen at configure time
// (VK_MATH=mkl|open). All index values are 1-based.
#pragma once

#include <cstdint>
#include <string_view>

extern "C" {

// Sparse direct solver, single call for all phases: 11 analysis and reordering, 22 numerical
// factorisation, 33 solve, -1 release. pt: 64 handle words, zero before the first call.
// a, ia, ja: upper triangle, rows sorted, diagonal first. error: 0 or a negative code.
void pardiso(void* pt, const int* maxfct, const int* mnum, const int* mtype, const int* phase,
             const int* n, const void* a, const int* ia, const int* ja, int* perm, const int* nrhs,
             int* iparm, const int* msglvl, void* b, void* x, int* error);

// The same with 64-bit integers throughout.
void pardiso_64(void* pt, const long long* maxfct, const long long* mnum, const long long* mtype,
                const long long* phase, const long long* n, const void* a, const long long* ia,
                const long long* ja, long long* perm, const long long* nrhs, long long* iparm,
                const long long* msglvl, void* b, void* x, long long* error);

}  // extern "C"

// Ends threads that the library started when it was loaded and doesn't work with.
void MATHS_ENDTHREADS();

// Asked before the analysis of that many matrix entries: false when the memory that the
// library can't do without is not to be had. Once inside it would ask for ever or end the process.
// What can be held from then on is held.
bool MATHS_RESERVE(std::int64_t entries);

// Name and version of the library behind the direct solver, for --version: "oneMKL 2026.2".
std::string_view MATHS_NAME();
