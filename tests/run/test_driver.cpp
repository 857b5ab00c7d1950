#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "model/feloadcase.hpp"
#include "run/driver.hpp"
#include "solver/solversta.hpp"
#include "support/close_fault.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

using Driver = WorkingDirectory;

constexpr const char* Head =
    "Info<Msg:Tool.vk_rund.Start >\nInfo<Msg:Eng x64 TLMx/IC/ID Build 2018.06.03 >\n";

// Everything a run reads except the load cases; serial, so that the log has no surprises.
void WriteDirectory(const ModelFiles& model = OneTetrahedron()) {
  WriteFile("vk_rund_cmd.txt", "Sys.MaxNumCompThreads=1\n");
  WriteModel(model);
  WriteFullStructure(static_cast<std::int32_t>(model.nodes.size()));
}

// One requested load case a pattern index, run in file order, each pulling at the tip.
void WriteCases(const std::vector<std::int32_t>& patterns) {
  LoadCaseTables tables;
  for (std::size_t i = 0; i < patterns.size(); ++i) {
    const auto number = static_cast<std::int32_t>(i) + 1;
    tables.records.push_back(Case(patterns[i], number));
    tables.flags.push_back(LoadCaseRequested);
    tables.values.push_back(0.5f * static_cast<float>(number));
    WriteLoadCase(number, PulledTip(static_cast<float>(number)));
  }
  WriteLoadCaseTables(tables);
}

std::vector<std::int32_t> FlagsOnDisk() {
  const std::string bytes = ReadFile("mxs.lcflags");
  return ValuesAt<std::int32_t>(bytes, 4,
                                static_cast<std::size_t>(ValueAt<std::int32_t>(bytes, 0)));
}

// What stands between `before` and ">" in each line that has it, in order.
std::vector<std::string> Behind(const std::string& before) {
  const std::string log = Log();
  std::vector<std::string> values;
  for (auto at = log.find(before); at != std::string::npos; at = log.find(before, at + 1)) {
    const auto start = at + before.size();
    values.push_back(log.substr(start, log.find('>', start) - start));
  }
  return values;
}

std::vector<std::string> Keyed(const std::string& key) {
  return Behind("Data<Key:" + key + "><Value:");
}
std::vector<std::string> Posted(const std::string& message) {
  return Behind("Info<Msg:" + message + ": ");
}

using Numbers = std::vector<std::string>;

#define EXPECT_RUN_ENDS() EXPECT_EXIT(RUN_ENTRY("."), testing::ExitedWithCode(0), "^$")
#define EXPECT_RUN_ABORTS(message) EXPECT_ABORT(RUN_ENTRY("."), message)

}  // namespace

TEST(RunTimeText, HasHoursMinutesSecondsAndMilliseconds) {
  EXPECT_EQ(RUN_TIMETEXT(0, 1000), "00:00:00.000");
  EXPECT_EQ(RUN_TIMETEXT(187250, 1000), "00:03:07.250");
  EXPECT_EQ(RUN_TIMETEXT(4512000000, 1000000000), "00:00:04.512");
  EXPECT_EQ(RUN_TIMETEXT(3599500, 1000), "00:59:59.500");
}

TEST(RunTimeText, HoursWidenBeyondTwoDigits) {
  EXPECT_EQ(RUN_TIMETEXT(std::int64_t{100} * 3600 * 1000, 1000), "100:00:00.000");
}

TEST(RunTimeText, MillisecondsAreCutAndNotRounded) {
  EXPECT_EQ(RUN_TIMETEXT(1999900, 1000000), "00:00:01.999");
}

TEST(RunTimeText, ArithmeticIsInSinglePrecision) {
  // 100000.123 s lies between 100000.1171875 and 100000.125, the nearest float.
  EXPECT_EQ(RUN_TIMETEXT(100000123000000, 1000000000), "27:46:40.125");
}

TEST(RunTimeText, NeverLongerThanSixteenCharacters) {
  EXPECT_EQ(RUN_TIMETEXT(std::int64_t{123456} * 3600, 1), "123456:00:00.000");
}

TEST(RunKeepsDisplacements, QualityMustExceedTheLimit) {
  EXPECT_FALSE(RUN_KEEPSDISPLACEMENTS(0.9f));
  EXPECT_TRUE(RUN_KEEPSDISPLACEMENTS(std::nextafter(0.9f, 1.0f)));
  EXPECT_FALSE(RUN_KEEPSDISPLACEMENTS(std::nanf("")));
}

TEST_F(Driver, DirectoryThatCannotBeEnteredStopsWith1004AndLeavesNoLog) {
  EXPECT_EXIT(RUN_ENTRY("missing"), StopsWith(StopDirectory),
              "1004: cannot enter directory \"missing\" .No such file or directory.\n");
  EXPECT_EXIT(RUN_ENTRY(""), StopsWith(StopDirectory), "1004: cannot enter directory \"\" ");
}

TEST_F(Driver, LogThatCannotBeOpenedStopsWith1005) {
  MakeDirectory("work");
  MakeDirectory("work/vk_rund_log.txt");
  EXPECT_EXIT(RUN_ENTRY("work"), StopsWith(StopLog),
              "1005: cannot open the log \"vk_rund_log.txt\" .it is a directory.\n");
}

TEST_F(Driver, FullLogStopsWith1005) {
  MakeDirectory("work");
  MakeLink("/dev/full", "work/vk_rund_log.txt");
  EXPECT_EXIT(RUN_ENTRY("work"), StopsWith(StopLog),
              "1005: cannot write the log \"vk_rund_log.txt\" .No space left on device.\n");
}

TEST_F(Driver, OldLogIsDiscarded) {
  WriteFile("vk_rund_log.txt", std::string(10000, 'x'));
  WriteDirectory();
  WriteCases({});
  EXPECT_RUN_ENDS();
  EXPECT_TRUE(Log().starts_with(Head));
}

TEST_F(Driver, MissingOptionsAbortBehindTheBanner) {
  WriteDirectory();
  WriteCases({1});
  Remove("vk_rund_cmd.txt");
  EXPECT_RUN_ABORTS("Error opening file: vk_rund_cmd.txt");
  EXPECT_EQ(Log(), std::string(Head) + "Error<Msg:Error opening file: vk_rund_cmd.txt>\n");
}

TEST_F(Driver, NoLoadCasesEndNormallyWithTheTotalTime) {
  WriteDirectory();
  WriteCases({});
  EXPECT_RUN_ENDS();
  const std::string log = Log();
  const std::string time = Posted("Total time").at(0);
  EXPECT_EQ(time.size(), std::string("00:00:00.000 ").size()) << time;
  EXPECT_EQ(
      log, std::string(Head) + "Info<Msg:Total time: " + time + ">\nInfo<Msg:Tool.vk_rund.End >\n");
}

TEST_F(Driver, MissingModelAbortsEvenWithoutLoadCases) {
  WriteDirectory();
  WriteCases({});
  Remove("mx.mats");
  EXPECT_RUN_ABORTS("Error opening file: mx.mats");
}

TEST_F(Driver, NegativeCountsRunNothing) {
  WriteDirectory();
  WriteFile("mxs.lcdata", Bytes(std::int32_t{-1}) + Bytes(std::int32_t{128}));
  WriteFile("mxs.lcflags", Bytes(std::int32_t{-4}));
  EXPECT_RUN_ENDS();
  EXPECT_TRUE(Keyed("LCaseId").empty());
}

TEST_F(Driver, OtherFormatNumberLeavesThreeLinesInTheLog) {
  WriteDirectory();
  WriteLoadCaseTables({{Case(1, 1)}, {1}, {0.0f}}, 129);
  EXPECT_RUN_ABORTS("Incompatible preprocessed files. Run preprocesor again.");
  EXPECT_EQ(Log(), std::string(Head) +
                       "Error<Msg:Incompatible preprocessed files. Run preprocesor again.>\n");
}

TEST_F(Driver, ReadingTheInputForgetsThePreviousPattern) {
  WriteDirectory();
  WriteCases({1});
  FELOADCASE::PreviousPattern = 5;
  RUN_READINPUT();
  EXPECT_EQ(FELOADCASE::PreviousPattern, 0);
}

TEST_F(Driver, RequestedLoadCaseLeavesAllItsFilesAndItsFlag) {
  WriteDirectory();
  WriteCases({1});
  EXPECT_RUN_ENDS();
  for (const char* name :
       {"ws.tcval.0001", "ws.amsval.0001", "ws.disval.0001", "ws.comval.0001", "ws.sstate.0001"})
    EXPECT_TRUE(Exists(name)) << name;
  EXPECT_FALSE(Exists("ws.mstate.0001"));
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{3}));
}

TEST_F(Driver, TipOfTheTetrahedronMovesAsHookesLawSays) {
  // Only the strain zz is free: u = F height / (C33 volume of the gradient), C33 = 1200; the level
  // field of 0.5 at a steepness of 500 leaves atan(250) / pi + 0.5 of the material.
  WriteDirectory();
  WriteCases({1});
  EXPECT_RUN_ENDS();
  const double presence = (std::atan(250.0) / M_PI + 0.5) * (1.0 - 0.001) + 0.001;
  const double expected = 1.0 / (1200.0 * presence / 6.0);
  const std::string state = ReadFile("ws.sstate.0001");
  EXPECT_NEAR(static_cast<double>(ValueAt<float>(state, 8 + 11 * 4)), expected, 1e-6 * expected);
}

TEST_F(Driver, LoadCasesThatAreNotToRunLeaveNoLineAndNoFile) {
  WriteDirectory();
  WriteLoadCaseTables({{Case(1, 1, 2), Case(1, 2, 0), Case(1, 3), Case(1, 4), Case(1, 5)},
                       {1, 1, 0, 3, 5},
                       {0, 0, 0, 0, 0}});
  const std::string before = ReadFile("mxs.lcflags");
  EXPECT_RUN_ENDS();  // there isn't even a load-case file
  EXPECT_TRUE(Keyed("LCaseId").empty());
  EXPECT_FALSE(Exists("ws.sstate.0001"));
  EXPECT_EQ(ReadFile("mxs.lcflags"), before);
}

TEST_F(Driver, OtherFlagBitsAndAllValuesAreCarriedAlong) {
  WriteDirectory();
  WriteLoadCase(2, PulledTip());
  const std::int32_t undefined = 0x7FC12345;
  WriteLoadCaseTables({{Case(1, 1), Case(1, 2)}, {0x7FFFFF04, ~6}, {}});
  WriteFile("mxs.lcflags", ReadFile("mxs.lcflags") + Bytes(undefined) + Bytes(-0.0f));
  EXPECT_RUN_ENDS();
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{0x7FFFFF04, ~4}));
  EXPECT_EQ(ReadFile("mxs.lcflags").substr(12), Bytes(undefined) + Bytes(-0.0f));
}

TEST_F(Driver, SecondRunFindsEverythingDone) {
  WriteDirectory();
  WriteCases({1, 1});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"1", "2"}));
  const std::string results = ReadFile("ws.tcval.0001");
  EXPECT_RUN_ENDS();
  EXPECT_TRUE(Keyed("LCaseId").empty());
  EXPECT_EQ(ReadFile("ws.tcval.0001"), results);
}

TEST_F(Driver, LoadCasesRunInTheSequenceOfRunOrder) {
  WriteDirectory();
  WriteCases({1, 1, 1});
  WriteLoadCaseTables({{Case(1, 3), Case(1, 1), Case(1, 2)}, {1, 1, 1}, {0, 0, 0}});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"3", "1", "2"}));
}

TEST_F(Driver, KindAndPatternAreThoseOfTheLoadCaseAndNotOfThePosition) {
  WriteDirectory();
  WriteCases({1, 1});
  WriteLoadCaseTables({{Case(8, 2, 2), Case(9, 1)}, {1, 1}, {0, 0}});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"2"}));
  EXPECT_EQ(Posted("LCasePatInx"), (Numbers{"9"}));
}

TEST_F(Driver, LoadCaseNamedTwiceRunsOnce) {
  WriteDirectory();
  WriteCases({1, 1});
  WriteLoadCaseTables({{Case(1, 2), Case(1, 2)}, {1, 1}, {0, 0}});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"2"}));
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{1, 3}));
}

TEST_F(Driver, MatrixAndFactorAreKeptWithinAPattern) {
  WriteDirectory();
  WriteCases({1, 1, 2, 2});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("LCasePatInx"), (Numbers{"1", "1", "2", "2"}));
  EXPECT_EQ(Posted("EstDecMemReq").size(), 2u);
}

// With the limits lowered, the tetrahedron's files take the path of systems of 500 million entries.
void CompareIndexWidths(const std::string& mode) {
  WriteDirectory();
  WriteFile("vk_rund_cmd.txt", "Sys.MaxNumCompThreads=1\nSys.ComputationMode=" + mode + "\n");
  WriteCases({1, 1, 2});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("SysConfig"), Numbers(2, "Im4::MaxBW/MDOF/MPRE=12/0.00/0.00 "));
  const Numbers modes = Posted("IMode");
  const std::string narrow = ReadFile("ws.sstate.0003");
  Remove("ws.sstate.0003");
  WriteCases({1, 1, 2});
  EXPECT_EXIT((SOLVERSTA::IterativeLimit = SOLVERSTA::FactorisedLimit = 1, RUN_ENTRY(".")),
              testing::ExitedWithCode(0), "^$");
  EXPECT_EQ(Posted("SysConfig"), Numbers(2, "Im8::MaxBW/MDOF/MPRE=12/0.00/0.00 "));
  EXPECT_TRUE(Posted("EstDecMemReq").empty());
  EXPECT_EQ(Posted("IMode"), modes);
  EXPECT_EQ(Keyed("ARQua"), Numbers(3, "1.000000E+00"));
  const std::vector<float> expected = ValuesAt<float>(narrow, 8, 12);
  const std::vector<float> solution = ValuesAt<float>(ReadFile("ws.sstate.0003"), 8, 12);
  for (std::size_t i = 0; i < 12; ++i)
    EXPECT_NEAR(solution[i], expected[i], 2e-5 * std::fabs(expected[11])) << i;
}

TEST_F(Driver, AutomaticRunOnIndicesOf64BitsGivesTheResultsOfOneOn32) { CompareIndexWidths("0"); }

TEST_F(Driver, IterativeRunOnIndicesOf64BitsGivesTheResultsOfOneOn32) { CompareIndexWidths("1"); }

TEST_F(Driver, FactorisedRunOnIndicesOf64BitsGivesTheResultsOfOneOn32) { CompareIndexWidths("2"); }

TEST_F(Driver, SkippedLoadCaseBetweenTwoOfAPatternDoesNotChangeIt) {
  WriteDirectory();
  WriteCases({1, 2, 1});
  WriteLoadCaseTables({{Case(1, 1), Case(2, 2), Case(1, 3)}, {1, 5, 1}, {0, 0, 0}});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("EstDecMemReq").size(), 1u);
}

TEST_F(Driver, FirstPatternZeroAbortsForNoNumbering) {
  WriteDirectory();
  WriteCases({0});
  EXPECT_RUN_ABORTS(
      "Structure with no degrees of freedom. Check displacement boundary conditions.");
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{1}));
}

TEST_F(Driver, AbortedRunIsFinishedByTheNext) {
  WriteDirectory();
  WriteCases({1, 1, 1});
  Remove("mxs.lcmap.0002");
  EXPECT_RUN_ABORTS("Error opening file: mxs.lcmap.0002");
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{3, 1, 1}));
  WriteLoadCase(2, PulledTip(2.0f));
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"2", "3"}));
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{3, 3, 3}));
}

TEST_F(Driver, LoadCaseThatRunsAgainStartsFromItsSavedVector) {
  WriteDirectory();
  WriteCases({1});
  EXPECT_RUN_ENDS();
  EXPECT_NE(Posted("ICount"), (Numbers{"0"}));
  std::vector<float> zeros(12, 0.0f);
  WriteCases({1});
  WriteLoadCase(1, {PulledTip().constraints, {}, {}, {}});
  WriteFile("ws.sstate.0001", Bytes(std::int32_t{1}) + Table(zeros));
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("ICount"), (Numbers{"0"}));
  zeros[11] = 1.0f;  // no longer the solution for no load: there is something to solve
  WriteCases({1});
  WriteLoadCase(1, {PulledTip().constraints, {}, {}, {}});
  WriteFile("ws.sstate.0001", Bytes(std::int32_t{1}) + Table(zeros));
  EXPECT_RUN_ENDS();
  EXPECT_NE(Posted("ICount"), (Numbers{"0"}));
}

TEST_F(Driver, ElementStateIsWrittenForMaterialsThatHaveOne) {
  ModelFiles model = OneTetrahedron();
  model.materials[0].MaterialFlags = MaterialYielding;
  model.materials[0].YieldStress = 1e6f;
  WriteDirectory(model);
  WriteCases({1});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(ReadFile("ws.mstate.0001"), Table(std::vector<float>{1.0f}));
}

TEST_F(Driver, SavedElementStateRebuildsTheMatrixWithinAPattern) {
  ModelFiles model = OneTetrahedron();
  model.materials[0].MaterialFlags = MaterialYielding;
  model.materials[0].YieldStress = 1e6f;
  WriteDirectory(model);
  WriteCases({1, 1});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("EstDecMemReq").size(), 1u);  // no saved state: matrix and factor are kept
  WriteCases({1, 1});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Posted("EstDecMemReq").size(), 2u);
}

TEST_F(Driver, FlagsAreWrittenAfterAllOtherFilesOfALoadCase) {
  WriteDirectory();
  WriteCases({1});
  MakeDirectory("ws.sstate.0001");
  EXPECT_RUN_ABORTS("Error opening file: ws.sstate.0001");
  EXPECT_TRUE(Exists("ws.comval.0001"));
  EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{1}));
}

TEST_F(Driver, DirectoryInPlaceOfAResultFileIsAnOpeningError) {
  WriteDirectory();
  WriteCases({1});
  MakeDirectory("ws.disval.0001");
  EXPECT_RUN_ABORTS("Error opening file: ws.disval.0001");
}

TEST_F(Driver, FullDeviceInPlaceOfAResultFileIsAFlushingError) {
  WriteDirectory();
  WriteCases({1});
  MakeLink("/dev/full", "ws.disval.0001");
  EXPECT_RUN_ABORTS("Error flushing file unit: 400");
}

TEST_F(Driver, MissingTablesAndStructureAreOpeningErrors) {
  for (const std::string name : {"mxs.lcdata", "mxs.lcflags", "mxs.sadr"}) {
    WriteDirectory();
    WriteCases({1});
    Remove(name);
    EXPECT_EXIT(RUN_ENTRY("."), StopsWith(StopError),
                "1010: Error opening file: " + name + " .No such file or directory.\n");
  }
}

TEST_F(Driver, TablesCutByOneByteAreReadingErrors) {
  for (const std::string name : {"mxs.lcdata", "mxs.lcflags"}) {
    WriteDirectory();
    WriteCases({1, 1});
    Shorten(name, 1);
    EXPECT_EXIT(RUN_ENTRY("."), StopsWith(StopError),
                "1010: Error reading file: " + name + " .the file ends too early.\n");
    WriteFile(name, "abc");
    EXPECT_EXIT(RUN_ENTRY("."), StopsWith(StopError),
                "1010: Error reading file: " + name + " .the file ends too early.\n");
  }
}

TEST_F(Driver, CorruptTableCountsAskForNoMemory) {
  WriteDirectory();
  WriteCases({1});
  const std::string flags = ReadFile("mxs.lcflags");
  WriteFile("mxs.lcflags", Bytes(std::int32_t{0x7FFFFFFF}) + flags.substr(4));
  EXPECT_ABORT((ARRAYS::LargestBytes = 1 << 20, RUN_ENTRY(".")), "Error reading file: mxs.lcflags");
  WriteFile("mxs.lcdata", Bytes(std::int32_t{0x7FFFFFFF}) + Bytes(std::int32_t{128}));
  EXPECT_ABORT((ARRAYS::LargestBytes = 1 << 20, RUN_ENTRY(".")), "Error reading file: mxs.lcdata");
}

TEST_F(Driver, FailedAllocationOfTheTablesAborts) {
  WriteDirectory();
  WriteCases({1, 1});
  EXPECT_ABORT((ARRAYS::LargestBytes = 2079, RUN_LOADCASES()), "Error allocating arrays.");
  WriteLoadCaseTables({{}, std::vector<std::int32_t>(600, 0), std::vector<float>(600, 0.0f)});
  EXPECT_ABORT((ARRAYS::LargestBytes = 2399, RUN_LOADCASES()), "Error allocating arrays.");
}

TEST_F(Driver, FailedCloseOfATableTellsTheUnit) {
  WriteDirectory();
  WriteCases({1});
  for (const int number : {1, 2})
    EXPECT_EXIT((FailingClose = number, RUN_LOADCASES()), StopsWith(StopError),
                "1010: Error closing fileunit: 200 .[a-z.]+: Input/output error.\n");
}

TEST_F(Driver, LoadCaseNumberOutsideTheRecordsIsInvalid) {
  for (const std::int32_t number : {0, -1, 3}) {
    WriteDirectory();
    WriteCases({1, 1});
    WriteLoadCaseTables({{Case(1, 1), Case(1, number)}, {1, 1}, {0, 0}});
    EXPECT_RUN_ABORTS("Invalid index in file: mxs.lcdata");
    EXPECT_EQ(FlagsOnDisk(), (std::vector<std::int32_t>{1, 1}));
  }
}

TEST_F(Driver, MoreFlagsThanRecordsAreInvalid) {
  WriteDirectory();
  WriteCases({1});
  WriteLoadCaseTables({{Case(1, 1)}, {1, 0}, {0, 0}});
  EXPECT_RUN_ABORTS("Invalid index in file: mxs.lcdata");
}

TEST_F(Driver, FewerFlagsThanRecordsRunThePositionsThatHaveFlags) {
  WriteDirectory();
  WriteCases({1, 1});
  WriteLoadCaseTables({{Case(1, 1), Case(1, -99)}, {1}, {0}});
  EXPECT_RUN_ENDS();
  EXPECT_EQ(Keyed("LCaseId"), (Numbers{"1"}));
}

TEST_F(Driver, LoadCaseWithoutFlagsIsInvalidOnlyWhereItsKindRuns) {
  WriteDirectory();
  WriteCases({1, 1});
  WriteLoadCaseTables({{Case(1, 2), Case(1, 1, 7)}, {1}, {0}});
  EXPECT_RUN_ENDS();
  WriteLoadCaseTables({{Case(1, 2), Case(1, 1)}, {1}, {0}});
  EXPECT_RUN_ABORTS("Invalid index in file: mxs.lcdata");
}

TEST_F(Driver, MissingModelFileIsToldBeforeAnInvalidRunOrder) {
  WriteDirectory();
  WriteLoadCaseTables({{Case(1, 99)}, {1}, {0}});
  Remove("mxs.tp");
  EXPECT_RUN_ABORTS("Error opening file: mxs.tp");
}
