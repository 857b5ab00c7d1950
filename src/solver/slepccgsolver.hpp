// Module SLEPCCGSOLVER: preconditioned conjugate gradients in double precision.
// Every load case of every mode ends here. The solve improves a given vector: it starts from a zero
// correction, so its right-hand side is the residual of that vector, and adds the correction in
// place. Hestenes and Stiefel, J. Res. Nat. Bur. Standards 49 (1952) 409-436.
// Nothing is kept between calls but ICount and PcgQuality.
#pragma once

#include <cstdint>

namespace SLEPCCGSOLVER {

// Preconditioner of the next solve. The run's mode is resolved to one of the latter two; without a
// preconditioner the solver serves comparisons.
inline constexpr std::int32_t PcgPlain = 0;
inline constexpr std::int32_t PcgSweeps = 1;  // symmetric Gauss-Seidel
inline constexpr std::int32_t PcgFactor = 2;  // single-precision factor
inline std::int32_t PcgMode = PcgPlain;
inline std::int32_t PcgMaxIter = 0;

inline std::int32_t ICount = 0;  // iterations; negative when PcgMaxIter was exhausted
inline float PcgQuality = 0.0f;  // 1 converged, 0.5 at a residual ratio of 0.001, 0 destroyed

}  // namespace SLEPCCGSOLVER

// Solves A x = b from x, for the scaled upper triangle `matrix` ([entry]) with its float32 copy
// `matrixSP` (mode 2), b and x [NumEquations]. A zero b clears x. Aborts: work arrays not
// allocated. Index: std::int32_t or std::int64_t, each with a name of its own below.
template <class Index>
void SLEPCCGSOLVER_COMPUTE(const Index* pR, const Index* pC, const float* matrixSP,
                           const double* matrix, const double* b, double* x);
void SLEPCCGSOLVER_COMPUTE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                              const float* matrixSP, const double* matrix, const double* b,
                              double* x);
void SLEPCCGSOLVER_COMPUTE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                              const float* matrixSP, const double* matrix, const double* b,
                              double* x);

// q := A p, from the stored upper triangle.
void SLEPCCGSOLVER_MATVEC_I4(const std::int32_t* pR4, const std::int32_t* pC4, const double* matrix,
                             const double* p, double* q);
void SLEPCCGSOLVER_MATVEC_I8(const std::int64_t* pR8, const std::int64_t* pC8, const double* matrix,
                             const double* p, double* q);

// y := inverse(transposed U) r, U the stored upper triangle. The 32-bit form takes a unit diagonal,
// the 64-bit form divides by the stored one.
void SLEPCCGSOLVER_FORWARDSOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                   const double* matrix, const double* r, double* y);
void SLEPCCGSOLVER_FORWARDSOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                   const double* matrix, const double* r, double* y);

// z := inverse(U) y.
void SLEPCCGSOLVER_BACKWARDSOLVE_I4(const std::int32_t* pR4, const std::int32_t* pC4,
                                    const double* matrix, const double* y, double* z);
void SLEPCCGSOLVER_BACKWARDSOLVE_I8(const std::int64_t* pR8, const std::int64_t* pC8,
                                    const double* matrix, const double* y, double* z);

// Quality of a solve that ended at the residual ratio `ratio`.
float SLEPCCGSOLVER_QUALITY(double ratio);
