#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "platform/slot.hpp"
#include "run/services/vkcore.hpp"
#include "solver/slepardisosolver.hpp"
#include "solver/solversta.hpp"
#include "support/small_model.hpp"

namespace {

using SLEPARDISOSOLVER::PardisoError;
using SLEPARDISOSOLVER::PardisoErrorText;
using SLEPARDISOSOLVER::PardisoFactorHeld;

const DenseMatrix Good = {{1.0, -0.4, 0.0}, {0.0, 1.0, -0.4}, {0.0, 0.0, 1.0}};
const DenseMatrix Indefinite = {{1.0, 2.0, 0.0}, {0.0, 1.0, -0.4}, {0.0, 0.0, 1.0}};

// Big enough for an estimate that the budget can be set around.
DenseMatrix Band(std::size_t n) {
  DenseMatrix a(n, std::vector<double>(n, 0.0));
  for (std::size_t i = 0; i < n; ++i)
    for (std::size_t j = i; j < std::min(n, i + 20); ++j) a[i][j] = i == j ? 1.0 : -0.01;
  return a;
}

std::string TrimmedText() {
  return PardisoErrorText.substr(0, PardisoErrorText.find_last_not_of(' ') + 1);
}

class Slepardisosolver : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    VKCORE::RunOptions.AvailableMemGB = 8.0f;
  }

  static void Prepare(std::int32_t mode, const DenseMatrix& matrix, bool use4 = true) {
    SetMatrix(matrix, use4);
    SOLVERSTA::IMode = mode;
    SOLVERSTA::SolverReady = false;
    SLEPARDISOSOLVER_PREPARE();
  }

  static std::vector<float> Solve(std::vector<float> b) {
    std::vector<float> x(b.size(), 77.0f);
    if (SOLVERSTA::UseIm4)
      SLEPARDISOSOLVER_SOLVE_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                                SOLVERSTA::SysMatrixSP.get(), b.data(), x.data());
    else
      SLEPARDISOSOLVER_SOLVE_I8(SOLVERSTA::pR8.get(), SOLVERSTA::pC8.get(),
                                SOLVERSTA::SysMatrixSP.get(), b.data(), x.data());
    return x;
  }

  static void ExpectSolves(const DenseMatrix& upper) {
    const std::vector<float> b = {1.0f, -2.0f, 0.5f};
    const std::vector<double> expected =
        SolveDense(DenseOf(SOLVERSTA::SysMatrix.get()), {1.0, -2.0, 0.5});
    const std::vector<float> x = Solve(b);
    ASSERT_EQ(upper.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) EXPECT_NEAR(x[i], expected[i], 3e-6);
  }

  // The estimate that the analysis reports, in gigabytes: read before a factorisation replaces it.
  static float Estimate(const DenseMatrix& matrix) {
    Prepare(SOLVERSTA::ModeFactorised, matrix);
    SLEPARDISOSOLVER_RELEASE_I4();
    float budget = 1e-30f;
    SLEPARDISOSOLVER_FACTOR_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                               SOLVERSTA::SysMatrixSP.get(), budget);
    const float estimate =
        static_cast<float>(SLEPARDISOSOLVER::iparm[Slot(17)]) * 9.5367431640625e-07f;
    EXPECT_EQ(budget, 1e-30f - 1.1f * estimate);
    SLEPARDISOSOLVER_RELEASE_I4();
    return estimate;
  }
};

TEST_F(Slepardisosolver, IterativeModePreparesNothing) {
  Prepare(SOLVERSTA::ModeIterative, Good);
  EXPECT_TRUE(SOLVERSTA::SolverReady);
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeIterative);
  EXPECT_FALSE(SOLVERSTA::SysMatrixSP);
  EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_EQ(Log(), "");
}

TEST_F(Slepardisosolver, FactorSolvesOnBothIndexPaths) {
  for (const bool use4 : {true, false}) {
    Prepare(SOLVERSTA::ModeFactorised, Good, use4);
    EXPECT_TRUE(SLEPARDISOSOLVER_HASFACTOR());
    EXPECT_FALSE(SLEPARDISOSOLVER_HASERROR());
    ExpectSolves(Good);
    SOLVERSTA_RELEASE();
  }
}

TEST_F(Slepardisosolver, CopyIsSinglePrecisionWithTheFixedDiagonal) {
  DenseMatrix a = Good;
  a[0][1] = -0.1234567890123;
  a[1][1] = 1.5;  // not the rounding of the stored diagonal
  for (const bool use4 : {true, false}) {
    Prepare(SOLVERSTA::ModeFactorised, a, use4);
    const float* single = SOLVERSTA::SysMatrixSP.get();
    EXPECT_EQ(single[1], -0.1234567890123f);
    for (const std::int64_t position : {1, 3, 5})
      EXPECT_EQ(std::bit_cast<std::uint32_t>(single[Slot(position)]), 0x3f800002u);
    SOLVERSTA_RELEASE();
  }
}

TEST_F(Slepardisosolver, ParameterTablesAskForSinglePrecisionInCore) {
  Prepare(SOLVERSTA::ModeFactorised, Good);
  const std::int32_t* p = SLEPARDISOSOLVER::iparm;
  EXPECT_EQ(p[Slot(1)], 1);
  EXPECT_EQ(p[Slot(2)], 3);
  EXPECT_EQ(p[Slot(10)], 8);
  EXPECT_EQ(p[Slot(28)], 1);
  for (const int element : {4, 5, 6, 8, 11, 12, 13, 21, 24, 27, 35, 36, 60})
    EXPECT_EQ(p[Slot(element)], 0) << element;
}

TEST_F(Slepardisosolver, SixtyFourBitTableIsTheSameTableWidened) {
  Prepare(SOLVERSTA::ModeFactorised, Good, false);
  const long long* p = SLEPARDISOSOLVER::iparm8;
  EXPECT_EQ(p[Slot(1)], 1);
  EXPECT_EQ(p[Slot(2)], 3);
  EXPECT_EQ(p[Slot(10)], 8);
  EXPECT_EQ(p[Slot(28)], 1);
  EXPECT_EQ(p[Slot(60)], 0);
  EXPECT_EQ(SLEPARDISOSOLVER::iparm[Slot(17)], 0);  // never filled by the 64-bit entry
}

TEST_F(Slepardisosolver, AutomaticModeTurnsIntoTheFactorisedAndPostsTheEstimate) {
  Prepare(SOLVERSTA::ModeAutomatic, Good);
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeFactorised);
  EXPECT_TRUE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_THAT(Log(), testing::MatchesRegex("Info<Msg:EstDecMemReq: [0-9]+\\.[0-9]+>\n"));
}

TEST_F(Slepardisosolver, BudgetOfZeroOrLessSkipsTheMemoryTest) {
  for (const float budget : {0.0f, -1.0f, -1e30f}) {
    VKCORE::RunOptions.AvailableMemGB = budget;
    Prepare(SOLVERSTA::ModeAutomatic, Band(300));
    EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeFactorised) << budget;
    SOLVERSTA_RELEASE();
  }
}

TEST_F(Slepardisosolver, EstimateThatUsesUpTheBudgetExactlyIsFactorised) {
  const DenseMatrix matrix = Band(300);
  VKCORE::RunOptions.AvailableMemGB = 1.1f * Estimate(matrix);
  ASSERT_GT(VKCORE::RunOptions.AvailableMemGB, 0.0f);
  Prepare(SOLVERSTA::ModeAutomatic, matrix);
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeFactorised);
}

TEST_F(Slepardisosolver, EstimateAboveTheBudgetFallsBackWithoutAWarning) {
  const DenseMatrix matrix = Band(300);
  VKCORE::RunOptions.AvailableMemGB = std::nextafter(1.1f * Estimate(matrix), 0.0f);
  Prepare(SOLVERSTA::ModeAutomatic, matrix);
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeIterative);
  EXPECT_TRUE(SOLVERSTA::SolverReady);
  EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_FALSE(SLEPARDISOSOLVER_HASERROR());
  EXPECT_FALSE(SOLVERSTA::SysMatrixSP);
  EXPECT_EQ(CountInLog("Warning"), 0);
}

TEST_F(Slepardisosolver, FactorOperationReturnsWhatIsLeftOfTheBudget) {
  const float estimate = Estimate(Band(300));
  float budget = 1.0f;
  SLEPARDISOSOLVER_FACTOR_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(),
                             SOLVERSTA::SysMatrixSP.get(), budget);
  EXPECT_EQ(budget, 1.0f - 1.1f * estimate);
  SLEPARDISOSOLVER_RELEASE_I4();
}

TEST_F(Slepardisosolver, SixtyFourBitPathIsFactorisedWhateverTheBudgetAndPostsNoEstimate) {
  VKCORE::RunOptions.AvailableMemGB = 1e-30f;
  Prepare(SOLVERSTA::ModeAutomatic, Band(300), false);
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeFactorised);
  EXPECT_EQ(Log(), "");
}

TEST_F(Slepardisosolver, FactorisedModeIgnoresTheBudget) {
  VKCORE::RunOptions.AvailableMemGB = 1e-30f;
  Prepare(SOLVERSTA::ModeFactorised, Band(300));
  EXPECT_TRUE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_EQ(CountInLog("EstDecMemReq: "), 1);
}

TEST_F(Slepardisosolver, PivotThatIsNotPositiveWarnsAndFallsBackInAutomaticMode) {
  for (const bool use4 : {true, false}) {
    Prepare(SOLVERSTA::ModeAutomatic, Indefinite, use4);
    EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeIterative);
    EXPECT_EQ(PardisoError, -4);
    EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
    EXPECT_FALSE(SOLVERSTA::SysMatrixSP);
  }
  EXPECT_EQ(CountInLog("Warning<Msg:Stiffness matrix factorization error. Zero pivot or refinement "
                       "problem.>\n"),
            2);
}

TEST_F(Slepardisosolver, PivotThatIsNotPositiveStopsTheRunInFactorisedMode) {
  EXPECT_ABORT(Prepare(SOLVERSTA::ModeFactorised, Indefinite),
               "Stiffness matrix factorization error. Zero pivot or refinement problem.");
  EXPECT_THAT(Log(), testing::HasSubstr("Warning<Msg:Stiffness matrix factorization error. Zero "
                                        "pivot or refinement problem.>\n"));
}

TEST_F(Slepardisosolver, SixtyFourBitPathStopsInTheSameWay) {
  EXPECT_ABORT(Prepare(SOLVERSTA::ModeFactorised, Indefinite, false),
               "Stiffness matrix factorization error. Zero pivot or refinement problem.");
}

TEST_F(Slepardisosolver, UndefinedMatrixEndsWithoutACrash) {
  DenseMatrix a = Good;
  a[0][1] = std::numeric_limits<double>::quiet_NaN();
  Prepare(SOLVERSTA::ModeAutomatic, a);
  EXPECT_TRUE(SOLVERSTA::SolverReady);
  EXPECT_NE(SOLVERSTA::IMode, SOLVERSTA::ModeAutomatic);
}

// An order of zero is what the analysis refuses on every library.
TEST_F(Slepardisosolver, FailedAnalysisIsToldTwiceAndFallsBackInAutomaticMode) {
  for (const bool use4 : {true, false}) {
    SetMatrix(Good, use4);
    SOLVERSTA::NumEquations = 0;
    SOLVERSTA::IMode = SOLVERSTA::ModeAutomatic;
    SLEPARDISOSOLVER_PREPARE();
    EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeIterative);
    EXPECT_EQ(PardisoError, -1);
    EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
  }
  const std::string both =
      "Warning<Msg:Stiffness matrix reorder phase error. Inconsistent input.>\n"
      "Warning<Msg:Stiffness matrix factorization error. Inconsistent input.>\n";
  EXPECT_EQ(Log(), both + both);  // and no estimate
}

TEST_F(Slepardisosolver, FailedAnalysisStopsTheRunInFactorisedMode) {
  SetMatrix(Good, true);
  SOLVERSTA::NumEquations = 0;
  SOLVERSTA::IMode = SOLVERSTA::ModeFactorised;
  EXPECT_ABORT(SLEPARDISOSOLVER_PREPARE(),
               "Stiffness matrix factorization error. Inconsistent input.");
}

TEST_F(Slepardisosolver, FactorDoesNothingWhileAnErrorStands) {
  SetMatrix(Good, true);
  PardisoError = -1;
  float budget = 3.0f;
  SLEPARDISOSOLVER_FACTOR_I4(SOLVERSTA::pR4.get(), SOLVERSTA::pC4.get(), nullptr, budget);
  SLEPARDISOSOLVER_FACTOR_I8(nullptr, nullptr, nullptr, budget);
  EXPECT_EQ(budget, 3.0f);
  EXPECT_EQ(Log(), "");
}

TEST_F(Slepardisosolver, SolveDoesNothingWhileAnErrorStands) {
  for (const bool use4 : {true, false}) {
    Prepare(SOLVERSTA::ModeFactorised, Good, use4);
    HANDLEERROR(-4, "SLE solution phase error.");
    EXPECT_EQ(Solve({1.0f, 2.0f, 3.0f}), (std::vector<float>{77.0f, 77.0f, 77.0f}));
    SOLVERSTA_RELEASE();
  }
}

TEST_F(Slepardisosolver, NextPreparationClearsAnOldErrorAndSolvesAgain) {
  Prepare(SOLVERSTA::ModeFactorised, Good);
  HANDLEERROR(-4, "SLE solution phase error.");
  SOLVERSTA::SolverReady = false;
  SLEPARDISOSOLVER_PREPARE();
  EXPECT_FALSE(SLEPARDISOSOLVER_HASERROR());
  EXPECT_EQ(TrimmedText(), "");
  ExpectSolves(Good);
}

TEST_F(Slepardisosolver, SecondPreparationReplacesTheFactor) {
  Prepare(SOLVERSTA::ModeAutomatic, Good);
  DenseMatrix other = Good;
  other[0][1] = 0.3;
  SOLVERSTA::SysMatrix[1] = 0.3;
  SOLVERSTA::SolverReady = false;
  SLEPARDISOSOLVER_PREPARE();
  EXPECT_EQ(CountInLog("EstDecMemReq: "), 2);  // reordered again though the structure is the same
  ExpectSolves(other);
}

TEST_F(Slepardisosolver, ModeResolvedToFactorisedStopsOnALaterError) {
  Prepare(SOLVERSTA::ModeAutomatic, Good);
  SOLVERSTA::SysMatrix[1] = 2.0;
  EXPECT_ABORT(SLEPARDISOSOLVER_PREPARE(),
               "Stiffness matrix factorization error. Zero pivot or refinement problem.");
}

TEST_F(Slepardisosolver, FactorOfTheOtherIndexPathIsReleasedBeforeTheNext) {
  Prepare(SOLVERSTA::ModeFactorised, Good, true);
  Prepare(SOLVERSTA::ModeFactorised, Good, false);
  ExpectSolves(Good);
  Prepare(SOLVERSTA::ModeFactorised, Good, true);
  ExpectSolves(Good);
  EXPECT_EQ(CountInLog("Warning"), 0);
}

TEST_F(Slepardisosolver, FactorOfTheOtherIndexPathIsReleasedAtTheEndOfTheRun) {
  Prepare(SOLVERSTA::ModeFactorised, Good, true);
  SOLVERSTA::UseIm4 = false;
  SOLVERSTA_RELEASE();
  EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_EQ(CountInLog("Warning"), 0);
}

TEST_F(Slepardisosolver, EitherNameReleasesTheFactorOfEitherPath) {
  for (const bool use4 : {true, false})
    for (const auto release : {SLEPARDISOSOLVER_RELEASE_I4, SLEPARDISOSOLVER_RELEASE_I8}) {
      Prepare(SOLVERSTA::ModeFactorised, Good, use4);
      release();
      EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
    }
  EXPECT_EQ(CountInLog("Warning"), 0);
}

TEST_F(Slepardisosolver, SystemOfAnotherSizeFollowsOnTheSameHandle) {
  Prepare(SOLVERSTA::ModeFactorised, Band(300));
  Prepare(SOLVERSTA::ModeFactorised, Good);
  ExpectSolves(Good);
}

TEST_F(Slepardisosolver, CopyThatCannotBeAllocatedStopsTheRun) {
  SetMatrix(Good, true);
  SOLVERSTA::IMode = SOLVERSTA::ModeAutomatic;
  ARRAYS::LargestBytes = 8;
  EXPECT_ABORT(SLEPARDISOSOLVER_PREPARE(), "Error allocating arrays.");
}

class Handleerror : public SmallModel {};

TEST_F(Handleerror, CodeZeroDoesNothing) {
  HANDLEERROR(0, "Phase.");
  EXPECT_FALSE(SLEPARDISOSOLVER_HASERROR());
  EXPECT_EQ(Log(), "");
}

TEST_F(Handleerror, EveryCodeOfTheTableHasItsText) {
  const std::vector<std::pair<std::int32_t, std::string>> table = {
      {-1, " Inconsistent input."},
      {-2, " Not enough memory."},
      {-3, " Reordering problem."},
      {-4, " Zero pivot or refinement problem."},
      {-5, " Unclassified (internal) error."},
      {-6, " Reordering failed."},
      {-7, " Diagonal matrix is singular."},
      {-8, " 32-bit integer overflow problem."},
      {-9, " Not enough memory for OOC."},
      {-10, " Error opening OOC files."},
      {-11, " Read/write error with OOC files."},
      {-12, " Pardiso_64 called from 32-bit library."}};
  std::string log;
  for (const auto& [code, text] : table) {
    HANDLEERROR(code, "Stiffness matrix reorder phase error.");
    EXPECT_EQ(PardisoError, code);
    EXPECT_EQ(PardisoErrorText.size(), 128u);
    EXPECT_EQ(TrimmedText(), "Stiffness matrix reorder phase error." + text);
    log += "Warning<Msg:Stiffness matrix reorder phase error." + text + ">\n";
  }
  EXPECT_EQ(Log(), log);
}

TEST_F(Handleerror, CodeOutsideTheTableWritesABlankTextAtFirst) {
  HANDLEERROR(-99, "Phase.");
  EXPECT_EQ(PardisoError, -99);
  EXPECT_EQ(Log(), "Warning<Msg:>\n");
}

TEST_F(Handleerror, CodeOutsideTheTableWritesTheOlderText) {
  HANDLEERROR(-2, "Phase.");
  HANDLEERROR(7, "Other phase.");
  EXPECT_EQ(PardisoError, 7);
  EXPECT_EQ(Log(),
            "Warning<Msg:Phase. Not enough memory.>\nWarning<Msg:Phase. Not enough memory.>\n");
}

TEST_F(Handleerror, TextIsCutTo128Characters) {
  HANDLEERROR(-2, std::string(120, 'p'));
  EXPECT_EQ(PardisoErrorText, std::string(120, 'p') + " Not eno");
}

TEST_F(Handleerror, ErrorTextIsHandedOutBlankPadded) {
  HANDLEERROR(-2, "Phase.");
  char buffer[SLEPARDISOSOLVER::ErrorTextLength];
  SLEPARDISOSOLVER_GETERRORTEXT(buffer);
  EXPECT_EQ(std::string(buffer, sizeof buffer), PardisoErrorText);
  EXPECT_EQ(buffer[127], ' ');
}

}  // namespace
