// The direct solver and the sparse operations on a structured box of hexahedra, three equations a
// node, and STREAM's triad and a mere reading in the same run to hold the sparse operations
// against. Argument: nodes along an edge; 31 gives 89,373 equations, 46 gives 292,008.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/maths/maths.hpp"
#include "platform/slot.hpp"
#include "run/services/arrays.hpp"
#include "solver/sleblocks.hpp"
#include "solver/slepccgsolver.hpp"
#include "solver/slesparse.hpp"
#include "solver/system_arrays.hpp"

namespace {

// As the program's own arrays lie: in huge pages.
template <class T>
Array<T> Filled(std::size_t count, T value) {
  Array<T> array = ARRAYS_ALLOCATE<T>(static_cast<std::int64_t>(count));
  std::fill_n(array.get(), count, value);
  return array;
}

template <class T, class From>
Array<T> CopyOf(const std::vector<From>& values) {
  Array<T> array = ARRAYS_ALLOCATE<T>(static_cast<std::int64_t>(values.size()));
  std::transform(values.begin(), values.end(), array.get(),
                 [](From value) { return static_cast<T>(value); });
  return array;
}

// Upper triangle with the pattern of a box of hexahedra and the values of a diagonally dominant
// matrix: the pattern decides the time.
struct Rows {
  std::vector<int> ia{1};
  std::vector<int> ja;
  std::vector<double> a;
};

struct Box {
  int n = 0;
  std::size_t entries = 0;
  Array<int> ia, ja;
  Array<double> a;
  Array<float> single;
};

void AddRow(Rows& rows, int node, int axis, const std::vector<int>& neighbours) {
  const int row = 3 * node + axis + 1;
  rows.ja.push_back(row);
  rows.a.push_back(1.0);
  for (const int other : neighbours)
    for (int otherAxis = other == node ? axis + 1 : 0; otherAxis < 3; ++otherAxis) {
      rows.ja.push_back(3 * other + otherAxis + 1);
      rows.a.push_back(otherAxis == axis ? -1.0 / 60.0 : 1.0 / 400.0);
    }
  rows.ia.push_back(static_cast<int>(rows.ja.size()) + 1);
}

// The node itself and the neighbours with higher numbers, ascending.
std::vector<int> HigherNeighbours(int edge, int i, int j, int k) {
  std::vector<int> result;
  const int node = (k * edge + j) * edge + i;
  for (int dk = 0; dk <= 1; ++dk)
    for (int dj = -1; dj <= 1; ++dj)
      for (int di = -1; di <= 1; ++di) {
        if (i + di < 0 || i + di >= edge || j + dj < 0 || j + dj >= edge || k + dk >= edge)
          continue;
        const int other = ((k + dk) * edge + j + dj) * edge + i + di;
        if (other >= node) result.push_back(other);
      }
  return result;
}

Box MakeBox(int edge) {
  Rows rows;
  for (int k = 0; k < edge; ++k)
    for (int j = 0; j < edge; ++j)
      for (int i = 0; i < edge; ++i) {
        const std::vector<int> neighbours = HigherNeighbours(edge, i, j, k);
        for (int axis = 0; axis < 3; ++axis)
          AddRow(rows, (k * edge + j) * edge + i, axis, neighbours);
      }
  return {.n = 3 * edge * edge * edge,
          .entries = rows.ja.size(),
          .ia = CopyOf<int>(rows.ia),
          .ja = CopyOf<int>(rows.ja),
          .a = CopyOf<double>(rows.a),
          .single = CopyOf<float>(rows.a)};
}

// One box at a time stays in memory.
const Box& BoxOf(std::int64_t edge) {
  static std::int64_t held = 0;
  static Box box;
  if (held != edge) box = MakeBox(static_cast<int>(edge));
  held = edge;
  return box;
}

struct DirectSolver {
  std::int64_t pt[64] = {};
  int iparm[64] = {};
  std::vector<float> b;
  std::vector<float> x;

  explicit DirectSolver(int n)
      : b(static_cast<std::size_t>(n), 1.0F), x(static_cast<std::size_t>(n)) {
    iparm[Slot(1)] = 1;
    iparm[Slot(2)] = 3;
    iparm[Slot(10)] = 8;
    iparm[Slot(28)] = 1;
  }
};

void RunPhase(DirectSolver& solver, const Box& box, int phase) {
  const int one = 1;
  const int mtype = 2;
  const int silent = 0;
  int perm = 0;
  int error = 0;
  pardiso(solver.pt, &one, &one, &mtype, &phase, &box.n, box.single.get(), box.ia.get(),
          box.ja.get(), &perm, &one, solver.iparm, &silent, solver.b.data(), solver.x.data(),
          &error);
  if (error != 0) std::abort();
}

void Analysis(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  DirectSolver solver(box.n);
  for (auto _ : state) {
    RunPhase(solver, box, 11);
    state.PauseTiming();
    state.counters["estimated_GB"] = solver.iparm[Slot(17)] / 1048576.0;
    RunPhase(solver, box, -1);
    state.ResumeTiming();
  }
}

void Factor(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  DirectSolver solver(box.n);
  RunPhase(solver, box, 11);
  for (auto _ : state) RunPhase(solver, box, 22);
  RunPhase(solver, box, -1);
}

void FactorSolve(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  DirectSolver solver(box.n);
  RunPhase(solver, box, 11);
  RunPhase(solver, box, 22);
  for (auto _ : state) RunPhase(solver, box, 33);
  RunPhase(solver, box, -1);
}

constexpr std::size_t StreamLength = 32'000'000;

double SumOfEight(const double* v, std::int64_t n) {
  double lane[8] = {};
  for (std::int64_t i = 0; i < n; i += 8)
    for (int k = 0; k < 8; ++k) lane[k] += v[i + k];
  return lane[0] + lane[1] + lane[2] + lane[3] + lane[4] + lane[5] + lane[6] + lane[7];
}

double ReadAll(const double* v) {
  constexpr std::int64_t pieces = 1000, length = std::int64_t{StreamLength} / pieces;
  double sum = 0.0;
#pragma omp parallel for schedule(static) reduction(+ : sum)
  for (std::int64_t piece = 0; piece < pieces; ++piece)
    sum += SumOfEight(v + piece * length, length);
  return sum;
}

// Bytes per second of reading 256 MB, the best of ten.
double ReadBandwidth() {
  static double best = 0.0;
  if (best > 0.0) return best;
  const Array<double> v = Filled(StreamLength, 1.0);
  for (int pass = 0; pass < 10; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(ReadAll(v.get()));
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
    best = std::max(best, 8.0 * StreamLength / spent.count());
  }
  return best;
}

// Bytes that have to be moved, and how much longer than reading as many bytes it took.
void ReportBytes(benchmark::State& state, double bytes) {
  using benchmark::Counter;
  state.counters["GB/s"] = Counter(bytes * 1e-9, Counter::kIsIterationInvariantRate);
  state.counters["times_reading"] =
      Counter(bytes / ReadBandwidth(), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

// One reading of the matrix and of its addresses.
double MatrixBytes(const Box& box) { return 12.0 * static_cast<double>(box.entries) + 4.0 * box.n; }

void SymmetricProduct(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  const auto n = static_cast<std::size_t>(box.n);
  const Array<double> x = Filled(n, 1.0), y = Filled(n, 0.0);
  for (auto _ : state)
    SLESPARSE_MULTIPLY(box.n, box.a.get(), box.ia.get(), box.ja.get(), x.get(), y.get());
  ReportBytes(state, MatrixBytes(box) + 16.0 * box.n);
}

// The matrix once more in blocks, structure and values: what a product in blocks would have to
// earn.
void Blocks(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  for (auto _ : state) {
    SLEBLOCKS_BUILD(box.n, box.ia.get(), box.ja.get(), box.a.get());
    if (!SLEBLOCKS::HoldsMatrix) std::abort();
    state.PauseTiming();
    SLEBLOCKS_RELEASE();
    state.ResumeTiming();
  }
}

void PairOfSweeps(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  const auto n = static_cast<std::size_t>(box.n);
  const Array<double> x = Filled(n, 1.0), y = Filled(n, 0.0), z = Filled(n, 0.0);
  for (auto _ : state) {
    SLESPARSE_SWEEPFORWARD(box.n, box.a.get(), box.ia.get(), box.ja.get(), x.get(), y.get());
    SLESPARSE_SWEEPBACKWARD(box.n, box.a.get(), box.ia.get(), box.ja.get(), y.get(), z.get());
  }
  ReportBytes(state, 2 * (MatrixBytes(box) + 16.0 * box.n));
}

// Four iterations of the conjugate gradients without a preconditioner: product and vectors. The
// vectors are p, q twice, x and r both ways, and what the preconditioner gives, three times.
void FourIterations(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  const auto n = static_cast<std::size_t>(box.n);
  SOLVERSTA::NumEquations = box.n;
  SLEPCCGSOLVER::PcgMode = SLEPCCGSOLVER::PcgPlain;
  SLEPCCGSOLVER::PcgMaxIter = 4;
  const Array<double> b = Filled(n, 0.0), x = Filled(n, 0.0);
  b[n / 2] = 1.0;  // not converged by then
  for (auto _ : state)
    SLEPCCGSOLVER_COMPUTE_I4(box.ia.get(), box.ja.get(), box.single.get(), box.a.get(), b.get(),
                             x.get());
  if (SLEPCCGSOLVER::ICount != -4) std::abort();
  ReportBytes(state, 4 * (MatrixBytes(box) + 13 * 8.0 * box.n));
}

// a := b + 3 c on arrays of 256 MB each (J. D. McCalpin, STREAM).
void StreamTriad(benchmark::State& state) {
  const Array<double> a = Filled(StreamLength, 0.0), b = Filled(StreamLength, 1.0),
                      c = Filled(StreamLength, 2.0);
  for (auto _ : state) {
#pragma omp parallel for schedule(static)
    for (std::size_t i = 0; i < StreamLength; ++i) a[i] = b[i] + 3.0 * c[i];
    benchmark::ClobberMemory();
  }
  ReportBytes(state, 24.0 * StreamLength);
}

void StreamRead(benchmark::State& state) {
  const Array<double> v = Filled(StreamLength, 1.0);
  for (auto _ : state) benchmark::DoNotOptimize(ReadAll(v.get()));
  ReportBytes(state, 8.0 * StreamLength);
}

}  // namespace

BENCHMARK(StreamTriad)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(StreamRead)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(SymmetricProduct)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Blocks)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PairOfSweeps)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(FourIterations)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Analysis)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Factor)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(FactorSolve)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
