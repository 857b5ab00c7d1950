// The loops of the one-pass iteration over the rows of one chunk, compiled once for each
// instruction set. Formulas and names are those of sleonepass.cpp; h stands for ^.
#pragma once

#include <cstdint>

constexpr int OnePassWidth = 3;  // unknowns of a block row
constexpr int OnePassBlockSize = OnePassWidth * OnePassWidth;

// A strict triangle as the loops read it: SLEBLOCKS::Triangle by its pointers.
struct OnePassTriangle {
  const std::int32_t* start;
  const std::int32_t* column;
  const double* values;
  std::int64_t blocks;
};

// Triangles, diagonal blocks and vectors by unknown, [rows][3].
struct OnePassRows {
  OnePassTriangle upper, lower;
  const double* diagonal;
  double *x, *r, *rh, *ph, *t, *w, *q;
};

// Sums and maximum of one chunk.
struct OnePassPartial {
  double phqh;  // p^.(t + w)
  double rhrh;  // r^.r^
  double norm;  // largest |r|, NaN when one of them is not finite
};

struct OnePassPortable;  // two doubles in a register: what every machine has
struct OnePassAvx2;      // four, with FMA

// p^ := beta p^ - r^,  t := inverse(I + U) p^ in rows [first, last), from the last one on; their
// neighbours upwards outside of them are done.
template <class Isa>
void OnePassBackward(const OnePassRows& v, std::int64_t first, std::int64_t last, double beta);

// w := inverse(I + L) (p^ - t),  q := p^ + L t in rows [first, last), whose neighbours downwards
// outside of them are done. Sets phqh.
template <class Isa>
void OnePassForward(const OnePassRows& v, std::int64_t first, std::int64_t last,
                    OnePassPartial& partial);

// x += alpha t,  r += alpha q,  r^ += alpha (t + w). Sets rhrh and norm.
template <class Isa>
void OnePassUpdate(const OnePassRows& v, std::int64_t first, std::int64_t last, double alpha,
                   OnePassPartial& partial);

// r^ := inverse(I + L) r in rows [first, last). Sets rhrh.
template <class Isa>
void OnePassTransform(const OnePassRows& v, std::int64_t first, std::int64_t last,
                      OnePassPartial& partial);
