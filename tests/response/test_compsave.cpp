#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "elements/feelem.hpp"
#include "model/fileio.hpp"
#include "response/compsave.hpp"
#include "run/services/vkcore.hpp"
#include "support/close_fault.hpp"
#include "support/small_model.hpp"

namespace {

constexpr float Largest = 3.4028234663852886e+38f;
constexpr float Inf = std::numeric_limits<float>::infinity();
constexpr float NaN = std::numeric_limits<float>::quiet_NaN();

// A box under a linear displacement field; load case 7.
class Compsave : public SmallModel {
 protected:
  void SetUp() override {
    SmallModel::SetUp();
    SetBox(2, 1, 1);
    SetConstraints(ClampedFace());
    SetNumbering();
    for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node)
      for (int k = 0; k < 3; ++k)
        if (const std::int32_t d = FEDOF::NodeDofMap[3 * node + k]; d > 0)
          FEDOF::Displacements[d - 1] = 0.01 * (k + 1) * double{FEMODEL::NodeCoords[node].X};
    for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node)
      FEMODEL::NodeTpFactor[node] = FEMODEL::NodeCoords[node].Z - 0.25f;
    SetDesignPoints({1, 2, 0, 2, 3, -1});
    VKCORE::LCaseId = 7;
    VKCORE::LoadCaseKind = 1;
    VKCORE::SolveQuality = 0.75f;
    VKCORE::AppliedLoadSum[0] = 1.0;
    VKCORE::AppliedLoadSum[1] = -2.0;
    VKCORE::AppliedLoadSum[2] = 0.1;
  }

  // Design points of the first nodes; none of the others.
  static void SetDesignPoints(const std::vector<std::int32_t>& first) {
    std::fill_n(FEMODEL::NodeTpIndex.get(), FEMODEL::NumNodes, 0);
    std::copy(first.begin(), first.end(), FEMODEL::NodeTpIndex.get());
    FEMODEL::NumTp = std::max(*std::max_element(first.begin(), first.end()), 0);
  }

  static void SetTc(const std::vector<float>& values, const std::vector<std::int16_t>& counts) {
    COMPSAVE_INITRESPONSE(static_cast<std::int32_t>(values.size()), 0);
    std::copy(values.begin(), values.end(), RESPONSE::TcValues.get());
    std::copy(counts.begin(), counts.end(), RESPONSE::TcCounts.get());
  }

  static void SetAms(const std::vector<float>& values, const std::vector<float>& signs,
                     const std::vector<std::int16_t>& counts) {
    COMPSAVE_INITRESPONSE(0, static_cast<std::int32_t>(values.size()));
    std::copy(values.begin(), values.end(), RESPONSE::AmsValues.get());
    std::copy(signs.begin(), signs.end(), RESPONSE::AmsSigns.get());
    std::copy(counts.begin(), counts.end(), RESPONSE::AmsCounts.get());
  }

  static std::vector<float> Tc() {
    return {RESPONSE::TcValues.get(), RESPONSE::TcValues.get() + RESPONSE::NumTc};
  }

  static std::vector<float> FileValues(const std::string& name) {
    const std::string bytes = ReadFile(name);
    return ValuesAt<float>(bytes, 4, static_cast<std::size_t>(ValueAt<std::int32_t>(bytes, 0)));
  }
};

TEST_F(Compsave, ArraysAreThereAndClear) {
  COMPSAVE_INITRESPONSE(2, 3);
  EXPECT_EQ(RESPONSE::NumTc, 2);
  EXPECT_EQ(RESPONSE::NumNodes, 3);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(RESPONSE::TcCounts[i], 0);
    EXPECT_EQ(RESPONSE::TcValues[i], 0.0f);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(RESPONSE::AmsCounts[i], 0);
    EXPECT_EQ(RESPONSE::AmsValues[i], 0.0f);
    EXPECT_EQ(RESPONSE::AmsSigns[i], 0.0f);
    EXPECT_EQ(RESPONSE::DisValues[i], 0.0f);
  }
  COMPSAVE_FREERESPONSE();
  EXPECT_FALSE(RESPONSE::TcCounts || RESPONSE::TcValues || RESPONSE::AmsCounts ||
               RESPONSE::AmsValues || RESPONSE::AmsSigns || RESPONSE::DisValues);
}

TEST_F(Compsave, MagnitudesCountPrescribedComponentsAndTheMaximumIgnoresThem) {
  SetNodes(std::vector<NodeRecord>(3));
  SetConstraints({Prescribed(2, 7, 30.0f, 40.0f, 0.0f)});
  FEDOF::NodeDofMap = Copy(std::vector<std::int32_t>{1, 2, 3, 4, -1, 0, -1, -1, -1});
  FEDOF::Displacements = Copy(std::vector<double>{2.0, -3.0, 6.0, 9.0});
  COMPSAVE_INITRESPONSE(0, 3);
  EXPECT_EQ(COMPSAVE_MAGNITUDES(), 9.0);  // node 2: its free x alone
  EXPECT_EQ(RESPONSE::DisValues[0], 7.0f);
  EXPECT_EQ(RESPONSE::DisValues[1], 41.0f);  // 9, 40, 0
  EXPECT_EQ(RESPONSE::DisValues[2], 50.0f);  // nothing free: the prescribed magnitude
}

TEST_F(Compsave, MaximumIsFoundByAnyNumberOfThreads) {
  const std::int32_t nodes = 999;
  std::vector<std::int32_t> map;
  std::vector<double> displacements;
  for (std::int32_t i = 1; i <= 3 * nodes; ++i) {
    map.push_back(i);
    displacements.push_back(i % 3 == 1 ? std::fmod(i * 0.7, 1.0) : 0.0);
  }
  displacements[1500] = -2.5;
  FEDOF::NodeDofMap = Copy(map);
  FEDOF::Displacements = Copy(displacements);
  COMPSAVE_INITRESPONSE(0, nodes);
  for (const int threads : {1, 2, 5}) {
    omp_set_num_threads(threads);
    EXPECT_EQ(COMPSAVE_MAGNITUDES(), 2.5);
  }
}

TEST_F(Compsave, DesignPointsAreAveragedAndUntouchedOnesTakeTheSmallest) {
  SetTc({6.0f, 5.0f, 100.0f, 7.0f}, {2, 4, 0, 1});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(Tc(), (std::vector<float>{3.0f, 1.25f, 1.25f, 7.0f}));
}

TEST_F(Compsave, DesignPointsThatNothingTouchesHoldTheLargestFloat) {
  SetTc({0.0f, 0.0f}, {0, 0});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(Tc(), (std::vector<float>{Largest, Largest}));
}

TEST_F(Compsave, UndefinedCriteriaStayWhereTheyAreAndAreNotTheSmallest) {
  SetTc({NaN, 8.0f, 0.0f, 6.0f, NaN, 0.0f}, {1, 2, 0, 1, 2, 0});
  COMPSAVE_REDUCETC();
  EXPECT_TRUE(std::isnan(RESPONSE::TcValues[0]));
  EXPECT_TRUE(std::isnan(RESPONSE::TcValues[4]));
  for (const int untouched : {2, 5}) EXPECT_EQ(RESPONSE::TcValues[untouched], 4.0f) << untouched;
  SetTc({0.0f, 8.0f, NaN}, {0, 2, 1});  // the undefined one comes last
  COMPSAVE_REDUCETC();
  EXPECT_EQ(RESPONSE::TcValues[0], 4.0f);
}

TEST_F(Compsave, NothingButUndefinedCriteriaLeaveTheLargestFloatAtUntouchedPoints) {
  SetTc({NaN, 0.0f, NaN}, {1, 0, 3});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(RESPONSE::TcValues[1], Largest);
}

TEST_F(Compsave, InfiniteCriteriaAreTheSmallestOnlyBelowZero) {
  SetTc({Inf, 0.0f, Inf}, {1, 0, 2});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(Tc(), (std::vector<float>{Inf, Largest, Inf}));
  SetTc({Inf, 0.0f, -Inf, 1.0f}, {1, 0, 3, 1});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(Tc(), (std::vector<float>{Inf, -Inf, -Inf, 1.0f}));
}

TEST_F(Compsave, UndefinedNodeStressKeepsItsPlaceAndUndefinedSignsCountAsPositive) {
  SetAms({NaN, 6.0f, -6.0f, -Inf, Inf}, {1.0f, NaN, NaN, 1.0f, -1.0f}, {2, 2, 3, 1, 1});
  COMPSAVE_REDUCEAMS();
  EXPECT_TRUE(std::isnan(RESPONSE::AmsValues[0]));
  EXPECT_EQ(RESPONSE::AmsValues[1], 3.0f);
  EXPECT_EQ(RESPONSE::AmsValues[2], 2.0f);
  EXPECT_EQ(RESPONSE::AmsValues[3], Inf);
  EXPECT_EQ(RESPONSE::AmsValues[4], -Inf);
}

TEST_F(Compsave, UndefinedDisplacementsAreWrittenAndAreNotTheLargest) {
  double* u = FEDOF::Displacements.get();
  std::fill_n(u, FEDOF::NumEquations, 0.0);
  const std::int32_t node = 1;  // the first that isn't clamped has three equations
  const std::int32_t* map = FEDOF::NodeDofMap.get() + 3 * node;
  ASSERT_GT(map[0], 0);
  u[map[0] - 1] = static_cast<double>(NaN);
  u[FEDOF::NumEquations - 1] = -0.5;
  for (const int threads : {1, 2, 5}) {
    omp_set_num_threads(threads);
    COMPSAVE_INITRESPONSE(0, FEMODEL::NumNodes);
    EXPECT_EQ(COMPSAVE_MAGNITUDES(), 0.5);
    EXPECT_TRUE(std::isnan(RESPONSE::DisValues[node]));
  }
  u[map[0] - 1] = static_cast<double>(-Inf);
  EXPECT_EQ(COMPSAVE_MAGNITUDES(), static_cast<double>(Inf));
  EXPECT_EQ(RESPONSE::DisValues[node], Inf);
}

TEST_F(Compsave, WrappedCounterPassesNeitherTest) {
  SetTc({6.0f, 5.0f}, {-32768, 1});
  COMPSAVE_REDUCETC();
  EXPECT_EQ(Tc(), (std::vector<float>{6.0f, 5.0f}));
  SetAms({6.0f}, {-1.0f}, {-1});
  COMPSAVE_REDUCEAMS();
  EXPECT_EQ(RESPONSE::AmsValues[0], 6.0f);
}

TEST_F(Compsave, NodeStressIsTheAverageMagnitudeWithTheSignOfItsMeanStress) {
  SetAms({6.0f, -6.0f, 6.0f, 6.0f, 5.0f}, {1.0f, 2.0f, -1e-30f, 0.0f, -1.0f}, {2, 3, 4, 1, 0});
  COMPSAVE_REDUCEAMS();
  const std::vector<float> expected = {3.0f, 2.0f, -1.5f, 6.0f, 5.0f};
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(RESPONSE::AmsValues[i], expected[static_cast<std::size_t>(i)]) << i;
}

TEST_F(Compsave, BlendOfAQuarterTakesAQuarterOfTheEarlierValue) {
  SetTc({4.0f}, {1});
  WriteFile("ws.tcval.0007", Table(std::vector<float>{8.0f}));
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "ws.tcval.0007", 0.25f);
  EXPECT_EQ(Tc(), (std::vector<float>{5.0f}));
}

TEST_F(Compsave, BlendIsComputedInSinglePrecision) {
  SetTc({0.1f}, {1});
  WriteFile("f", Table(std::vector<float>{0.7f}));
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.3f);
  EXPECT_EQ(Tc()[0], 0.1f * (1.0f - 0.3f) + 0.7f * 0.3f);
}

TEST_F(Compsave, BlendWithoutAnEarlierFileChangesNothing) {
  SetTc({4.0f}, {1});
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "ws.tcval.0007", 0.25f);
  EXPECT_EQ(Tc(), (std::vector<float>{4.0f}));
}

TEST_F(Compsave, DirectoryInThePlaceOfTheEarlierFileDoesNotCountAsOne) {
  SetTc({4.0f}, {1});
  MakeDirectory("ws.tcval.0007");
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "ws.tcval.0007", 0.25f);
  EXPECT_EQ(Tc(), (std::vector<float>{4.0f}));
}

TEST_F(Compsave, EarlierFileOfAnotherModelIsReadByTheLengthOfThisOne) {
  SetTc({4.0f, 4.0f}, {1, 1});
  WriteFile("f", Bytes(std::int32_t{5}) + Bytes(std::vector<float>{8.0f, 12.0f, 1.0f, 1.0f, 1.0f}));
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f);
  EXPECT_EQ(Tc(), (std::vector<float>{5.0f, 6.0f}));
  SetTc({4.0f, 4.0f}, {1, 1});
  WriteFile("f", Bytes(std::int32_t{1}) + Bytes(std::vector<float>{8.0f, 12.0f}));
  COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f);
  EXPECT_EQ(Tc(), (std::vector<float>{5.0f, 6.0f}));
}

TEST_F(Compsave, EarlierCountOfZeroOrLessBlendsZeros) {
  for (const std::int32_t count : {0, -3}) {
    SetTc({4.0f}, {1});
    WriteFile("f", Bytes(count) + Bytes(8.0f));
    COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f);
    EXPECT_EQ(Tc(), (std::vector<float>{3.0f}));
  }
}

TEST_F(Compsave, EarlierFileShorterThanTheModelIsAReadingError) {
  SetTc({4.0f, 4.0f}, {1, 1});
  WriteFile("f", Table(std::vector<float>{8.0f}));
  EXPECT_ABORT(COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f), "Error reading file: f");
}

TEST_F(Compsave, EmptyEarlierFileIsAReadingError) {
  SetTc({4.0f}, {1});
  WriteFile("f", "");
  EXPECT_ABORT(COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f), "Error reading file: f");
}

TEST_F(Compsave, BlendBufferThatCannotBeAllocatedStopsTheRun) {
  SetTc({4.0f}, {1});
  WriteFile("f", Table(std::vector<float>{8.0f}));
  ARRAYS::LargestBytes = 3;
  EXPECT_ABORT(COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f), "Error allocating arrays.");
}

TEST_F(Compsave, FailedCloseOfTheEarlierFileIsToldWithItsUnit) {
  SetTc({4.0f}, {1});
  WriteFile("f", Table(std::vector<float>{8.0f}));
  EXPECT_ABORT((FailingClose = 1, COMPSAVE_BLENDPREVIOUS(FILEIO::ReadUnit, "f", 0.25f)),
               "Error closing fileunit: 200");
}

// The whole step.

// The box is stretched by a strain of 1/64 along x, its first cell alone is material of the model,
// and all of it is at one level. So every element has the energy density and the stress of Hooke's
// law with the moduli 1200 and 400, and every average is that of any element.
TEST_F(Compsave, WritesAveragesAndTotalsOfAUniformState) {
  constexpr double strain = 0x1p-6;
  for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node) {
    FEMODEL::NodeTpFactor[node] = 0.5f;
    for (int k = 0; k < 3; ++k)
      if (const std::int32_t d = FEDOF::NodeDofMap[3 * node + k]; d > 0)
        FEDOF::Displacements[d - 1] = k == 0 ? strain * double{FEMODEL::NodeCoords[node].X} : 0.0;
  }
  FEMODEL::Materials[0].LimitStress = 2.0f;
  for (std::int32_t e = 6; e < FEMODEL::NumElements; ++e) FEMODEL::ElementFlags[e] = 0x100;
  VKCORE_COMPSAVERESPONSE();

  const double whole = (std::atan(250.0) / M_PI + 0.5) * (1.0 - double{0.001f}) + double{0.001f};
  const double sharp = (std::atan(250e3) / M_PI + 0.5) * (1.0 - double{0.001f}) + double{0.001f};
  const double energy = 600.0 * strain * strain, stress = 800.0 * strain;
  const double criterion =
      energy * whole * whole / (double{0.1f} + double{0.9f} * whole) / 2.0;  // the limit stress
  // Design point 3 lies at node 5, like the others at the first cell.
  for (const float value : FileValues("ws.tcval.0007"))
    EXPECT_NEAR(value, criterion, 1e-6 * criterion);
  const std::vector<float> ams = FileValues("ws.amsval.0007"), dis = FileValues("ws.disval.0007");
  for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node) {
    const auto at = static_cast<std::size_t>(node);
    const double x = double{FEMODEL::NodeCoords[node].X};
    EXPECT_NEAR(ams[at], x < 1.5 ? stress : 0.0, 1e-6 * stress) << node + 1;
    EXPECT_EQ(dis[at], static_cast<float>(strain * x)) << node + 1;
  }
  const std::string common = ReadFile("ws.comval.0007");
  EXPECT_EQ(common.substr(0, 12), Bytes(std::int32_t{7}) + Bytes(std::int32_t{1}) + Bytes(0.75f));
  EXPECT_NEAR(ValueAt<float>(common, 12), energy * sharp, 1e-6 * energy);
  EXPECT_NEAR(ValueAt<float>(common, 16), sharp, 1e-6);
  EXPECT_EQ(ValueAt<float>(common, 20), 0.0f);  // no boundary
  EXPECT_EQ(common.substr(24),
            Bytes(static_cast<float>(2.0 * strain)) + Bytes(std::vector<float>{1.0f, -2.0f, 0.1f}));
  EXPECT_FALSE(RESPONSE::TcValues);
}

TEST_F(Compsave, BoundaryStressReachesTheFileAndTheLog) {
  VKCORE_COMPSAVERESPONSE();
  const auto value = ValueAt<float>(ReadFile("ws.comval.0007"), 20);
  EXPECT_GT(value, 0.0f);
  char line[64];
  std::snprintf(line, sizeof line, "Data<Key:BStress><Value:%.6E>\n", double{value});
  EXPECT_EQ(CountInLog(line), 1);
}

TEST_F(Compsave, PostsTheTotalsInOrder) {
  VKCORE_COMPSAVERESPONSE();
  EXPECT_THAT(Log(), testing::MatchesRegex("Data<Key:SEner><Value:[-+.E0-9]+>\n"
                                           "Data<Key:MatVolume><Value:[-+.E0-9]+>\n"
                                           "Data<Key:BStress><Value:[-+.E0-9]+>\n"
                                           "Data<Key:MaxDis><Value:[-+.E0-9]+>\n"
                                           "Data<Key:Rx><Value:1.000000E\\+00>\n"
                                           "Data<Key:Ry><Value:-2.000000E\\+00>\n"
                                           "Data<Key:Rz><Value:1.000000E-01>\n"));
}

TEST_F(Compsave, NodeThatNoElementTouchesHasNoStress) {
  for (std::int32_t e = 0; e < FEMODEL::NumElements; ++e)
    FEMODEL::ElementFlags[e] = e < 6 ? 0 : 0x100;  // the first cell only
  VKCORE_COMPSAVERESPONSE();
  const std::vector<float> ams = FileValues("ws.amsval.0007");
  EXPECT_EQ(ams[2], 0.0f);
  EXPECT_NE(ams[4], 0.0f);
}

TEST_F(Compsave, NodeStressOfAStretchedBoxIsPositiveAndOfAPressedOneNegative) {
  for (std::int32_t node = 0; node < FEMODEL::NumNodes; ++node) FEMODEL::NodeTpFactor[node] = 1.0f;
  for (const float sign : {1.0f, -1.0f}) {
    for (std::int32_t i = 0; i < FEDOF::NumEquations; ++i)
      FEDOF::Displacements[i] = i % 3 == 0 ? sign * 0.01 : 0.0;
    VKCORE_COMPSAVERESPONSE();
    EXPECT_GT(sign * FileValues("ws.amsval.0007")[0], 0.0f);
  }
}

TEST_F(Compsave, NoDesignPointsLeaveACountOfFourBytes) {
  SetDesignPoints({0});
  VKCORE::TcBlendFactor = 0.5f;
  WriteFile("ws.tcval.0007", Table(std::vector<float>{8.0f}));
  VKCORE_COMPSAVERESPONSE();
  EXPECT_EQ(ReadFile("ws.tcval.0007"), Bytes(std::int32_t{0}));
}

TEST_F(Compsave, DesignPointsOfNoElementAllHoldTheLargestFloatInTheFile) {
  std::fill_n(FEMODEL::NodeTpIndex.get(), FEMODEL::NumNodes, 0);
  FEMODEL::NumTp = 3;
  VKCORE_COMPSAVERESPONSE();
  EXPECT_EQ(FileValues("ws.tcval.0007"), (std::vector<float>{Largest, Largest, Largest}));
}

TEST_F(Compsave, BlendFactorOfZeroLeavesTheEarlierFileUnread) {
  VKCORE::TcBlendFactor = 0.0f;
  WriteFile("ws.tcval.0007", "x");  // would be a reading error
  VKCORE_COMPSAVERESPONSE();
  EXPECT_EQ(FileValues("ws.tcval.0007").size(), 3u);
}

TEST_F(Compsave, EarlierFileIsBlendedThenReplaced) {
  VKCORE_COMPSAVERESPONSE();
  const std::vector<float> plain = FileValues("ws.tcval.0007");
  VKCORE::TcBlendFactor = 0.25f;
  WriteFile("ws.tcval.0007", Table(std::vector<float>{8.0f, 9.0f, 10.0f}));
  VKCORE_COMPSAVERESPONSE();
  const std::vector<float> blended = FileValues("ws.tcval.0007");
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_EQ(blended[i], plain[i] * 0.75f + (8.0f + static_cast<float>(i)) * 0.25f) << i;
}

TEST_F(Compsave, NumbersBeyondFourDigitsNameFilesWithAsterisks) {
  VKCORE::LCaseId = 12345;
  VKCORE_COMPSAVERESPONSE();
  for (const char* stem : {"ws.tcval.", "ws.amsval.", "ws.disval.", "ws.comval."})
    EXPECT_TRUE(Exists(std::string(stem) + "****")) << stem;
  EXPECT_EQ(ValueAt<std::int32_t>(ReadFile("ws.comval.****"), 0), 12345);
}

TEST_F(Compsave, ResponseArraysThatCannotBeAllocatedStopTheRun) {
  ARRAYS::LargestBytes = 5;
  EXPECT_ABORT(VKCORE_COMPSAVERESPONSE(), "Error allocating arrays.");
}

TEST_F(Compsave, ResultFileThatCannotBeOpenedStopsTheRun) {
  MakeDirectory("ws.disval.0007");
  EXPECT_ABORT(VKCORE_COMPSAVERESPONSE(), "Error opening file: ws.disval.0007");
  EXPECT_TRUE(Exists("ws.tcval.0007"));  // the order of writing
  EXPECT_TRUE(Exists("ws.amsval.0007"));
  EXPECT_FALSE(Exists("ws.comval.0007"));
}

TEST_F(Compsave, FullDeviceIsAFailedFlush) {
  MakeLink("/dev/full", "ws.amsval.0007");
  EXPECT_ABORT(VKCORE_COMPSAVERESPONSE(), "Error flushing file unit: 400");
}

TEST_F(Compsave, FailedCloseOfAnyResultFileIsToldWithItsUnit) {
  for (const int number : {1, 2, 3, 4})
    EXPECT_EXIT((FailingClose = number, VKCORE_COMPSAVERESPONSE()), StopsWith(StopError),
                "1010: Error closing file unit: 400 .ws.[a-z.0-9]+: Input/output error.\n")
        << number;
}

}  // namespace
