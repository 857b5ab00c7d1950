#include "solver/sleonepass.hpp"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <string_view>
#include <thread>

#include "solver/sleblocks.hpp"

namespace {

using SLEBLOCKS::BlockSize;
using SLEBLOCKS::Chunks;
using SLEBLOCKS::Lower;
using SLEBLOCKS::NumChunks;
using SLEBLOCKS::NumRows;
using SLEBLOCKS::Upper;
using SLEBLOCKS::Width;

// Vectors by unknown, [NumRows][3], with the names of the formulas; h stands for ^.
struct Vectors {
  Array<double> x, r, rh, ph, t, w, q;
};

// Sums and maxima of one chunk.
struct Partial {
  double phqh;  // p^.(t + w)
  double rhrh;  // r^.r^
  double norm;  // largest |r|, NaN when one of them is not finite
};

Vectors V;
Array<Partial> Partials;  // [NumChunks]

// The scalars of the running iteration.
double Beta = 0.0;
double Alpha = 0.0;
double RhRh = 0.0;
double ResidualNorm = 0.0;

// s -= B v for one block.
void Subtract(const double* block, const double* v, double* s) {
  for (std::int64_t i = 0; i < Width; ++i)
    s[i] -= (block[3 * i] * v[0] + block[3 * i + 1] * v[1]) + block[3 * i + 2] * v[2];
}

// s += B v
void Add(const double* block, const double* v, double* s) {
  for (std::int64_t i = 0; i < Width; ++i)
    s[i] += (block[3 * i] * v[0] + block[3 * i + 1] * v[1]) + block[3 * i + 2] * v[2];
}

// p^ := beta p^ - r^,  t := inverse(I + U) p^ in one row, whose neighbours upwards are done.
void BackwardRow(std::int64_t row) {
  double* ph = &V.ph[Width * row];
  const double* rh = &V.rh[Width * row];
  double s[Width];
  for (int i = 0; i < Width; ++i) s[i] = ph[i] = Beta * ph[i] - rh[i];
  const double* t = V.t.get();
  const double* values = Upper.values.get();
  for (std::int64_t k = Upper.start[row]; k < Upper.start[row + 1]; ++k)
    Subtract(values + BlockSize * k, t + Width * std::int64_t{Upper.column[k]}, s);
  const double* u = &SLEBLOCKS::Diagonal[Width * row];  // (1,2), (1,3), (2,3)
  s[1] -= u[2] * s[2];
  s[0] -= u[0] * s[1] + u[1] * s[2];
  std::copy_n(s, Width, &V.t[Width * row]);
}

// w := inverse(I + L) (p^ - t),  q := p^ + L t in one row, whose neighbours downwards are done.
// Returns the row's share of p^.(t + w).
double ForwardRow(std::int64_t row) {
  const double* ph = &V.ph[Width * row];
  const double* tRow = &V.t[Width * row];
  double lw[Width] = {};
  double lt[Width] = {};
  const double* t = V.t.get();
  const double* w = V.w.get();
  const double* values = Lower.values.get();
  for (std::int64_t k = Lower.start[row]; k < Lower.start[row + 1]; ++k) {
    const std::int64_t other = Width * std::int64_t{Lower.column[k]};
    Add(values + BlockSize * k, w + other, lw);
    Add(values + BlockSize * k, t + other, lt);
  }
  const double* l = &SLEBLOCKS::Diagonal[Width * row];  // (2,1), (3,1), (3,2)
  const double w0 = ph[0] - tRow[0] - lw[0];
  const double w1 = ph[1] - tRow[1] - lw[1] - l[0] * w0;
  const double w2 = ph[2] - tRow[2] - lw[2] - (l[1] * w0 + l[2] * w1);
  double* wRow = &V.w[Width * row];
  wRow[0] = w0;
  wRow[1] = w1;
  wRow[2] = w2;
  double* q = &V.q[Width * row];
  q[0] = ph[0] + lt[0];
  q[1] = ph[1] + (lt[1] + l[0] * tRow[0]);
  q[2] = ph[2] + (lt[2] + (l[1] * tRow[0] + l[2] * tRow[1]));
  return ph[0] * (tRow[0] + w0) + ph[1] * (tRow[1] + w1) + ph[2] * (tRow[2] + w2);
}

// r^ := inverse(I + L) r in one row.
void TransformRow(std::int64_t row) {
  double s[Width];
  std::copy_n(&V.r[Width * row], Width, s);
  for (std::int64_t k = Lower.start[row]; k < Lower.start[row + 1]; ++k)
    Subtract(&Lower.values[BlockSize * k], &V.rh[Width * std::int64_t{Lower.column[k]}], s);
  const double* l = &SLEBLOCKS::Diagonal[Width * row];
  s[1] -= l[0] * s[0];
  s[2] -= l[1] * s[0] + l[2] * s[1];
  std::copy_n(s, Width, &V.rh[Width * row]);
}

void BackwardChunk(std::int32_t c) {
  for (std::int64_t row = Chunks[c].last; row-- > Chunks[c].first;) BackwardRow(row);
}

void ForwardChunk(std::int32_t c) {
  double sum = 0.0;
  for (std::int64_t row = Chunks[c].first; row < Chunks[c].last; ++row) sum += ForwardRow(row);
  Partials[c].phqh = sum;
}

// The three updates with the norm and the dot product that the next iteration needs. A product with
// zero turns whatever isn't finite into NaN.
void UpdateChunk(std::int32_t c) {
  const std::int64_t last = Width * std::int64_t{Chunks[c].last};
  double sum = 0.0;
  double norm = 0.0;
  double poison = 0.0;
  for (std::int64_t i = Width * std::int64_t{Chunks[c].first}; i < last; ++i) {
    V.x[i] += Alpha * V.t[i];
    V.rh[i] += Alpha * (V.t[i] + V.w[i]);
    sum += V.rh[i] * V.rh[i];
    const double r = V.r[i] += Alpha * V.q[i];
    norm = std::max(norm, std::fabs(r));
    poison += 0.0 * r;
  }
  Partials[c].rhrh = sum;
  Partials[c].norm = norm + poison;
}

double SumOf(double Partial::*part) {
  double sum = 0.0;
  for (std::int32_t c = 0; c < NumChunks; ++c) sum += Partials[c].*part;
  return sum;
}

double LargestNorm() {
  double norm = 0.0;
  for (std::int32_t c = 0; c < NumChunks; ++c)
    if (!(Partials[c].norm <= norm)) {
      norm = Partials[c].norm;
      if (std::isnan(norm)) break;
    }
  return norm;
}

// Work of one iteration as a row of tasks, in the order in which they are taken: the backward
// chunks from the last to the first, the forward chunks, alpha, the updates, the judgement. Threads
// take tasks by a running number, and a task waits until all before its stage are done; nobody
// waits for a thread that has no task.
struct Solve {
  OnePassLimits limits;
  std::int32_t count = 0;
  bool converged = false;

  alignas(64) std::atomic<std::int64_t> taken = 0;
  alignas(64) std::atomic<std::int64_t> done = 0;
  alignas(64) std::atomic<bool> ended = false;
  std::atomic<int> team = 1;  // threads that take tasks; the others sleep
};

// Watches whether the threads get their processors. Where other programs hold them, a smaller team
// can be faster, since a team that shares out levels goes at the pace of its slowest: sizes are
// tried by halves and doubles, and what was faster stays.
struct Pace {
  int largestTeam = 1;
  int formerTeam = 0;         // while another size is tried, else 0
  double formerTime = 0.0;    // of an iteration
  int untroubledWindows = 0;  // since the last try
  int iterations = 0;         // of the present window
  double wall = 0.0;          // clocks at its start
  double cpu = 0.0;
};

constexpr double WindowSeconds = 4e-3;
constexpr double BusyShare = 0.85;  // of the processors' time: less means that others hold them
constexpr double WorthwhileGain = 0.95;
constexpr int WindowsToGrow = 24;  // before a larger team is tried again

double SecondsOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

void StartWindow(Pace& pace) {
  pace.iterations = 0;
  pace.wall = SecondsOf(CLOCK_MONOTONIC);
  pace.cpu = SecondsOf(CLOCK_PROCESS_CPUTIME_ID);
}

void SetTeam(Solve& solve, int team) {
  solve.team.store(team, std::memory_order_release);
  solve.team.notify_all();
}

void TryTeam(Solve& solve, Pace& pace, int team, double time) {
  pace.formerTeam = solve.team.load(std::memory_order_relaxed);
  pace.formerTime = time;
  pace.untroubledWindows = 0;
  SetTeam(solve, team);
}

void AdjustTeam(Solve& solve, Pace& pace) {
  if (pace.largestTeam == 1) return;
  ++pace.iterations;
  const double wall = SecondsOf(CLOCK_MONOTONIC) - pace.wall;
  if (wall < WindowSeconds) return;
  const double cpu = SecondsOf(CLOCK_PROCESS_CPUTIME_ID) - pace.cpu;
  const double time = wall / pace.iterations;
  const int team = solve.team.load(std::memory_order_relaxed);
  if (pace.formerTeam != 0) {
    if (time > WorthwhileGain * pace.formerTime) SetTeam(solve, pace.formerTeam);
    pace.formerTeam = 0;
  } else if (team > 1 && cpu < BusyShare * team * wall) {
    TryTeam(solve, pace, team / 2, time);
  } else if (team < pace.largestTeam && ++pace.untroubledWindows >= WindowsToGrow) {
    TryTeam(solve, pace, std::min(2 * team, pace.largestTeam), time);
  }
  StartWindow(pace);
}

std::int64_t TasksPerIteration() { return 3 * std::int64_t{NumChunks} + 2; }

// How many of an iteration's tasks have to be done before task `task` may start.
std::int64_t Needed(std::int64_t task) {
  const std::int64_t n = NumChunks;
  if (task < n) return n - Chunks[n - 1 - task].stageLast;
  if (task < 2 * n) return n + Chunks[task - n].stageFirst;
  if (task == 2 * n) return 2 * n;
  if (task < 3 * n + 1) return 2 * n + 1;
  return 3 * n + 1;
}

void Judge(Solve& solve, Pace& pace) {
  ResidualNorm = LargestNorm();
  const double previous = RhRh;
  RhRh = SumOf(&Partial::rhrh);
  Beta = RhRh / previous;
  ++solve.count;
  solve.converged = ResidualNorm / solve.limits.bnorm <= solve.limits.tolerance;
  if (solve.converged || solve.count == solve.limits.maxIterations) {
    solve.ended.store(true, std::memory_order_release);
    SetTeam(solve, pace.largestTeam);
  } else {
    AdjustTeam(solve, pace);
  }
}

void RunTask(std::int64_t task, Solve& solve, Pace& pace) {
  const std::int64_t n = NumChunks;
  if (task < n)
    BackwardChunk(static_cast<std::int32_t>(n - 1 - task));
  else if (task < 2 * n)
    ForwardChunk(static_cast<std::int32_t>(task - n));
  else if (task == 2 * n)
    Alpha = RhRh / SumOf(&Partial::phqh);
  else if (task < 3 * n + 1)
    UpdateChunk(static_cast<std::int32_t>(task - 2 * n - 1));
  else
    Judge(solve, pace);
}

void Pause() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

// Spins for microseconds, then gives the processor away, then sleeps. False: the solve has ended.
bool WaitFor(const Solve& solve, std::int64_t needed) {
  constexpr int spins = 400;
  constexpr int yields = 40;
  for (int turn = 0; solve.done.load(std::memory_order_acquire) < needed; ++turn) {
    if (solve.ended.load(std::memory_order_acquire)) return false;
    if (turn < spins)
      Pause();
    else if (turn < spins + yields)
      std::this_thread::yield();
    else
      std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
  return !solve.ended.load(std::memory_order_acquire);
}

// Sleeps while the team does without this thread.
void Park(const Solve& solve, int thread) {
  for (int team = solve.team.load(); thread >= team; team = solve.team.load())
    solve.team.wait(team);
}

void Work(Solve& solve, Pace& pace, int thread) {
  const std::int64_t perIteration = TasksPerIteration();
  for (;;) {
    Park(solve, thread);
    const std::int64_t number = solve.taken.fetch_add(1, std::memory_order_relaxed);
    const std::int64_t before = number / perIteration * perIteration;
    if (!WaitFor(solve, before + Needed(number - before))) return;
    RunTask(number - before, solve, pace);
    solve.done.fetch_add(1, std::memory_order_release);
  }
}

void AllocateVectors(std::string_view failure) {
  const std::int64_t n = Width * std::int64_t{NumRows};
  for (Array<double>* v : {&V.x, &V.r, &V.rh, &V.ph, &V.t, &V.w, &V.q})
    *v = ARRAYS_ALLOCATE<double>(n, failure);
  Partials = ARRAYS_ALLOCATE<Partial>(NumChunks, failure);
}

// r := -b and zeros everywhere else; padding stays 0 for good.
void StartVectors(const double* b) {
  const std::int64_t n = Width * std::int64_t{NumRows};
  const std::int32_t* unknown = SLEBLOCKS::Unknown.get();
#pragma omp parallel
  {
#pragma omp for schedule(static)
    for (std::int64_t i = 0; i < n; ++i) V.x[i] = V.r[i] = V.ph[i] = 0.0;
#pragma omp for schedule(static)
    for (std::int32_t i = 0; i < SLEBLOCKS::NumEquations; ++i) V.r[unknown[i]] = -b[i];
  }
}

void AddCorrection(double* x) {
  const std::int32_t* unknown = SLEBLOCKS::Unknown.get();
#pragma omp parallel for schedule(static)
  for (std::int32_t i = 0; i < SLEBLOCKS::NumEquations; ++i) x[i] += V.x[unknown[i]];
}

// r^ of the start and its square.
void TransformResidual() {
  for (std::int64_t row = 0; row < NumRows; ++row) TransformRow(row);
  for (std::int32_t c = 0; c < NumChunks; ++c) {
    double sum = 0.0;
    for (std::int64_t i = Width * std::int64_t{Chunks[c].first};
         i < Width * std::int64_t{Chunks[c].last}; ++i)
      sum += V.rh[i] * V.rh[i];
    Partials[c].rhrh = sum;
  }
  RhRh = SumOf(&Partial::rhrh);
}

}  // namespace

OnePassEnd SLEONEPASS_ITERATE(const double* b, double* x, const OnePassLimits& limits,
                              std::string_view failure) {
  AllocateVectors(failure);
  StartVectors(b);
  TransformResidual();
  Beta = 0.0;
  Solve solve{.limits = limits};
  Pace pace;
  StartWindow(pace);
#pragma omp parallel
  {
#pragma omp single
    {
      pace.largestTeam = omp_get_num_threads();
      solve.team = pace.largestTeam;
    }
    Work(solve, pace, omp_get_thread_num());
  }
  AddCorrection(x);
  V = Vectors{};
  Partials.reset();
  return {.count = solve.count, .converged = solve.converged, .norm = ResidualNorm};
}
