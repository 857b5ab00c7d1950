// The vector operations, with two and with eight doubles, made of whatever registers the build has.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "elements/kernel_vector.hpp"

namespace {

// Own types, so that nothing compiled here can stand in for the library's code.
struct TwoLanes {
  static constexpr int Lanes = 2;
};
struct FourLanes {
  static constexpr int Lanes = 4;
};
struct EightLanes {
  static constexpr int Lanes = 8;
};

template <class Isa>
class KernelVector : public testing::Test {};
using Widths = testing::Types<TwoLanes, FourLanes, EightLanes>;
TYPED_TEST_SUITE(KernelVector, Widths);

template <class Isa>
double ArctangentOf(double x) {
  Vector<Isa> v = {};
  v[Isa::Lanes - 1] = x;
  const Vector<Isa> a = Arctangent<Isa>(v);
  EXPECT_EQ(a[0], 0.0);
  return a[Isa::Lanes - 1];
}

// Largest difference from the library's extended-precision arctangent, in the unit of 1e-16.
template <class Isa>
double ArctangentError(double x) {
  const long double exact = std::atan(static_cast<long double>(x));
  return static_cast<double>(std::fabs(static_cast<long double>(ArctangentOf<Isa>(x)) - exact) *
                             1e16L);
}

TYPED_TEST(KernelVector, ArctangentIsExactTo4e16OverADenseSweep) {
  double worst = 0;
  for (int n = -300000; n <= 300000; ++n)  // -30 .. 30
    worst = std::max(worst, ArctangentError<TypeParam>(n * 1e-4));
  for (int n = -60000; n <= 60000; ++n) {  // all magnitudes, both signs
    const double magnitude = std::pow(10.0, std::abs(n) / 100.0 - 300.0);
    worst = std::max(worst, ArctangentError<TypeParam>(n < 0 ? -magnitude : magnitude));
  }
  EXPECT_LT(worst, 4.0);
  EXPECT_GT(worst, 0.0);
}

TYPED_TEST(KernelVector, ArctangentIsExactWhereItsRangesMeet) {
  for (double border : {0.41421356237309503, 1.0, 2.414213562373095})
    for (double x : {std::nextafter(border, 0.0), border, std::nextafter(border, 3.0)}) {
      EXPECT_LT(ArctangentError<TypeParam>(x), 4.0) << x;
      EXPECT_LT(ArctangentError<TypeParam>(-x), 4.0) << -x;
    }
}

TYPED_TEST(KernelVector, ArctangentOfTinyArgumentsIsTheArgument) {
  for (double x : {1e-300, 1e-200, 1e-20, 1e-9}) {
    EXPECT_EQ(ArctangentOf<TypeParam>(x), x);
    EXPECT_EQ(ArctangentOf<TypeParam>(-x), -x);
  }
  EXPECT_EQ(ArctangentOf<TypeParam>(0.0), 0.0);
  EXPECT_TRUE(std::signbit(ArctangentOf<TypeParam>(-0.0)));
}

TYPED_TEST(KernelVector, ArctangentOfHugeAndInfiniteArgumentsIsThatOfTheLibrary) {
  for (double x :
       {1e17, 1e100, std::numeric_limits<double>::max(), std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(ArctangentOf<TypeParam>(x), std::atan(x)) << x;
    EXPECT_EQ(ArctangentOf<TypeParam>(-x), std::atan(-x)) << -x;
  }
}

TYPED_TEST(KernelVector, ArctangentOfNaNIsNaN) {
  EXPECT_TRUE(std::isnan(ArctangentOf<TypeParam>(std::numeric_limits<double>::quiet_NaN())));
  EXPECT_TRUE(std::isnan(ArctangentOf<TypeParam>(-std::numeric_limits<double>::quiet_NaN())));
}

TYPED_TEST(KernelVector, TransposeExchangesRowsAndLanes) {
  constexpr int L = TypeParam::Lanes;
  Vector<TypeParam> row[L];
  for (int i = 0; i < L; ++i)
    for (int j = 0; j < L; ++j) row[i][j] = 10 * i + j;
  Transpose<TypeParam>(row);
  for (int i = 0; i < L; ++i)
    for (int j = 0; j < L; ++j) EXPECT_EQ(row[i][j], 10 * j + i);
}

TYPED_TEST(KernelVector, SumAddsAllLanes) {
  Vector<TypeParam> v;
  for (int lane = 0; lane < TypeParam::Lanes; ++lane) v[lane] = lane + 1;
  EXPECT_EQ(Sum<TypeParam>(v), TypeParam::Lanes * (TypeParam::Lanes + 1) / 2);
}

TYPED_TEST(KernelVector, SquareRootIsExact) {
  Vector<TypeParam> v;
  for (int lane = 0; lane < TypeParam::Lanes; ++lane) v[lane] = 0.1 * lane;
  const Vector<TypeParam> root = SquareRoot<TypeParam>(v);
  for (int lane = 0; lane < TypeParam::Lanes; ++lane) EXPECT_EQ(root[lane], std::sqrt(0.1 * lane));
}

TYPED_TEST(KernelVector, StoreUnalignedWritesAnywhere) {
  double buffer[10] = {};
  Vector<TypeParam> v;
  for (int lane = 0; lane < TypeParam::Lanes; ++lane) v[lane] = lane + 1;
  StoreUnaligned<TypeParam>(buffer + 1, v);
  EXPECT_EQ(buffer[0], 0.0);
  for (int lane = 0; lane < TypeParam::Lanes; ++lane) EXPECT_EQ(buffer[1 + lane], lane + 1);
  EXPECT_EQ(buffer[1 + TypeParam::Lanes], 0.0);
}

}  // namespace
