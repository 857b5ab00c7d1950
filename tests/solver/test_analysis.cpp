#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"
#include "support/small_model.hpp"

namespace {

std::vector<double> Values(const Array<double>& array) {
  return {array.get(), array.get() + SOLVERSTA::NumEquations};
}

// PUSHALLLOADSTOSOLVER on four nodes: node 1 free, node 2 free in y only, node 3 prescribed, node 4
// free and marked.
class Loads : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    SetNodes(std::vector<NodeRecord>(4));
    FEMODEL::NodeFlags[3] = NodeMarked;
    FEDOF::NodeDofMap = Copy(std::vector<std::int32_t>{1, 2, 3, 0, 4, 0, -1, -1, -1, 5, 6, 7});
    SOLVERSTA::NumEquations = 7;
    SOLVERSTA::SysRhs = Copy(std::vector<double>{10, 20, 30, 40, 50, 60, 70});
  }

  static void Push(const std::vector<NodalForceRecord>& second,
                   const std::vector<NodalForceRecord>& third = {}) {
    FELOADCASE::NodalForces2 = Copy(second);
    FELOADCASE::NumNodalForces2 = static_cast<std::int32_t>(second.size());
    FELOADCASE::NodalForces3 = Copy(third);
    FELOADCASE::NumNodalForces3 = static_cast<std::int32_t>(third.size());
    PUSHALLLOADSTOSOLVER();
  }

  static void ExpectSum(double x, double y, double z) {
    EXPECT_EQ(VKCORE::AppliedLoadSum[0], x);
    EXPECT_EQ(VKCORE::AppliedLoadSum[1], y);
    EXPECT_EQ(VKCORE::AppliedLoadSum[2], z);
  }
};

TEST_F(Loads, BothListsAddToTheirEquationsAndTheSum) {
  Push({{1, 1.0f, 2.0f, 3.0f}}, {{1, 0.5f, 0.0f, -3.0f}, {2, 0.0f, 4.0f, 0.0f}});
  EXPECT_EQ(Values(SOLVERSTA::SysRhs),
            (std::vector<double>{11.5, 22.0, 30.0, 44.0, 50.0, 60.0, 70.0}));
  ExpectSum(1.5, 6.0, 0.0);
}

TEST_F(Loads, ForcesAreWidenedBeforeTheyAreAdded) {
  Push({{1, 0.1f, 0.0f, 0.0f}});
  EXPECT_EQ(SOLVERSTA::SysRhs[0], 10.0 + double{0.1f});
}

TEST_F(Loads, LoadOnAMarkedNodeChangesNothing) {
  Push({{4, 1.0f, 2.0f, 3.0f}});
  EXPECT_EQ(SOLVERSTA::SysRhs[4], 50.0);
  ExpectSum(0.0, 0.0, 0.0);
}

TEST_F(Loads, OtherNodeFlagsDoNotSkipALoad) {
  FEMODEL::NodeFlags[0] = static_cast<std::int16_t>(~NodeMarked);
  Push({{1, 1.0f, 0.0f, 0.0f}});
  EXPECT_EQ(SOLVERSTA::SysRhs[0], 11.0);
}

TEST_F(Loads, LoadOnFixedOrPrescribedComponentsChangesTheSumOnly) {
  Push({{2, 1.0f, 0.0f, 3.0f}, {3, 5.0f, 6.0f, 7.0f}});
  EXPECT_EQ(Values(SOLVERSTA::SysRhs), (std::vector<double>{10, 20, 30, 40, 50, 60, 70}));
  ExpectSum(6.0, 6.0, 10.0);
}

TEST_F(Loads, EmptyListsChangeNothing) {
  Push({});
  EXPECT_EQ(SOLVERSTA::SysRhs[0], 10.0);
  ExpectSum(0.0, 0.0, 0.0);
}

TEST_F(Loads, ManyThreadsLoseNothingOfTheSum) {
  const std::size_t nodes = 5000;
  SetNodes(std::vector<NodeRecord>(nodes));
  FEDOF::NodeDofMap = Copy(std::vector<std::int32_t>(3 * nodes, 0));
  std::vector<NodalForceRecord> loads;
  for (std::int32_t node = 1; node <= 5000; ++node) loads.push_back({node, 1.0f, 2.0f, -1.0f});
  omp_set_num_threads(4);
  Push(loads);
  ExpectSum(5000.0, 10000.0, -5000.0);
}

TEST_F(Loads, RightHandSideIsTheLoadsLessTheInternalForcesWhateverItHeld) {
  SOLVERSTA::SysForces = Copy(std::vector<double>{1, -2, 3, -4, 5, -6, 7});
  FELOADCASE::NodalForces2 = Copy(std::vector<NodalForceRecord>{{1, 10.0f, 20.0f, 30.0f}});
  FELOADCASE::NumNodalForces2 = 1;
  for (int round = 0; round < 2; ++round) {
    VKCORE_FORMRIGHTHANDSIDE();
    EXPECT_EQ(Values(SOLVERSTA::SysRhs), (std::vector<double>{9, 22, 27, 4, -5, 6, -7}));
    ExpectSum(10.0, 20.0, 30.0);
  }
}

// VKCORE_RUNANALYSIS on systems set by hand.
class Analysis : public SmallModel {
 protected:
  static void Set(const DenseMatrix& upper, const std::vector<double>& rhs, bool use4 = true) {
    SetMatrix(upper, use4);
    SOLVERSTA::SysRhs = Copy(rhs);
    SOLVERSTA::SysScale = Copy(std::vector<double>(rhs.size(), 1.0));
    FEDOF::Displacements = Copy(std::vector<double>(rhs.size(), 0.0));
    SOLVERSTA::SolverReady = false;
  }

  // A solve without preconditioner that stops at its limit with the residual ratio `ratio`: on a
  // line a load at the first equation travels one equation an iteration, and what it leaves there
  // is set by the coupling behind the last.
  static void SetUnconverged(double ratio) {
    const std::size_t n = 1200;
    const std::size_t limit = 1000 + n / 10;
    DenseMatrix line(n, std::vector<double>(n, 0.0));
    for (std::size_t i = 0; i < n; ++i) {
      line[i][i] = 1.0;
      if (i + 1 < n) line[i][i + 1] = -0.5;
    }
    line[limit - 1][limit] = -0.5 * ratio * static_cast<double>(limit + 1);
    std::vector<double> rhs(n, 0.0);
    rhs[0] = 1.0;
    Set(line, rhs);
    SOLVERSTA::IMode = 0;
    SOLVERSTA::SolverReady = true;
  }

  static double RatioOf(double quality) { return double{0.001f} * (1.0 / quality - 1.0); }
};

const DenseMatrix Pair = {{1.0, 0.25}, {0.0, 1.0}};

TEST_F(Analysis, SolvesInScaledVariablesAndAddsTheCorrectionInPhysicalOnes) {
  for (const bool use4 : {true, false})
    for (const std::int32_t mode : {0, 1, 2}) {
      Set(Pair, {3.0, -1.0}, use4);
      SOLVERSTA::SysScale = Copy(std::vector<double>{0.5, 4.0});
      FEDOF::Displacements = Copy(std::vector<double>{10.0, 20.0});
      SOLVERSTA::IMode = mode;
      VKCORE_RUNANALYSIS();
      const std::vector<double> y = SolveDense({{1.0, 0.25}, {0.25, 1.0}}, {1.5, -4.0});
      EXPECT_NEAR(FEDOF::Displacements[0], 10.0 + 0.5 * y[0], 1e-4);
      EXPECT_NEAR(FEDOF::Displacements[1], 20.0 + 4.0 * y[1], 1e-3);
      EXPECT_EQ(SOLVERSTA::SysRhs[0], 1.5);  // left in its scaled form
      EXPECT_EQ(SOLVERSTA::SysRhs[1], -4.0);
      EXPECT_EQ(VKCORE::SolveQuality, 1.0f);
    }
}

TEST_F(Analysis, PostsModeCountAndQualityInThisOrder) {
  Set({{1.0, 0.0}, {0.0, 1.0}}, {3.0, -1.0});
  SOLVERSTA::IMode = 1;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(Log(),
            "Info<Msg:IMode: 1>\nInfo<Msg:ICount: 1>\nData<Key:ARQua><Value:1.000000E+00>\n");
}

TEST_F(Analysis, ZeroRightHandSideGivesZeroDisplacementsQualityOneAndCountZero) {
  Set(Pair, {0.0, 0.0});
  FEDOF::Displacements = Copy(std::vector<double>{5.0, 6.0});
  SOLVERSTA::IMode = 1;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(FEDOF::Displacements[0], 0.0);
  EXPECT_EQ(FEDOF::Displacements[1], 0.0);
  EXPECT_EQ(VKCORE::SolveQuality, 1.0f);
  EXPECT_EQ(CountInLog("Info<Msg:ICount: 0>\n"), 1);
}

TEST_F(Analysis, FactorAllowsThreeHundredIterations) {
  Set(Pair, {1.0, 1.0});
  SOLVERSTA::IMode = 2;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(SLEPCCGSOLVER::PcgMode, 2);
  EXPECT_EQ(SLEPCCGSOLVER::PcgMaxIter, 300);
}

TEST_F(Analysis, AutomaticModeIsResolvedBeforeTheLimitIsSet) {
  Set(Pair, {1.0, 1.0});
  SOLVERSTA::IMode = 0;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(SLEPCCGSOLVER::PcgMode, 2);
  EXPECT_EQ(SLEPCCGSOLVER::PcgMaxIter, 300);
  EXPECT_EQ(CountInLog("Info<Msg:IMode: 2>\n"), 1);
}

TEST_F(Analysis, SweepsAllowAThousandAndATenthOfTheEquations) {
  const std::int32_t n = 50000;
  std::vector<std::int64_t> starts, columns;
  for (std::int64_t i = 1; i <= n; ++i) columns.push_back(i);
  for (std::int64_t i = 1; i <= n + 1; ++i) starts.push_back(i);
  SetStructure(starts, columns, true);
  std::fill_n(SOLVERSTA::SysMatrix.get(), n, 1.0);
  std::fill_n(SOLVERSTA::SysScale.get(), n, 1.0);
  std::fill_n(SOLVERSTA::SysRhs.get(), n, 1.0);
  FEDOF::Displacements = Copy(std::vector<double>(n, 0.0));
  SOLVERSTA::IMode = 1;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(SLEPCCGSOLVER::PcgMaxIter, 6000);
}

TEST_F(Analysis, LimitTruncatesTheTenthOfTheEquations) {
  Set({{1.0}}, {1.0});
  SOLVERSTA::IMode = 1;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(SLEPCCGSOLVER::PcgMaxIter, 1000);
}

TEST_F(Analysis, SecondLoadCaseOfThePatternKeepsThePreparation) {
  Set(Pair, {1.0, 2.0});
  SOLVERSTA::IMode = 0;
  VKCORE_RUNANALYSIS();
  EXPECT_TRUE(SOLVERSTA::SolverReady);
  const float* single = SOLVERSTA::SysMatrixSP.get();
  SOLVERSTA::SysRhs = Copy(std::vector<double>{-2.0, 1.0});
  FEDOF::Displacements = Copy(std::vector<double>{0.0, 0.0});
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(CountInLog("EstDecMemReq: "), 1);
  EXPECT_EQ(SOLVERSTA::SysMatrixSP.get(), single);
  const std::vector<double> expected = SolveDense({{1.0, 0.25}, {0.25, 1.0}}, {-2.0, 1.0});
  EXPECT_NEAR(FEDOF::Displacements[0], expected[0], 1e-5);
  EXPECT_NEAR(FEDOF::Displacements[1], expected[1], 1e-5);
}

TEST_F(Analysis, RebuiltMatrixIsPreparedAgain) {
  Set(Pair, {1.0, 2.0});
  SOLVERSTA::IMode = 2;
  VKCORE_RUNANALYSIS();
  SOLVERSTA::SolverReady = false;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(CountInLog("EstDecMemReq: "), 2);
}

TEST_F(Analysis, FailedFactorInAutomaticModeGoesOnWithSweepsInTheSameLoadCase) {
  // Indefinite, so that there is no factor; the zero load is solved without one.
  Set({{1.0, 2.0}, {0.0, 1.0}}, {0.0, 0.0});
  SOLVERSTA::IMode = 0;
  LOGGER::StopHint.clear();
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(SLEPCCGSOLVER::PcgMode, 1);
  EXPECT_EQ(CountInLog("Info<Msg:IMode: 1>\n"), 1);
  EXPECT_EQ(LOGGER::StopHint, "");  // no later stop is blamed on a factor that wasn't needed
}

TEST_F(Analysis, PerfectSolveWithoutDampingHasTheBlendFactorZero) {
  Set(Pair, {1.0, 2.0});
  SOLVERSTA::IMode = 1;
  VKCORE::RunOptions.ResponseDumpFac = 0.0f;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(VKCORE::TcBlendFactor, 0.0f);
}

TEST_F(Analysis, PerfectSolveLeavesTheDampingAsBlendFactor) {
  Set(Pair, {1.0, 2.0});
  SOLVERSTA::IMode = 1;
  VKCORE::RunOptions.ResponseDumpFac = 0.3f;
  VKCORE_RUNANALYSIS();
  EXPECT_EQ(VKCORE::TcBlendFactor, 0.3f);
}

TEST_F(Analysis, BlendFactorApproachesOneWithAFailingSolve) {
  EXPECT_EQ(VKCORE_BLENDFACTOR(0.25f, 0.5f), 0.25f + 0.5f * 0.75f);
  EXPECT_EQ(VKCORE_BLENDFACTOR(0.0f, 0.0f), 1.0f);
  EXPECT_EQ(VKCORE_BLENDFACTOR(0.9f, 0.0f), 1.0f);
  SetUnconverged(RatioOf(0.75));
  VKCORE::RunOptions.ResponseDumpFac = 0.5f;
  VKCORE_RUNANALYSIS();
  EXPECT_NEAR(VKCORE::TcBlendFactor, 0.625f, 1e-6f);  // a quarter of the way from 0.5 to 1
}

TEST_F(Analysis, QualityBetweenTheLimitsWarnsAndGoesOn) {
  SetUnconverged(RatioOf(0.75));
  VKCORE_RUNANALYSIS();
  EXPECT_NEAR(VKCORE::SolveQuality, 0.75f, 1e-6f);
  EXPECT_EQ(SLEPCCGSOLVER::ICount, -1120);
  EXPECT_TRUE(
      Log().ends_with("Warning<Msg:Convergence problems in static response analysis process.>\n"))
      << Log();
}

TEST_F(Analysis, QualityBelowOneHalfStopsAfterItWasPosted) {
  SetUnconverged(RatioOf(0.4999));
  EXPECT_ABORT(VKCORE_RUNANALYSIS(), "No convergence in static response analysis process.");
  EXPECT_THAT(Log(), testing::HasSubstr("Info<Msg:ICount: -1120>\n"
                                        "Data<Key:ARQua><Value:4.99900"));
}

TEST_F(Analysis, QualityOfExactlyOneHalfWarnsAndGoesOn) {
  SetUnconverged(RatioOf(0.5));
  VKCORE_RUNANALYSIS();
  ASSERT_EQ(VKCORE::SolveQuality, 0.5f);
  EXPECT_EQ(CountInLog("Warning"), 1);
}

TEST_F(Analysis, QualityOfExactlyNineTenthsDrawsNoWarning) {
  SetUnconverged(RatioOf(double{0.9f}));
  VKCORE_RUNANALYSIS();
  ASSERT_EQ(VKCORE::SolveQuality, 0.9f);
  EXPECT_EQ(CountInLog("Warning"), 0);
}

TEST_F(Analysis, QualityJustBelowNineTenthsWarns) {
  SetUnconverged(RatioOf(double{std::nextafter(0.9f, 0.0f)}));
  VKCORE_RUNANALYSIS();
  ASSERT_LT(VKCORE::SolveQuality, 0.9f);
  EXPECT_EQ(CountInLog("Warning"), 1);
}

TEST_F(Analysis, DestroyedResidualStopsTheRun) {
  Set(Pair, {1.0, std::numeric_limits<double>::quiet_NaN()});
  SOLVERSTA::IMode = 1;
  EXPECT_ABORT(VKCORE_RUNANALYSIS(), "No convergence in static response analysis process.");
  EXPECT_THAT(Log(), testing::HasSubstr("Data<Key:ARQua><Value:0.000000E+00>"));
}

TEST_F(Analysis, WorkArraysThatCannotBeAllocatedStopTheRun) {
  Set(Pair, {1.0, 2.0});
  SOLVERSTA::IMode = 1;
  ARRAYS::LargestBytes = 1;
  EXPECT_ABORT(VKCORE_RUNANALYSIS(), "Error allocating work arrays.");
}

}  // namespace
