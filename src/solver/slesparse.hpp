// Module SLESPARSE: the product and the triangular sweeps on the stored upper triangle of a
// symmetric matrix, 32-bit indices: what the conjugate gradients need wherever the matrix is not
// held in blocks. The same for every maths library.
//
// Index values are 1-based; the first entry of a row is its diagonal, the others ascend. Nothing is
// tested: NaNs and infinities flow on. Results repeat bit by bit for a given team size, the sweeps'
// for any.
#pragma once

#include <cstdint>

#include "run/services/arrays.hpp"

namespace SLESPARSE {

// What each thread of a product has summed for the rows of others. Kept between calls, since a
// solve multiplies many times, and freed by SLESPARSE_RELEASE when it ends.
inline Array<double> Spills;
inline std::int64_t SpillCapacity = 0;

}  // namespace SLESPARSE

// y := A x, in parallel where the matrix is large enough and memory for the spills is to be had.
// Team size is that of the next parallel region, whether it comes in full or not.
void SLESPARSE_MULTIPLY(std::int32_t n, const double* a, const std::int32_t* pR,
                        const std::int32_t* pC, const double* x, double* y);

// y := inverse(transposed U) x, U the stored triangle; its diagonal counts as 1 and is not read.
void SLESPARSE_SWEEPFORWARD(std::int32_t n, const double* a, const std::int32_t* pR,
                            const std::int32_t* pC, const double* x, double* y);

// y := inverse(U) x, with the stored diagonal.
void SLESPARSE_SWEEPBACKWARD(std::int32_t n, const double* a, const std::int32_t* pR,
                             const std::int32_t* pC, const double* x, double* y);

void SLESPARSE_RELEASE();
