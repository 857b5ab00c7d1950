// One load case of a prepared working directory, stage by stage through the public operations, and
// beside it the bare work of the direct solver. The directory is given by VK_BENCH_DIR; load case 1
// runs, and its result files are written there. run_stages.py drives it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "elements/assembly.hpp"
#include "elements/feelem.hpp"
#include "elemlib/feinteg.hpp"
#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fenod.hpp"
#include "model/fileio.hpp"
#include "platform/maths/maths.hpp"
#include "platform/process.hpp"
#include "response/compsave.hpp"
#include "run/services/logger.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/slepccgsolver.hpp"
#include "solver/solversta.hpp"

namespace {

template <class F>
double Seconds(F work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Bytes per second from the page cache into memory that is there already.
double PageCacheSpeed(const std::vector<std::string>& names, double& bytes) {
  std::vector<char> buffer(std::size_t{1} << 22, 1);
  bytes = 0.0;
  double seconds = 1e30;
  for (int pass = 0; pass < 3; ++pass) {
    bytes = 0.0;
    seconds = std::min(seconds, Seconds([&] {
                         for (const std::string& name : names) {
                           const int file = ::open(name.c_str(), O_RDONLY);
                           ssize_t got = 0;
                           while ((got = ::read(file, buffer.data(), buffer.size())) > 0)
                             bytes += static_cast<double>(got);
                           ::close(file);
                         }
                       }));
  }
  return bytes / seconds;
}

struct BareTimes {
  double analysis = 0.0, factor = 0.0, solve = 0.0;
};

// The direct solver called with nothing around it, on the matrix that the run has left.
BareTimes BareSolver() {
  void* handle[64] = {};
  std::int32_t table[64] = {};
  table[0] = 1;
  table[1] = 3;
  table[9] = 8;
  table[27] = 1;
  const std::int32_t one = 1, mtype = 2, silent = 0, n = SOLVERSTA::NumEquations;
  std::int32_t permutation = 0, error = 0;
  std::vector<float> b(static_cast<std::size_t>(n), 1.0f), x(b);
  const auto call = [&](std::int32_t phase) {
    return Seconds([&] {
      pardiso(handle, &one, &one, &mtype, &phase, &n, SOLVERSTA::SysMatrixSP.get(),
              SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), &permutation, &one, table, &silent,
              b.data(), x.data(), &error);
    });
  };
  BareTimes bare;
  bare.analysis = call(11);
  bare.factor = call(22);
  call(33);
  bare.solve = std::min({call(33), call(33), call(33)});
  call(-1);
  return bare;
}

// What the arrays that live through the solve take, without the factor.
double ArrayBytes() {
  const double nodes = FEMODEL::NumNodes, elements = FEMODEL::NumElements;
  const double equations = SOLVERSTA::NumEquations;
  const double entries = static_cast<double>(SOLVERSTA::NumEntries);
  const double index = SOLVERSTA::UseIm4 ? 4.0 : 8.0;
  double bytes = nodes * (12 + 2 + 4 + 4 + 1 + 12) + elements * (8 + 2) +
                 FEMODEL::NumConn40 * 16.0 + FEMODEL::NumConn60 * 32.0 + FEMODEL::NumConn41 * 40.0;
  bytes += equations * (index + 8 * 4) + entries * (index + 8);
  if (SOLVERSTA::SysMatrixSP) bytes += entries * 4;
  return bytes + equations * (4 * 8 + 2 * 4);  // work vectors of the iteration
}

void Start() {
  LOGGER_OPEN("vk_rund_log.txt");
  FEINTEG_INITTETRULES();
  FEINTEG_INITTRIRULES();
  RUNOPT_READ(101, "vk_rund_cmd.txt");
  SOLVERSTA::IMode = VKCORE::RunOptions.ComputationMode;
  PLATFORM_FLUSHTOZERO();
  RUNOPT_SETTHREADS();
}

void CountBare(benchmark::State& state, double staged) {
  const BareTimes bare = BareSolver();
  const double solves = bare.solve * std::abs(SLEPCCGSOLVER::ICount);
  state.counters["bare_analysis"] = bare.analysis;
  state.counters["bare_factor"] = bare.factor;
  state.counters["bare_solves"] = solves;
  state.counters["bare_ratio"] = staged / (bare.analysis + bare.factor + solves);
}

// False, with the benchmark's error set, without a directory to work in.
bool EnterDirectory(benchmark::State& state) {
  const char* directory = std::getenv("VK_BENCH_DIR");
  std::string reason;
  if (directory != nullptr && PLATFORM_ENTERDIRECTORY(directory, reason)) return true;
  state.SkipWithError("VK_BENCH_DIR names no prepared working directory");
  return false;
}

void BM_Run(benchmark::State& state) {
  if (!EnterDirectory(state)) return;
  for (auto _ : state) {
    Start();
    double modelBytes = 0.0, total = 0.0;
    const double cache = PageCacheSpeed({"mx.mats", "mx.nodes", "mxs.nodeflags", "mxs.tpadr",
                                         "mx.elems", "mxs.elemflags", "mxs.tp"},
                                        modelBytes);
    const auto stage = [&](const char* name, auto work) {
      const double seconds = Seconds(work);
      state.counters[name] = seconds;
      total += seconds;
      return seconds;
    };
    const double reading = stage("1_read", [] { FEMODEL_LOAD(); });
    stage("2_prepare", [] { FELOADCASE_PREPARE(1, LoadCaseStatic, 1); });
    stage("3_structure", [] { SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, "mxs.sadr"); });
    const double assembly = stage("4_assembly", [] { PREPARESYSMATRIXANDINTERNALFORCES(); });
    stage("5_solver_setup", [] { VKCORE_PREPARESOLVER(); });
    stage("6_solve", [] {
      VKCORE_FORMRIGHTHANDSIDE();
      VKCORE_RUNANALYSIS();
    });
    stage("7_response_write", [] { VKCORE_COMPSAVERESPONSE(); });
    stage("8_state_write",
          [] { FENOD_SAVEDISP(FILEIO::WriteUnit, "ws.sstate.0001", FEDOF::Displacements.get()); });
    state.SetIterationTime(total);
    state.counters["equations"] = SOLVERSTA::NumEquations;
    state.counters["iterations"] = SLEPCCGSOLVER::ICount;
    state.counters["elements_per_s"] = FEMODEL::NumElements / assembly;
    state.counters["read_GBs"] = modelBytes / reading / 1e9;
    state.counters["cache_GBs"] = cache / 1e9;
    state.counters["arrays_GB"] = ArrayBytes() / 1e9;
    if (SOLVERSTA::IMode == SOLVERSTA::ModeFactorised && SOLVERSTA::UseIm4) {
      SLEPARDISOSOLVER_RELEASE_I4();
      CountBare(state, total);
    }
    SOLVERSTA_RELEASE();
    LOGGER_CLOSE();
  }
}
BENCHMARK(BM_Run)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// The element passes of the directory's model alone, without a solution: the matrix and forces as a
// load case builds them, into new arrays, and the response at displacements of zero.
void BM_Passes(benchmark::State& state) {
  if (!EnterDirectory(state)) return;
  double structure = 1e30, assembly = 1e30, forces = 1e30, response = 1e30;
  for (auto _ : state) {
    Start();
    FEMODEL_LOAD();
    FELOADCASE_PREPARE(1, LoadCaseStatic, 1);
    structure =
        std::min(structure, Seconds([] { SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, "mxs.sadr"); }));
    assembly = std::min(assembly, Seconds([] { PREPARESYSMATRIXANDINTERNALFORCES(); }));
    forces = std::min(forces, Seconds([] { PREPARESYSINTERNALFORCES(); }));
    COMPSAVE_INITRESPONSE(FEMODEL::NumTp, FEMODEL::NumNodes);
    ResponseTotals totals;
    response =
        std::min(response, Seconds([&] { FEELEM_RESPONSE(FEDOF::Displacements.get(), totals); }));
    COMPSAVE_FREERESPONSE();
    FELOADCASE::PreviousPattern = 0;
    SOLVERSTA_RELEASE();
    LOGGER_CLOSE();
  }
  const double elements = FEMODEL::NumElements;
  state.counters["structure"] = structure;
  state.counters["assembly"] = assembly;
  state.counters["elements_per_s"] = elements / assembly;
  state.counters["forces_per_s"] = elements / forces;
  state.counters["response_per_s"] = elements / response;
}
BENCHMARK(BM_Passes)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace
