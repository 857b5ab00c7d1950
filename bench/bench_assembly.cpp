// Element passes: the kernel alone, the scatter alone, and both together as a load case runs them.
// Arguments: threads. Items are elements.
#include <benchmark/benchmark.h>
#include <omp.h>

#include "../tests/support/box_model.hpp"
#include "elements/assembly.hpp"
#include "elements/feelem.hpp"

namespace {

constexpr int Cells = 40;  // per edge: 384,000 tetrahedra, 207,000 equations

void SetModel() {
  static bool done = false;
  if (!done) {
    SetBox(Cells, Cells, Cells);
    SetConstraints(ClampedFace());
    SetNumbering();
    SetSystem(true);
  }
  done = true;
}

void CountElements(benchmark::State& state, std::int64_t perIteration) {
  state.SetItemsProcessed(state.iterations() * perIteration);
}

// A level field that crosses zero in the middle of the box, as an optimisation has it: the elements
// around the crossing take the larger integration rule.
void SetLevelField(bool crossing) {
  for (std::int32_t i = 0; i < FEMODEL::NumNodes; ++i)
    FEMODEL::NodeTpFactor[i] =
        crossing ? (FEMODEL::NodeCoords[i].Z - 0.5f * Cells) / Cells + 0.01f : 1.0f;
}

void BM_MatrixKernel(benchmark::State& state) {
  SetModel();
  SetLevelField(false);
  ElementDofs dofs;
  ElementVector forces;
  ElementMatrix matrix;
  std::int32_t dofCount = 0;
  std::int32_t element = 0;
  for (auto _ : state) {
    element = element % FEMODEL::NumElements + 1;
    FEELEM_MATRIXANDFORCES(element, FEDOF::Displacements.get(), dofCount, dofs, forces, matrix);
    benchmark::DoNotOptimize(matrix);
  }
  CountElements(state, 1);
}
BENCHMARK(BM_MatrixKernel);

// One element's matrix into every element's places; on several threads, either all threads into the
// same element (contended) or each into its own block.
void BM_Scatter(benchmark::State& state) {
  SetModel();
  const auto threads = static_cast<int>(state.range(0));
  const bool contended = state.range(1) != 0;
  ElementMatrix matrix = {};
  ElementVector forces = {};
  for (auto _ : state) {
#pragma omp parallel for schedule(static) num_threads(threads)
    for (std::int32_t element = 1; element <= FEMODEL::NumElements; ++element) {
      ElementDofs dofs;
      std::int32_t dofCount = 0;
      const std::int32_t target = contended ? FEMODEL::NumElements / 2 + element % 6 : element;
      const std::int32_t* nodes = FEMODEL::Conn40[Slot(target)].Node;
      for (int i = 0; i < 12; ++i)
        dofs[dofCount++] = FEDOF::NodeDofMap[3 * Slot(nodes[i / 3]) + i % 3];
      SOLVERSTA_ADDTOFFUSYM(dofCount, dofs, forces, matrix, MaxElementDofs);
    }
  }
  CountElements(state, FEMODEL::NumElements);
}
BENCHMARK(BM_Scatter)
    ->ArgNames({"threads", "contended"})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ForcePass(benchmark::State& state) {
  SetModel();
  SetLevelField(false);
  omp_set_num_threads(static_cast<int>(state.range(0)));
  for (auto _ : state) PREPARESYSINTERNALFORCES();
  CountElements(state, FEMODEL::NumElements);
}
BENCHMARK(BM_ForcePass)
    ->ArgName("threads")
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_MatrixPass(benchmark::State& state) {
  SetModel();
  SetLevelField(state.range(1) != 0);
  omp_set_num_threads(static_cast<int>(state.range(0)));
  for (auto _ : state) PREPARESYSMATRIXANDINTERNALFORCES();
  CountElements(state, FEMODEL::NumElements);
}
BENCHMARK(BM_MatrixPass)
    ->ArgNames({"threads", "crossing"})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
