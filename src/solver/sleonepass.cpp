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

#include "platform/processor.hpp"
#include "solver/onepass_rows.hpp"
#include "solver/sleblocks.hpp"

namespace {

using SLEBLOCKS::Chunks;
using SLEBLOCKS::NumChunks;
using SLEBLOCKS::NumRows;
using SLEBLOCKS::Triangle;
using SLEBLOCKS::Width;

static_assert(OnePassWidth == Width && OnePassBlockSize == SLEBLOCKS::BlockSize);

// Vectors by unknown, [NumRows][3], with the names of the formulas; h stands for ^.
struct Vectors {
  Array<double> x, r, rh, ph, t, w, q;
};

Vectors V;
OnePassRows Rows;                // V and the matrix as the loops take them
Array<OnePassPartial> Partials;  // [NumChunks]
Array<std::int32_t> Taken;       // [tasks] iteration, from 1, in which a thread last took each task

// The scalars of the running iteration.
double Beta = 0.0;
double Alpha = 0.0;
double RhRh = 0.0;
double ResidualNorm = 0.0;

// Whether the processor has the instruction set of OnePassAvx2; elsewhere the portable loops work.
bool TakesAvx2() {
#if defined(__x86_64__)
  return PLATFORM_INSTRUCTIONSET() != InstructionSet::Portable;
#else
  return false;
#endif
}

const bool Avx2 = TakesAvx2();

void BackwardChunk(std::int32_t c) {
  const std::int64_t first = Chunks[c].first, last = Chunks[c].last;
#if defined(__x86_64__)
  if (Avx2) return OnePassBackward<OnePassAvx2>(Rows, first, last, Beta);
#endif
  OnePassBackward<OnePassPortable>(Rows, first, last, Beta);
}

void ForwardChunk(std::int32_t c) {
  const std::int64_t first = Chunks[c].first, last = Chunks[c].last;
#if defined(__x86_64__)
  if (Avx2) return OnePassForward<OnePassAvx2>(Rows, first, last, Partials[c]);
#endif
  OnePassForward<OnePassPortable>(Rows, first, last, Partials[c]);
}

void UpdateChunk(std::int32_t c) {
  const std::int64_t first = Chunks[c].first, last = Chunks[c].last;
#if defined(__x86_64__)
  if (Avx2) return OnePassUpdate<OnePassAvx2>(Rows, first, last, Alpha, Partials[c]);
#endif
  OnePassUpdate<OnePassPortable>(Rows, first, last, Alpha, Partials[c]);
}

void TransformChunk(std::int32_t c) {
  const std::int64_t first = Chunks[c].first, last = Chunks[c].last;
#if defined(__x86_64__)
  if (Avx2) return OnePassTransform<OnePassAvx2>(Rows, first, last, Partials[c]);
#endif
  OnePassTransform<OnePassPortable>(Rows, first, last, Partials[c]);
}

double SumOf(double OnePassPartial::*part) {
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

// Work of one iteration in stages: the backward stages of chunks from the last to the first, the
// forward ones, alpha, the updates, the judgement. A stage begins when all tasks before it are
// done. Each thread takes the chunks of its own part of a stage first, whose neighbours it has in
// its cache, then what is left of the others' parts: nobody waits for a thread without a task.
struct Solve {
  OnePassLimits limits;
  std::int32_t count = 0;
  bool converged = false;

  alignas(64) std::atomic<std::int64_t> done = 0;
  alignas(64) std::atomic<bool> ended = false;
  std::atomic<int> team = 1;  // threads that take tasks; the others sleep
};

// Watches whether the threads get their processors. Where other programs hold them, a smaller team
// can be faster, since a team that shares out levels goes at the pace of its slowest. A team that
// has lost time for several windows on end is compared with one of half its size, and what is
// faster goes on; a smaller team tries the larger one again now and then, more and more rarely.
struct Pace {
  int largestTeam = 1;
  int formerTeam = 0;       // while another size is tried, else 0
  double formerTime = 0.0;  // of an iteration
  int lostWindows = 0;      // on end
  double lostTime = 0.0;    // of their iterations, summed up
  int windows = 0;          // since the size was taken
  int patience = 0;         // windows until a larger team is tried
  int iterations = 0;       // of the present window
  double wall = 0.0;        // clocks at its start
  double cpu = 0.0;
};

constexpr double WindowSeconds = 4e-3;
constexpr double BusyShare = 0.8;  // of the processors' time: less means that others hold them
constexpr double WorthwhileGain = 0.95;
constexpr int WindowsToShrink = 3;
constexpr int WindowsToGrow = 8;
constexpr int LongestPatience = 64;

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
  pace.lostWindows = 0;
  pace.windows = 0;
  SetTeam(solve, team);
}

// Ends the trial of a team whose iterations took `time`.
void JudgeTrial(Solve& solve, Pace& pace, double time) {
  const int team = solve.team.load(std::memory_order_relaxed);
  const bool grown = team > pace.formerTeam;
  const bool better = time < WorthwhileGain * pace.formerTime;
  if (!better) SetTeam(solve, pace.formerTeam);
  pace.patience = grown && !better ? std::min(2 * pace.patience, LongestPatience) : WindowsToGrow;
  pace.formerTeam = 0;
}

// Ends a window outside of trials.
void JudgeWindow(Solve& solve, Pace& pace, double time, bool lost) {
  const int team = solve.team.load(std::memory_order_relaxed);
  ++pace.windows;
  pace.lostTime = lost ? pace.lostTime + time : 0.0;
  pace.lostWindows = lost ? pace.lostWindows + 1 : 0;
  if (team > 1 && pace.lostWindows >= WindowsToShrink)
    TryTeam(solve, pace, team / 2, pace.lostTime / pace.lostWindows);
  else if (team < pace.largestTeam && pace.windows >= pace.patience)
    TryTeam(solve, pace, std::min(2 * team, pace.largestTeam), time);
}

void AdjustTeam(Solve& solve, Pace& pace) {
  if (pace.largestTeam == 1) return;
  ++pace.iterations;
  const double wall = SecondsOf(CLOCK_MONOTONIC) - pace.wall;
  if (wall < WindowSeconds) return;
  const double cpu = SecondsOf(CLOCK_PROCESS_CPUTIME_ID) - pace.cpu;
  const double time = wall / pace.iterations;
  const int team = solve.team.load(std::memory_order_relaxed);
  if (pace.formerTeam != 0)
    JudgeTrial(solve, pace, time);
  else
    JudgeWindow(solve, pace, time, cpu < BusyShare * team * wall);
  StartWindow(pace);
}

std::int64_t TasksPerIteration() { return 3 * std::int64_t{NumChunks} + 2; }

void Judge(Solve& solve, Pace& pace) {
  ResidualNorm = LargestNorm();
  const double previous = RhRh;
  RhRh = SumOf(&OnePassPartial::rhrh);
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

// What a thread knows of its place in the work.
struct Worker {
  Solve& solve;
  Pace& pace;
  int thread;
  std::int64_t iteration;  // from 1
};

// True for one thread only.
bool Takes(const Worker& worker, std::int64_t task) {
  const std::atomic_ref<std::int32_t> taken(Taken[task]);
  std::int32_t last = taken.load(std::memory_order_relaxed);
  const auto now = static_cast<std::int32_t>(worker.iteration);
  return last < now && taken.compare_exchange_strong(last, now, std::memory_order_relaxed);
}

// Tasks [first, last) of an iteration, which may be worked on once `needed` of them all are done;
// `run` gets the number of a task. False: the solve has ended.
template <class Run>
bool WorkStage(const Worker& worker, std::int64_t needed, std::int64_t first, std::int64_t last,
               Run run) {
  Solve& solve = worker.solve;
  if (!WaitFor(solve, (worker.iteration - 1) * TasksPerIteration() + needed)) return false;
  const std::int64_t count = last - first;
  const int team = solve.team.load(std::memory_order_relaxed);
  std::int64_t task = first + count * (worker.thread % team) / team;
  for (std::int64_t i = 0; i < count; ++i, ++task) {
    if (task == last) task = first;
    if (!Takes(worker, task)) continue;
    run(task);
    solve.done.fetch_add(1, std::memory_order_release);
  }
  return true;
}

bool WorkIteration(const Worker& worker) {
  const std::int32_t n = NumChunks;
  for (std::int32_t last = n; last > 0; last = Chunks[last - 1].stageFirst)
    if (!WorkStage(worker, n - last, Chunks[last - 1].stageFirst, last,
                   [](std::int64_t task) { BackwardChunk(static_cast<std::int32_t>(task)); }))
      return false;
  for (std::int32_t first = 0; first < n; first = Chunks[first].stageLast)
    if (!WorkStage(worker, n + first, n + first, n + Chunks[first].stageLast,
                   [n](std::int64_t task) { ForwardChunk(static_cast<std::int32_t>(task - n)); }))
      return false;
  const std::int64_t swept = 2 * std::int64_t{n};
  return WorkStage(worker, swept, swept, swept + 1,
                   [](std::int64_t) { Alpha = RhRh / SumOf(&OnePassPartial::phqh); }) &&
         WorkStage(worker, swept + 1, swept + 1, swept + 1 + n,
                   [swept](std::int64_t task) {
                     UpdateChunk(static_cast<std::int32_t>(task - swept - 1));
                   }) &&
         WorkStage(worker, swept + 1 + n, swept + 1 + n, swept + 2 + n,
                   [&worker](std::int64_t) { Judge(worker.solve, worker.pace); });
}

// A thread that comes late, since it slept or had no processor, goes on where the others are.
void Work(Solve& solve, Pace& pace, int thread) {
  Worker worker{.solve = solve, .pace = pace, .thread = thread, .iteration = 0};
  do {
    Park(solve, thread);
    const std::int64_t done = solve.done.load(std::memory_order_acquire);
    worker.iteration = std::max(worker.iteration + 1, done / TasksPerIteration() + 1);
  } while (WorkIteration(worker));
}

void AllocateVectors(std::string_view failure) {
  const std::int64_t n = Width * std::int64_t{NumRows};
  for (Array<double>* v : {&V.x, &V.r, &V.rh, &V.ph, &V.t, &V.w, &V.q})
    *v = ARRAYS_ALLOCATE<double>(n, failure);
  Partials = ARRAYS_ALLOCATE<OnePassPartial>(NumChunks, failure);
  Taken = ARRAYS_ALLOCATE<std::int32_t>(TasksPerIteration(), failure);
  std::fill_n(Taken.get(), TasksPerIteration(), 0);
  const auto plain = [](const Triangle& triangle) -> OnePassTriangle {
    return {triangle.start.get(), triangle.column.get(), triangle.values.get(),
            SLEBLOCKS::NumBlocks};
  };
  Rows = {.upper = plain(SLEBLOCKS::Upper),
          .lower = plain(SLEBLOCKS::Lower),
          .diagonal = SLEBLOCKS::Diagonal.get(),
          .x = V.x.get(),
          .r = V.r.get(),
          .rh = V.rh.get(),
          .ph = V.ph.get(),
          .t = V.t.get(),
          .w = V.w.get(),
          .q = V.q.get()};
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
  for (std::int32_t c = 0; c < NumChunks; ++c) TransformChunk(c);
  RhRh = SumOf(&OnePassPartial::rhrh);
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
  Taken.reset();
  return {.count = solve.count, .converged = solve.converged, .norm = ResidualNorm};
}
