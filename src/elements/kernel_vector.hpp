// Vectors of doubles, one per instruction set, and the few operations on them that the language
// does not have as operators: sums, transposition, arctangent.
#pragma once

#include <cstdint>
#include <utility>

// Real computes; Memory and Unaligned are the same values where they lie in arrays of doubles.
template <class Isa>
struct VectorTypes {
  typedef double Real __attribute__((vector_size(Isa::Lanes * sizeof(double))));
  typedef double Memory __attribute__((vector_size(Isa::Lanes * sizeof(double)), may_alias));
  typedef double Unaligned
      __attribute__((vector_size(Isa::Lanes * sizeof(double)), aligned(8), may_alias));
  typedef std::int64_t Mask __attribute__((vector_size(Isa::Lanes * sizeof(double))));
};

template <class Isa>
using Vector = typename VectorTypes<Isa>::Real;

template <class Isa>
[[gnu::always_inline]] inline Vector<Isa> Load(const double* aligned) {
  return *reinterpret_cast<const typename VectorTypes<Isa>::Memory*>(aligned);
}

template <class Isa>
[[gnu::always_inline]] inline void Store(double* aligned, Vector<Isa> v) {
  *reinterpret_cast<typename VectorTypes<Isa>::Memory*>(aligned) = v;
}

template <class Isa>
[[gnu::always_inline]] inline void StoreUnaligned(double* anywhere, Vector<Isa> v) {
  *reinterpret_cast<typename VectorTypes<Isa>::Unaligned*>(anywhere) = v;
}

template <class Isa>
[[gnu::always_inline]] inline double Sum(Vector<Isa> v) {
  double sum = v[0];
  for (int lane = 1; lane < Isa::Lanes; ++lane) sum += v[lane];
  return sum;
}

template <class Isa>
[[gnu::always_inline]] inline Vector<Isa> SquareRoot(Vector<Isa> v) {
  Vector<Isa> root;
  for (int lane = 0; lane < Isa::Lanes; ++lane) root[lane] = __builtin_sqrt(v[lane]);
  return root;
}

// Of two rows, exchanges the lanes whose number has bit `Stride` set in the first with those that
// have it clear in the second.
template <class Isa, int Stride, int... Lane>
[[gnu::always_inline]] inline void ExchangeLanes(Vector<Isa>& a, Vector<Isa>& b,
                                                 std::integer_sequence<int, Lane...>) {
  constexpr int L = Isa::Lanes;
  const Vector<Isa> low =
      __builtin_shufflevector(a, b, ((Lane & Stride) == 0 ? Lane : L + Lane - Stride)...);
  const Vector<Isa> high =
      __builtin_shufflevector(a, b, ((Lane & Stride) == 0 ? Lane + Stride : L + Lane)...);
  a = low;
  b = high;
}

// Transposes the square of Lanes rows, halving the blocks that change places at each step.
template <class Isa, int Stride = Isa::Lanes / 2>
[[gnu::always_inline]] inline void Transpose(Vector<Isa> (&row)[Isa::Lanes]) {
  if constexpr (Stride > 0) {
    for (int i = 0; i < Isa::Lanes; ++i)
      if ((i & Stride) == 0)
        ExchangeLanes<Isa, Stride>(row[i], row[i + Stride],
                                   std::make_integer_sequence<int, Isa::Lanes>());
    Transpose<Isa, Stride / 2>(row);
  }
}

// atan(x) for every x; infinities give pi/2 with the sign of x, a NaN stays one.
// The argument is brought into |t| <= tan(pi/8) by atan(a) = pi/4 + atan((a - 1)/(a + 1)) and
// atan(a) = pi/2 + atan(-1/a) (Abramowitz and Stegun, Handbook of Mathematical Functions, 4.4.34
// and 4.4.5), where atan(t) = t + t z P(z), z = t^2. P interpolates at the Chebyshev points of
// 0 <= z <= tan(pi/8)^2; its error is 7e-18 of the result, so rounding is all that is left.
template <class Isa>
[[gnu::always_inline]] inline Vector<Isa> Arctangent(Vector<Isa> x) {
  using Real = Vector<Isa>;
  using Mask = typename VectorTypes<Isa>::Mask;
  constexpr double TanPi8 = 0.41421356237309503;
  constexpr double Tan3Pi8 = 2.414213562373095;
  constexpr double Pi4 = 0.7853981633974483;
  constexpr double Pi2 = 1.5707963267948966;

  const Mask sign = reinterpret_cast<Mask>(x) & INT64_MIN;
  const Real a = reinterpret_cast<Real>(reinterpret_cast<Mask>(x) & INT64_MAX);
  const Real zero = {};
  const Mask middle = a > TanPi8;
  const Mask large = a > Tan3Pi8;
  const Real numerator = large ? zero - 1.0 : (middle ? a - 1.0 : a);
  const Real denominator = large ? a : (middle ? a + 1.0 : zero + 1.0);
  const Real base = large ? zero + Pi2 : (middle ? zero + Pi4 : zero);

  const Real t = numerator / denominator;
  const Real z = t * t;
  const Real z2 = z * z;
  const Real z4 = z2 * z2;
  const Real p0 = (-0.3333333333333333 + 0.1999999999999552 * z) +
                  z2 * (-0.14285714284666542 + 0.11111111015256361 * z);
  const Real p4 = (-0.09090904578123903 + 0.07692183190826087 * z) +
                  z2 * (-0.06664511447381948 + 0.0585814891280221 * z);
  const Real p8 = (-0.0508544973794026 + 0.03923165829558719 * z) + z2 * -0.01917688711906226;
  const Real result = base + (t + t * z * (p0 + z4 * (p4 + z4 * p8)));
  return reinterpret_cast<Real>(reinterpret_cast<Mask>(result) | sign);
}
