// The loops of onepass_rows.hpp. A block is three columns of three rows; each column is loaded as
// four lanes, the last of which holds what comes next in memory and is dropped in the end.
#pragma once

#include <cstddef>

#include "solver/onepass_rows.hpp"

typedef double OnePassLanes __attribute__((vector_size(32)));
typedef double OnePassUnaligned __attribute__((vector_size(32), aligned(8), may_alias));

[[gnu::always_inline]] inline OnePassLanes LoadLanes(const double* anywhere) {
  return *reinterpret_cast<const OnePassUnaligned*>(anywhere);
}

[[gnu::always_inline]] inline void StoreLanes(double* anywhere, OnePassLanes v) {
  *reinterpret_cast<OnePassUnaligned*>(anywhere) = v;
}

[[gnu::always_inline]] inline double SumLanes(OnePassLanes v) {
  return (v[0] + v[1]) + (v[2] + v[3]);
}

// Blocks between the one that is worked on and the one that is fetched: the processor's own
// fetching doesn't reach across the gathers. So far ahead, the second cache is the place: few
// lines can be on their way to the first.
constexpr std::int64_t OnePassAhead = 96;

[[gnu::always_inline]] inline void Prefetch(const double* values, std::int64_t block) {
  constexpr int read = 0, intoSecondCache = 2;
  __builtin_prefetch(values + OnePassBlockSize * block, read, intoSecondCache);
}

// B v for one block.
[[gnu::always_inline]] inline OnePassLanes Product(const double* block, const double* v) {
  return (LoadLanes(block) * v[0] + LoadLanes(block + OnePassWidth) * v[1]) +
         LoadLanes(block + std::ptrdiff_t{2} * OnePassWidth) * v[2];
}

template <class Isa>
void OnePassBackward(const OnePassRows& v, std::int64_t first, std::int64_t last, double beta) {
  const auto [start, column, values, blocks] = v.upper;
  for (std::int64_t row = last; row-- > first;) {
    double* ph = v.ph + OnePassWidth * row;
    const double* rh = v.rh + OnePassWidth * row;
    for (int i = 0; i < OnePassWidth; ++i) ph[i] = beta * ph[i] - rh[i];
    OnePassLanes s = {ph[0], ph[1], ph[2], 0.0};
    for (std::int64_t k = start[row + 1]; k-- > start[row];) {  // downwards as the rows: one stream
      Prefetch(values, k > OnePassAhead ? k - OnePassAhead : 0);
      s -= Product(values + OnePassBlockSize * k, v.t + OnePassWidth * std::int64_t{column[k]});
    }
    const double* u = v.diagonal + OnePassWidth * row;  // (1,2), (1,3), (2,3)
    double* t = v.t + OnePassWidth * row;
    t[2] = s[2];
    t[1] = s[1] - u[2] * t[2];
    t[0] = s[0] - (u[0] * t[1] + u[1] * t[2]);
  }
}

template <class Isa>
void OnePassForward(const OnePassRows& v, std::int64_t first, std::int64_t last,
                    OnePassPartial& partial) {
  const auto [start, column, values, blocks] = v.lower;
  double sum = 0.0;
  for (std::int64_t row = first; row < last; ++row) {
    OnePassLanes lw = {}, lt = {};
    for (std::int64_t k = start[row]; k < start[row + 1]; ++k) {
      const std::int64_t other = OnePassWidth * std::int64_t{column[k]};
      Prefetch(values, k + OnePassAhead < blocks ? k + OnePassAhead : 0);
      lw += Product(values + OnePassBlockSize * k, v.w + other);
      lt += Product(values + OnePassBlockSize * k, v.t + other);
    }
    const double* l = v.diagonal + OnePassWidth * row;  // (2,1), (3,1), (3,2)
    const double* ph = v.ph + OnePassWidth * row;
    const double* t = v.t + OnePassWidth * row;
    double* w = v.w + OnePassWidth * row;
    double* q = v.q + OnePassWidth * row;
    w[0] = ph[0] - t[0] - lw[0];
    w[1] = ph[1] - t[1] - lw[1] - l[0] * w[0];
    w[2] = ph[2] - t[2] - lw[2] - (l[1] * w[0] + l[2] * w[1]);
    q[0] = ph[0] + lt[0];
    q[1] = ph[1] + (lt[1] + l[0] * t[0]);
    q[2] = ph[2] + (lt[2] + (l[1] * t[0] + l[2] * t[1]));
    sum += ph[0] * (t[0] + w[0]) + ph[1] * (t[1] + w[1]) + ph[2] * (t[2] + w[2]);
  }
  partial.phqh = sum;
}

// A product with zero turns whatever isn't finite into NaN, which no comparison would show.
template <class Isa>
void OnePassUpdate(const OnePassRows& v, std::int64_t first, std::int64_t last, double alpha,
                   OnePassPartial& partial) {
  constexpr int lanes = 4;
  OnePassLanes sum = {}, norm = {}, poison = {};
  std::int64_t i = OnePassWidth * first;
  const std::int64_t end = OnePassWidth * last;
  const auto add = [&](OnePassLanes rh, OnePassLanes r) __attribute__((always_inline)) {
    const OnePassLanes size = r < 0.0 ? -r : r;
    sum += rh * rh;
    norm = size > norm ? size : norm;
    poison += 0.0 * r;
  };
  for (; i + lanes <= end; i += lanes) {
    const OnePassLanes t = LoadLanes(v.t + i);
    const OnePassLanes rh = LoadLanes(v.rh + i) + alpha * (t + LoadLanes(v.w + i));
    const OnePassLanes r = LoadLanes(v.r + i) + alpha * LoadLanes(v.q + i);
    StoreLanes(v.x + i, LoadLanes(v.x + i) + alpha * t);
    StoreLanes(v.rh + i, rh);
    StoreLanes(v.r + i, r);
    add(rh, r);
  }
  for (; i < end; ++i) {
    v.x[i] += alpha * v.t[i];
    v.rh[i] += alpha * (v.t[i] + v.w[i]);
    v.r[i] += alpha * v.q[i];
    add(OnePassLanes{v.rh[i]}, OnePassLanes{v.r[i]});
  }
  double largest = 0.0;
  for (int lane = 0; lane < lanes; ++lane) largest = norm[lane] > largest ? norm[lane] : largest;
  partial.rhrh = SumLanes(sum);
  partial.norm = largest + SumLanes(poison);
}

template <class Isa>
void OnePassTransform(const OnePassRows& v, std::int64_t first, std::int64_t last,
                      OnePassPartial& partial) {
  const auto [start, column, values, blocks] = v.lower;
  double sum = 0.0;
  for (std::int64_t row = first; row < last; ++row) {
    const double* r = v.r + OnePassWidth * row;
    OnePassLanes s = {r[0], r[1], r[2], 0.0};
    for (std::int64_t k = start[row]; k < start[row + 1]; ++k)
      s -= Product(values + OnePassBlockSize * k, v.rh + OnePassWidth * std::int64_t{column[k]});
    const double* l = v.diagonal + OnePassWidth * row;
    double* rh = v.rh + OnePassWidth * row;
    rh[0] = s[0];
    rh[1] = s[1] - l[0] * rh[0];
    rh[2] = s[2] - (l[1] * rh[0] + l[2] * rh[1]);
    sum += (rh[0] * rh[0] + rh[1] * rh[1]) + rh[2] * rh[2];
  }
  partial.rhrh = sum;
}
