// What an iteration of the iterative mode costs on the matrix of a prepared working directory, in
// blocks and by the plain sweeps on the matrix itself, and beside it the time of reading both
// triangles of the blocks once. The directory is given by VK_BENCH_DIR; nothing is written there
// but the log. iterative.py drives it.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "elements/assembly.hpp"
#include "elemlib/feinteg.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "platform/process.hpp"
#include "run/services/logger.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"
#include "solver/sleblocks.hpp"
#include "solver/slepccgsolver.hpp"
#include "solver/solversta.hpp"

namespace {

constexpr int Trials = 3;  // the best of them counts

template <class F>
double Seconds(F work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

template <class F>
double BestSeconds(F work) {
  double best = Seconds(work);
  for (int trial = 1; trial < Trials; ++trial) best = std::min(best, Seconds(work));
  return best;
}

// A system that is ready to be solved: matrix, right-hand side and zero displacements.
void Assemble() {
  LOGGER_OPEN("vk_rund_log.txt");
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  RUNOPT_READ(101, "vk_rund_cmd.txt");
  SOLVERSTA::IMode = SOLVERSTA::ModeIterative;
  PLATFORM_FLUSHTOZERO();
  RUNOPT_SETTHREADS();
  FEMODEL_LOAD();
  FELOADCASE_PREPARE(1, LoadCaseStatic, 1);
  SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, "mxs.sadr");
  PREPARESYSMATRIXANDINTERNALFORCES();
  VKCORE_FORMRIGHTHANDSIDE();
  for (std::int64_t i = 0; i < SOLVERSTA::NumEquations; ++i)
    SOLVERSTA::SysRhs[i] *= SOLVERSTA::SysScale[i];
}

void BuildBlocks() {
  SLEBLOCKS_BUILD(SOLVERSTA::NumEquations, SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                  SOLVERSTA::SysMatrix.get());
}

void Iterate(std::int32_t iterations) {
  SLEPCCGSOLVER::PcgMode = SLEPCCGSOLVER::PcgSweeps;
  SLEPCCGSOLVER::PcgMaxIter = iterations;
  std::fill_n(FEDOF::Displacements.get(), SOLVERSTA::NumEquations, 0.0);
  SLEPCCGSOLVER_COMPUTE(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), SOLVERSTA::SysMatrixSP.get(),
                        SOLVERSTA::SysMatrix.get(), SOLVERSTA::SysRhs.get(),
                        FEDOF::Displacements.get());
}

// Seconds of one iteration, without what a solve does once.
double IterationSeconds(std::int32_t iterations) {
  Iterate(iterations);  // pages and processors wake up
  const double start = BestSeconds([] { Iterate(1); });
  const double all = BestSeconds([iterations] { Iterate(1 + iterations); });
  return (all - start) / iterations;
}

// The sum keeps the reading from being left out; eight of them hide the latency of the additions.
double SumOf(const double* values, std::int64_t first, std::int64_t last) {
  double sum[8] = {};
  std::int64_t i = first;
  for (; i + 8 <= last; i += 8)
    for (int k = 0; k < 8; ++k) sum[k] += values[i + k];
  for (; i < last; ++i) sum[0] += values[i];
  return ((sum[0] + sum[1]) + (sum[2] + sum[3])) + ((sum[4] + sum[5]) + (sum[6] + sum[7]));
}

// Reads `count` values, each thread a part of its own.
double ReadAll(const double* values, std::int64_t count) {
  double total = 0.0;
#pragma omp parallel reduction(+ : total)
  {
    const std::int64_t team = omp_get_num_threads(), thread = omp_get_thread_num();
    total += SumOf(values, count * thread / team, count * (thread + 1) / team);
  }
  return total;
}

double TriangleBytes() {
  constexpr double perBlock = SLEBLOCKS::BlockSize * 8.0 + 4.0;
  return 2.0 * (SLEBLOCKS::NumBlocks * perBlock + SLEBLOCKS::NumRows * 4.0);
}

// Bytes per second at which this team reads the values of both triangles.
double ReadBandwidth() {
  const std::int64_t count = std::int64_t{SLEBLOCKS::NumBlocks} * SLEBLOCKS::BlockSize;
  double seconds = 1e30;
  for (int pass = 0; pass < 10; ++pass)
    seconds = std::min(seconds, Seconds([count] {
                         benchmark::DoNotOptimize(ReadAll(SLEBLOCKS::Upper.values.get(), count));
                         benchmark::DoNotOptimize(ReadAll(SLEBLOCKS::Lower.values.get(), count));
                       }));
  return 16.0 * static_cast<double>(count) / seconds;
}

int Stages() {
  int stages = 0;
  for (std::int32_t c = 0; c < SLEBLOCKS::NumChunks; c = SLEBLOCKS::Chunks[c].stageLast) ++stages;
  return stages;
}

void CountBlocks(benchmark::State& state, std::int32_t iterations) {
  state.counters["setup"] = Seconds(BuildBlocks);
  if (!SLEBLOCKS::HoldsMatrix) return;
  state.counters["setup_values"] = BestSeconds(BuildBlocks);
  state.counters["stages"] = Stages();
  state.counters["block_rows"] = SLEBLOCKS::NumRows;
  state.counters["blocks"] = SLEBLOCKS::NumBlocks;
  state.counters["iteration"] = IterationSeconds(iterations);
  const double bandwidth = ReadBandwidth();
  state.counters["bandwidth"] = bandwidth;
  state.counters["reading"] = TriangleBytes() / bandwidth;
}

void BM_Iterative(benchmark::State& state) {
  const char* directory = std::getenv("VK_BENCH_DIR");
  std::string reason;
  if (directory == nullptr || !PLATFORM_ENTERDIRECTORY(directory, reason)) {
    state.SkipWithError("VK_BENCH_DIR names no prepared working directory");
    return;
  }
  Assemble();
  if (!SOLVERSTA::UseIm4) {
    state.SkipWithError("the system is beyond 32-bit indices, which alone have blocks");
    return;
  }
  const char* given = std::getenv("VK_BENCH_ITERATIONS");
  const std::int32_t iterations = given != nullptr ? std::atoi(given) : 40;
  for (auto _ : state) {
    state.SetIterationTime(Seconds([&] { CountBlocks(state, iterations); }));
    SLEBLOCKS::HoldsMatrix = false;
    state.counters["plain_iteration"] = IterationSeconds(std::max(iterations / 4, 1));
  }
  state.counters["equations"] = SOLVERSTA::NumEquations;
  state.counters["entries"] = static_cast<double>(SOLVERSTA::NumEntries);
  state.counters["threads"] = omp_get_max_threads();
  SOLVERSTA_RELEASE();
  LOGGER_CLOSE();
}
BENCHMARK(BM_Iterative)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace
