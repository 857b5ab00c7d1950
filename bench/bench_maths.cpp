// The four maths operations on a structured box of hexahedra, three equations a node, and a STREAM
// triad of the same run to hold the sparse operations against. Argument: nodes along an edge; 31
// gives 89,373 equations, 46 gives 292,008.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/maths/maths.hpp"
#include "platform/slot.hpp"

namespace {

// Upper triangle with the pattern of a box of hexahedra and the values of a diagonally dominant
// matrix: the pattern decides the time.
struct Box {
  int n = 0;
  std::vector<int> ia{1};
  std::vector<int> ja;
  std::vector<double> a;
  std::vector<float> single;
};

void AddRow(Box& box, int node, int axis, const std::vector<int>& neighbours) {
  const int row = 3 * node + axis + 1;
  box.ja.push_back(row);
  box.a.push_back(1.0);
  for (const int other : neighbours)
    for (int otherAxis = other == node ? axis + 1 : 0; otherAxis < 3; ++otherAxis) {
      box.ja.push_back(3 * other + otherAxis + 1);
      box.a.push_back(otherAxis == axis ? -1.0 / 60.0 : 1.0 / 400.0);
    }
  box.ia.push_back(static_cast<int>(box.ja.size()) + 1);
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
  Box box;
  box.n = 3 * edge * edge * edge;
  for (int k = 0; k < edge; ++k)
    for (int j = 0; j < edge; ++j)
      for (int i = 0; i < edge; ++i) {
        const std::vector<int> neighbours = HigherNeighbours(edge, i, j, k);
        for (int axis = 0; axis < 3; ++axis)
          AddRow(box, (k * edge + j) * edge + i, axis, neighbours);
      }
  box.single.assign(box.a.begin(), box.a.end());
  return box;
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
  pardiso(solver.pt, &one, &one, &mtype, &phase, &box.n, box.single.data(), box.ia.data(),
          box.ja.data(), &perm, &one, solver.iparm, &silent, solver.b.data(), solver.x.data(),
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

// Bytes of one reading of the matrix and of reading and writing a vector each way.
void ReportBytes(benchmark::State& state, const Box& box, int readings) {
  const auto entries = static_cast<double>(box.ja.size());
  const double bytes = readings * (12.0 * entries + 4.0 * box.n + 16.0 * box.n);
  state.counters["GB/s"] =
      benchmark::Counter(bytes * 1e-9, benchmark::Counter::kIsIterationInvariantRate);
}

void SymmetricProduct(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  const std::vector<double> x(static_cast<std::size_t>(box.n), 1.0);
  std::vector<double> y(x.size());
  for (auto _ : state)
    mkl_dcsrsymv("U", &box.n, box.a.data(), box.ia.data(), box.ja.data(), x.data(), y.data());
  ReportBytes(state, box, 1);
}

void PairOfSweeps(benchmark::State& state) {
  const Box& box = BoxOf(state.range(0));
  const std::vector<double> x(static_cast<std::size_t>(box.n), 1.0);
  std::vector<double> y(x.size());
  std::vector<double> z(x.size());
  for (auto _ : state) {
    mkl_dcsrtrsv("U", "T", "U", &box.n, box.a.data(), box.ia.data(), box.ja.data(), x.data(),
                 y.data());
    mkl_dcsrtrsv("U", "N", "N", &box.n, box.a.data(), box.ia.data(), box.ja.data(), y.data(),
                 z.data());
  }
  ReportBytes(state, box, 2);
}

// a := b + 3 c on arrays of 256 MB each (J. D. McCalpin, STREAM).
void StreamTriad(benchmark::State& state) {
  constexpr std::int64_t n = 32'000'000;
  const std::unique_ptr<double[]> memory(new double[3 * n]);
  double* a = memory.get();
  double* b = a + n;
  double* c = b + n;
#pragma omp parallel for schedule(static)
  for (std::int64_t i = 0; i < n; ++i) {
    a[i] = 0.0;
    b[i] = 1.0;
    c[i] = 2.0;
  }
  for (auto _ : state) {
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) a[i] = b[i] + 3.0 * c[i];
    benchmark::ClobberMemory();
  }
  state.counters["GB/s"] =
      benchmark::Counter(24e-9 * n, benchmark::Counter::kIsIterationInvariantRate);
}

}  // namespace

BENCHMARK(StreamTriad)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(SymmetricProduct)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(PairOfSweeps)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Analysis)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(Factor)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(FactorSolve)->Arg(31)->Arg(46)->UseRealTime()->Unit(benchmark::kMillisecond);
