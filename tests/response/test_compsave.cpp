#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "elements/feelem.hpp"
#include "model/fileio.hpp"
#include "response/compsave.hpp"
#include "run/services/vkcore.hpp"
#include "support/small_model.hpp"

namespace {

constexpr float Largest = 3.4028234663852886e+38f;

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
  WriteFile("f", Table(std::vector<float>{8.0f}));
  EXPECT_ABORT(
      {
        FILEIO_OPENREAD(FILEIO::ReadUnit, "f");
        ::close(FILEIO::ReadStream.descriptor);
        FILEIO_CLOSEREAD(FILEIO::ReadUnit);
      },
      "Error closing fileunit: 200");
}

// The whole step.

TEST_F(Compsave, WritesTheReducedArraysOfTheElementPass) {
  COMPSAVE_INITRESPONSE(FEMODEL::NumTp, FEMODEL::NumNodes);
  const double maxDis = COMPSAVE_MAGNITUDES();
  ResponseTotals totals;
  FEELEM_RESPONSE(FEDOF::Displacements.get(), totals);
  COMPSAVE_REDUCETC();
  COMPSAVE_REDUCEAMS();
  const std::vector<float> tc = Tc();
  const std::vector<float> ams(RESPONSE::AmsValues.get(),
                               RESPONSE::AmsValues.get() + FEMODEL::NumNodes);
  const std::vector<float> dis(RESPONSE::DisValues.get(),
                               RESPONSE::DisValues.get() + FEMODEL::NumNodes);
  VKCORE_COMPSAVERESPONSE();
  EXPECT_EQ(ReadFile("ws.tcval.0007"), Table(tc));
  EXPECT_EQ(ReadFile("ws.amsval.0007"), Table(ams));
  EXPECT_EQ(ReadFile("ws.disval.0007"), Table(dis));
  const std::vector<float> reals = {0.75f,
                                    static_cast<float>(totals[TotalEnergy]),
                                    static_cast<float>(totals[TotalSharpVolume]),
                                    static_cast<float>(totals[TotalBoundaryStress]),
                                    static_cast<float>(maxDis),
                                    1.0f,
                                    -2.0f,
                                    0.1f};
  EXPECT_GT(totals[TotalEnergy], 0.0);
  EXPECT_GT(totals[TotalSharpVolume], 0.0);
  EXPECT_GT(totals[TotalBoundaryStress], 0.0);
  EXPECT_EQ(ReadFile("ws.comval.0007"),
            Bytes(std::int32_t{7}) + Bytes(std::int32_t{1}) + Bytes(reals));
  EXPECT_FALSE(RESPONSE::TcValues);
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

TEST_F(Compsave, FailedCloseOfAResultFileIsToldWithItsUnit) {
  EXPECT_ABORT(
      {
        FILEIO_OPENWRITE(FILEIO::WriteUnit, "ws.tcval.0007");
        const int descriptor = FILEIO::WriteStream.descriptor;
        FILEIO::WriteStream.besideName.clear();  // nothing to bring to the disk
        ::close(descriptor);
        FILEIO_FLUSHCLOSE(FILEIO::WriteUnit);
      },
      "Error closing file unit: 400");
}

}  // namespace
