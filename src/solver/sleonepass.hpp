// Module SLEONEPASS: conjugate gradients with the symmetric Gauss-Seidel preconditioner, reading
// each triangle of the matrix once an iteration. S. C. Eisenstat, SIAM J. Sci. Stat. Comput. 2
// (1981) 1-4. The iterates are those of the plain form in exact arithmetic.
//
// With A = L + I + U, M = (I + L)(I + U), residual r = A x - b, r^ = inverse(I + L) r and direction
// p^ = (I + U) p, one iteration is
//
//     p^ := beta p^ - r^                            beta = (r^.r^) / previous (r^.r^), first 0
//     t  := inverse(I + U) p^                       backward over U; t is the direction p
//     w  := inverse(I + L) (p^ - t)                 forward over L
//     q  := p^ + L t                                in the same pass: A t
//     alpha = (r^.r^) / (p^.(t + w))                t + w is inverse(I + L) A t
//     x += alpha t,  r += alpha q,  r^ += alpha (t + w)
//
// Sums are formed by chunk and added up in the order of the chunks, so results repeat bit by bit
// for any team.
#pragma once

#include <cstdint>
#include <string_view>

// When an iteration ends: at a residual of `tolerance` times `bnorm`, the maximum norm of b, or at
// the limit, at least 1.
struct OnePassLimits {
  double bnorm;
  double tolerance;
  std::int32_t maxIterations;
};

struct OnePassEnd {
  std::int32_t count;  // iterations
  bool converged;
  double norm;  // maximum norm of the residual; NaN once a NaN or an infinity has come into it
};

// Iterates on the matrix that SLEBLOCKS holds, from a zero correction, and adds the correction to
// x. b and x: [equation]. Aborts with `failure`: work arrays not allocated.
OnePassEnd SLEONEPASS_ITERATE(const double* b, double* x, const OnePassLimits& limits,
                              std::string_view failure);
