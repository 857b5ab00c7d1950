// The nine element kernels, each by both rules: elements per second, floating-point operations per
// element, GFLOP/s and the share of the peak that this processor reaches with nothing but fused
// multiply-adds, measured in the same run. The last benchmark is a dense B^T M B for comparison.
//
// Operations are those of the formulas, one for each +, -, x, /; an arctangent counts 40, a square
// root 1. With n nodes, l level nodes, p points and s gradient sets (1 where the gradients are
// constant, otherwise p):
//   geometry and strain  s (18 n + 42 + 15 n + 18 n)   Jacobian, inverse, gradients, strains
//   fields               p (2 n + 2 l + 9 + 18 + 2)    T, F, mechanical strain, stress, volume
//   presence             p 44
//   forces               p 7 + s 18 n
//   matrix               s (3 n + 18 n (n + 1) / 2) + 33 n (n + 1) / 2
//   response             p (44 + 2 + 12 + 20 + 26)     second presence, energy, von Mises, nine
//   sums
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <random>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "elements/fekernel.hpp"
#include "elemlib/feinteg.hpp"
#include "platform/processor.hpp"

namespace {

enum Kind { Forces, Matrix, Response };

struct Shape {
  int typeCode, nodes, levelNodes;
  bool constantGradient;
  int points[2];  // of the rules of order 2 and 3
};

constexpr Shape Tet4 = {40, 4, 4, true, {4, 8}};
constexpr Shape Hex8 = {60, 8, 8, false, {8, 27}};
constexpr Shape Tet10 = {41, 10, 4, false, {4, 8}};

double Flops(const Shape& shape, int order, Kind kind) {
  const double n = shape.nodes, l = shape.levelNodes, p = shape.points[order - 2];
  const double s = shape.constantGradient ? 1 : p, pairs = n * (n + 1) / 2;
  double flops = s * (51 * n + 42) + p * (2 * n + 2 * l + 29) + p * 44;
  if (kind == Response) return flops + p * 104;
  flops += p * 7 + s * 18 * n;
  return kind == Matrix ? flops + s * (3 * n + 18 * pairs) + 33 * pairs : flops;
}

// --- peak
// -----------------------------------------------------------------------------------------

constexpr int PeakChains = 12;  // enough independent sums to hide the latency of two pipes
constexpr int PeakSteps = 2000;

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) double RunAvx2() {
  __m256d sum[PeakChains];
  for (auto& v : sum) v = _mm256_set1_pd(1.0);
  const __m256d a = _mm256_set1_pd(0.999), b = _mm256_set1_pd(1e-3);
  for (int step = 0; step < PeakSteps; ++step)
#pragma GCC unroll 12
    for (auto& v : sum) v = _mm256_fmadd_pd(v, a, b);
  for (auto& v : sum) benchmark::DoNotOptimize(v);
  return 2.0 * 4 * PeakChains * PeakSteps;
}

__attribute__((target("avx512f"))) double RunAvx512() {
  __m512d sum[PeakChains];
  for (auto& v : sum) v = _mm512_set1_pd(1.0);
  const __m512d a = _mm512_set1_pd(0.999), b = _mm512_set1_pd(1e-3);
  for (int step = 0; step < PeakSteps; ++step)
#pragma GCC unroll 12
    for (auto& v : sum) v = _mm512_fmadd_pd(v, a, b);
  for (auto& v : sum) benchmark::DoNotOptimize(v);
  return 2.0 * 8 * PeakChains * PeakSteps;
}
#endif

// Vectors of two doubles: what the portable kernels are made of.
double RunPortable() {
  typedef double Pair __attribute__((vector_size(16)));
  Pair sum[PeakChains];
  for (auto& v : sum) v = Pair{1.0, 1.0};
  for (int step = 0; step < PeakSteps; ++step)
#pragma GCC unroll 12
    for (auto& v : sum) v = v * 0.999 + 1e-3;
  for (auto& v : sum) benchmark::DoNotOptimize(v);
  return 2.0 * 2 * PeakChains * PeakSteps;
}

double RunPeak() {
#if defined(__x86_64__)
  if (PLATFORM_INSTRUCTIONSET() == InstructionSet::Avx512) return RunAvx512();
  if (PLATFORM_INSTRUCTIONSET() == InstructionSet::Avx2) return RunAvx2();
#endif
  return RunPortable();
}

// Best of many short runs, flops per second. Measured once.
double Peak() {
  static const double peak = [] {
    double best = 0;
    for (int run = 0; run < 2000; ++run) {
      const auto start = std::chrono::steady_clock::now();
      const double flops = RunPeak();
      const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
      best = std::max(best, flops / time.count());
    }
    return best;
  }();
  return peak;
}

// --- kernels
// --------------------------------------------------------------------------------------

struct Element {
  MaterialLoadData loadData = {20, 1e-3, 2e-3, 1e-3, 1e-4, 2e-4, 3e-4};
  MaterialConstants stiffness = {11, 3, 2, 13, 4, 9, 6, 7, 8};
  ElementVector coords = {};
  ElementScalars phi = {};
  ElementVector disp = {};
  ElementScalars scalars = {};
};

// A skewed element; levels around zero (order 3) or far below (order 2).
Element MakeElement(const Shape& shape, int order) {
  const double hex[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                            {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  const double tet[10][3] = {{0, 0, 0},     {1, 0, 0},   {0, 1, 0},   {0, 0, 1},     {0.5, 0, 0},
                             {0.5, 0.5, 0}, {0, 0.5, 0}, {0, 0, 0.5}, {0.5, 0, 0.5}, {0, 0.5, 0.5}};
  std::mt19937 random(1);
  std::uniform_real_distribution<double> unit(-1, 1);
  Element e;
  for (int a = 0; a < shape.nodes; ++a)
    for (int i = 0; i < 3; ++i)
      e.coords[3 * a + i] = (shape.typeCode == 60 ? hex[a][i] : tet[a][i]) + 0.03 * unit(random);
  for (double& u : e.disp) u = 0.01 * unit(random);
  for (double& t : e.scalars) t = 10 * unit(random);
  for (double& p : e.phi) p = order == 3 ? 0.003 * unit(random) : -0.3;
  return e;
}

void Call(const Shape& shape, Kind kind, const Element& e, ElementVector& f, ElementMatrix& k,
          ElementResponse& r) {
  const auto& [l, c, x, phi, u, t] = e;
  if (shape.typeCode == 40) {
    if (kind == Forces) FEKERNEL_TET4_FORCES(l, c, x, phi, u, t, f);
    if (kind == Matrix) FEKERNEL_TET4_MATRIX(l, c, x, phi, u, t, f, k);
    if (kind == Response) FEKERNEL_TET4_RESPONSE(l, c, x, phi, u, t, r);
  } else if (shape.typeCode == 60) {
    if (kind == Forces) FEKERNEL_HEX8_FORCES(l, c, x, phi, u, t, f);
    if (kind == Matrix) FEKERNEL_HEX8_MATRIX(l, c, x, phi, u, t, f, k);
    if (kind == Response) FEKERNEL_HEX8_RESPONSE(l, c, x, phi, u, t, r);
  } else {
    if (kind == Forces) FEKERNEL_TET10_FORCES(l, c, x, phi, u, t, f);
    if (kind == Matrix) FEKERNEL_TET10_MATRIX(l, c, x, phi, u, t, f, k);
    if (kind == Response) FEKERNEL_TET10_RESPONSE(l, c, x, phi, u, t, r);
  }
}

void SetCounters(benchmark::State& state, double flops) {
  using benchmark::Counter;
  state.counters["elements/s"] = Counter(1.0, Counter::kIsIterationInvariantRate);
  state.counters["flop/element"] = flops;
  state.counters["FLOP/s"] = Counter(flops, Counter::kIsIterationInvariantRate);
  state.counters["share of peak"] = Counter(flops / Peak(), Counter::kIsIterationInvariantRate);
}

void BM_Kernel(benchmark::State& state, const Shape& shape, Kind kind) {
  FEINTEG_INITTETRULES();
  const int order = static_cast<int>(state.range(0));
  const Element e = MakeElement(shape, order);
  ElementVector f = {};
  alignas(64) ElementMatrix k = {};
  ElementResponse r = {};
  for (auto step : state) {
    Call(shape, kind, e, f, k, r);
    benchmark::DoNotOptimize(f);
    benchmark::DoNotOptimize(k);
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  SetCounters(state, Flops(shape, order, kind));
}

BENCHMARK_CAPTURE(BM_Kernel, Tet4_forces, Tet4, Forces)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Tet4_matrix, Tet4, Matrix)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Tet4_response, Tet4, Response)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Hex8_forces, Hex8, Forces)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Hex8_matrix, Hex8, Matrix)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Hex8_response, Hex8, Response)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Tet10_forces, Tet10, Forces)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Tet10_matrix, Tet10, Matrix)->ArgName("order")->Arg(2)->Arg(3);
BENCHMARK_CAPTURE(BM_Kernel, Tet10_response, Tet10, Response)->ArgName("order")->Arg(2)->Arg(3);

// The stiffness update alone of a hexahedron with 27 points, column by column of a dense 6 by 24 B:
// t = Bn^T (C column of Bn) + Bs^T (shears column of Bs), added over a contiguous run.
void BM_DenseUpdateHex8(benchmark::State& state) {
  constexpr int Dofs = 24, Points = 27;
  std::mt19937 random(1);
  std::uniform_real_distribution<double> unit(-1, 1);
  static double b[Points][6][Dofs], w[Points];
  for (auto& point : b)
    for (auto& row : point)
      for (double& v : row) v = unit(random);
  for (double& v : w) v = unit(random) + 1;
  const double c[9] = {11, 3, 2, 13, 4, 9, 3, 3.5, 4};
  alignas(64) ElementMatrix k = {};
  for (auto step : state) {
    for (double& v : k) v = 0;
    for (int p = 0; p < Points; ++p)
      for (int j = 0; j < Dofs; ++j) {
        const double(&x)[6][Dofs] = b[p];
        const double m[6] = {w[p] * (c[0] * x[0][j] + c[1] * x[1][j] + c[2] * x[2][j]),
                             w[p] * (c[1] * x[0][j] + c[3] * x[1][j] + c[4] * x[2][j]),
                             w[p] * (c[2] * x[0][j] + c[4] * x[1][j] + c[5] * x[2][j]),
                             w[p] * c[6] * x[3][j],
                             w[p] * c[7] * x[4][j],
                             w[p] * c[8] * x[5][j]};
        for (int i = 0; i <= j; ++i) {
          double sum = 0;
          for (int row = 0; row < 6; ++row) sum += x[row][i] * m[row];
          k[i + MaxElementDofs * j] += sum;
        }
      }
    benchmark::DoNotOptimize(k);
    benchmark::ClobberMemory();
  }
  SetCounters(state, Points * (Dofs * 24.0 + 12.0 * Dofs * (Dofs + 1) / 2));
}
BENCHMARK(BM_DenseUpdateHex8);

}  // namespace
