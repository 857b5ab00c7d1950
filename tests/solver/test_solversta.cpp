#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "model/fileio.hpp"
#include "solver/solversta.hpp"
#include "support/close_fault.hpp"
#include "support/small_model.hpp"

namespace {

constexpr const char* Name = "mxs.sadr";

void WriteStructure(const RawStructure& raw) {
  WriteFile(Name, Bytes(static_cast<std::int32_t>(raw.starts.size()) - 1) + Bytes(raw.maxBw) +
                      Bytes(static_cast<std::int64_t>(raw.columns.size())) + Bytes(raw.columns) +
                      Bytes(raw.starts));
}

void Configure() { SOLVERSTA_CONFIGURE(FILEIO::ReadUnit, Name); }

// Numbering made by hand for `map`, three entries a node.
void SetMap(const std::vector<std::int32_t>& map) {
  FEMODEL::NumNodes = static_cast<std::int32_t>(map.size()) / 3;
  FEDOF::NodeDofMap = Copy(map);
  FEDOF::NumEquations = std::max(*std::max_element(map.begin(), map.end()), 0);
}

void ExpectRows(const std::vector<std::int64_t>& starts, const std::vector<std::int64_t>& columns) {
  ASSERT_EQ(SOLVERSTA::NumEquations, static_cast<std::int32_t>(starts.size()) - 1);
  ASSERT_EQ(SOLVERSTA::NumEntries, static_cast<std::int64_t>(columns.size()));
  for (std::size_t i = 0; i < starts.size(); ++i)
    EXPECT_EQ(RowStart(static_cast<std::int64_t>(i) + 1), starts[i]) << "row " << i + 1;
  for (std::size_t p = 0; p < columns.size(); ++p)
    EXPECT_EQ(ColumnAt(static_cast<std::int64_t>(p) + 1), columns[p]) << "position " << p + 1;
}

class Solversta : public SmallModel {};

// Two nodes, all six components coupled.
RawStructure TwoNodes() {
  return {6,
          {1, 2, 3, 4, 5, 6, 2, 3, 4, 5, 6, 3, 4, 5, 6, 4, 5, 6, 5, 6, 6},
          {1, 7, 12, 16, 19, 21, 22}};
}

TEST_F(Solversta, FreeStructureIsKeptAsItIs) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  Configure();
  ExpectRows({1, 7, 12, 16, 19, 21, 22},
             {1, 2, 3, 4, 5, 6, 2, 3, 4, 5, 6, 3, 4, 5, 6, 4, 5, 6, 5, 6, 6});
}

TEST_F(Solversta, FixedAndPrescribedComponentsDisappearAsRowsAndColumns) {
  SetMap({1, 0, 2, -3, 3, 4});
  WriteStructure(TwoNodes());
  Configure();
  ExpectRows({1, 5, 8, 10, 11}, {1, 2, 3, 4, 2, 3, 4, 3, 4, 4});
}

TEST_F(Solversta, RowWhoseEveryCoupledComponentIsFixedKeepsItsDiagonal) {
  SetMap({0, 1, 0, 0, 0, -1});
  WriteStructure(TwoNodes());
  Configure();
  ExpectRows({1, 2}, {1});
}

TEST_F(Solversta, BoxIsCompressedLikeAPlainSelection) {
  SetBox(3, 2, 2);
  SetConstraints(ClampedFace());
  SetNumbering();
  WriteStructure(MakeRawStructure());
  SetSystem(true);
  const std::vector<std::int64_t> starts(SOLVERSTA::pR4.get(),
                                         SOLVERSTA::pR4.get() + SOLVERSTA::NumEquations + 1);
  const std::vector<std::int64_t> columns(SOLVERSTA::pC4.get(),
                                          SOLVERSTA::pC4.get() + SOLVERSTA::NumEntries);
  Configure();
  ExpectRows(starts, columns);
}

TEST_F(Solversta, SmallSystemsTakeThe32BitPathInEveryMode) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  for (const std::int32_t mode : {0, 1, 2}) {
    SOLVERSTA::IMode = mode;
    Configure();
    EXPECT_TRUE(SOLVERSTA::UseIm4);
    EXPECT_TRUE(SOLVERSTA::pR4 && SOLVERSTA::pC4);
    EXPECT_FALSE(SOLVERSTA::pR8 || SOLVERSTA::pC8);
  }
}

TEST_F(Solversta, PairOfTheOtherPathIsFreed) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  SetStructure({1, 2}, {1}, false);
  SOLVERSTA::SysMatrixSP = Copy(std::vector<float>{1.0f});
  Configure();
  EXPECT_FALSE(SOLVERSTA::pR8 || SOLVERSTA::pC8);
  EXPECT_FALSE(SOLVERSTA::SysMatrixSP);
}

TEST_F(Solversta, SystemArraysAreThereAfterConfiguring) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  Configure();
  EXPECT_TRUE(SOLVERSTA::SysForces && SOLVERSTA::SysMatrix && SOLVERSTA::SysRhs &&
              SOLVERSTA::SysScale);
}

TEST_F(Solversta, LogLineGivesPathBandwidthAndMillions) {
  SetMap({1, 2, 3, 4, 5, 6});
  RawStructure raw = TwoNodes();
  raw.maxBw = 1234567;
  WriteStructure(raw);
  Configure();
  EXPECT_EQ(Log(), "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=1234567/0.00/0.00 >\n");
}

TEST_F(Solversta, LogLineRoundsMillionsToTwoDecimalsWithALeadingZero) {
  const std::int32_t nodes = 5000;  // 15,000 equations without couplings
  std::vector<std::int32_t> map;
  RawStructure raw;
  for (std::int32_t i = 1; i <= 3 * nodes; ++i) {
    map.push_back(i);
    raw.columns.push_back(i);
    raw.starts.push_back(i + 1);
  }
  SetMap(map);
  WriteStructure(raw);
  Configure();
  EXPECT_EQ(Log(), "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=0/0.01/0.01 >\n");  // 0.015f below
}

TEST_F(Solversta, WrongBandwidthChangesNothingButTheLog) {
  SetMap({1, 0, 2, -3, 3, 4});
  RawStructure raw = TwoNodes();
  raw.maxBw = -77;
  WriteStructure(raw);
  Configure();
  ExpectRows({1, 5, 8, 10, 11}, {1, 2, 3, 4, 2, 3, 4, 3, 4, 4});
}

TEST_F(Solversta, FactorisingModesTurnTo64BitAtFiveHundredMillionEntries) {
  for (const std::int32_t mode : {SOLVERSTA::ModeAutomatic, SOLVERSTA::ModeFactorised}) {
    EXPECT_TRUE(SOLVERSTA_USESIM4(499999999, mode));
    EXPECT_FALSE(SOLVERSTA_USESIM4(500000000, mode));
    EXPECT_FALSE(SOLVERSTA_USESIM4(600000000, mode));
  }
}

TEST_F(Solversta, IterativeModeTurnsTo64BitAtTheLargerLimit) {
  EXPECT_TRUE(SOLVERSTA_USESIM4(600000000, SOLVERSTA::ModeIterative));
  EXPECT_TRUE(SOLVERSTA_USESIM4(2146999999, SOLVERSTA::ModeIterative));
  EXPECT_FALSE(SOLVERSTA_USESIM4(2147000000, SOLVERSTA::ModeIterative));
}

// The files of a small system, the limits lowered to its size.
TEST_F(Solversta, FilesOfASystemAtTheLimitGiveIndicesOf64Bits) {
  SetMap({1, 0, 2, -3, 3, 4});
  RawStructure raw = TwoNodes();
  raw.maxBw = 55;
  WriteStructure(raw);
  const std::int64_t entries = 10;  // ((1 2 3 4) (2 3 4) (3 4) (4))
  for (const std::int32_t mode :
       {SOLVERSTA::ModeAutomatic, SOLVERSTA::ModeIterative, SOLVERSTA::ModeFactorised}) {
    SOLVERSTA::IMode = mode;
    auto& limit =
        mode == SOLVERSTA::ModeIterative ? SOLVERSTA::IterativeLimit : SOLVERSTA::FactorisedLimit;
    limit = entries + 1;
    Configure();
    EXPECT_TRUE(SOLVERSTA::UseIm4);
    limit = entries;
    Configure();
    EXPECT_FALSE(SOLVERSTA::UseIm4);
    EXPECT_FALSE(SOLVERSTA::pR4 || SOLVERSTA::pC4);
    ASSERT_TRUE(SOLVERSTA::pR8 && SOLVERSTA::pC8);
    EXPECT_EQ(SOLVERSTA::pR8[4], 11);
    EXPECT_EQ(SOLVERSTA::pC8[9], 4);
    ExpectRows({1, 5, 8, 10, 11}, {1, 2, 3, 4, 2, 3, 4, 3, 4, 4});
    EXPECT_TRUE(SOLVERSTA::SysForces && SOLVERSTA::SysMatrix && SOLVERSTA::SysRhs &&
                SOLVERSTA::SysScale);
  }
  const std::string lines =
      "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=55/0.00/0.00 >\n"
      "Info<Msg:SysConfig: Im8::MaxBW/MDOF/MPRE=55/0.00/0.00 >\n";
  EXPECT_EQ(Log(), lines + lines + lines);
}

TEST_F(Solversta, PairOf32BitsIsFreedOnTheWayTo64) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  SOLVERSTA::FactorisedLimit = 1;
  SetStructure({1, 2}, {1}, true);
  Configure();
  EXPECT_FALSE(SOLVERSTA::pR4 || SOLVERSTA::pC4);
  EXPECT_TRUE(SOLVERSTA::pR8 && SOLVERSTA::pC8);
}

TEST_F(Solversta, RunThatFellBackToIterationsConfiguresByTheLargerLimit) {
  SetMatrix({{1.0, 2.0}, {0.0, 1.0}}, true);  // indefinite
  SOLVERSTA::IMode = SOLVERSTA::ModeAutomatic;
  SLEPARDISOSOLVER_PREPARE();
  EXPECT_EQ(SOLVERSTA::IMode, SOLVERSTA::ModeIterative);
  EXPECT_TRUE(SOLVERSTA_USESIM4(600000000, SOLVERSTA::IMode));
}

TEST_F(Solversta, WrappedEntryCountCountsAsSmall) {
  EXPECT_TRUE(SOLVERSTA_USESIM4(std::int64_t{static_cast<std::int32_t>(0x80000001u)},
                                SOLVERSTA::ModeAutomatic));
}

TEST_F(Solversta, ReleaseFreesEverythingAndTheFactor) {
  SetMatrix({{1.0, 0.1}, {0.0, 1.0}}, true);
  SOLVERSTA::IMode = SOLVERSTA::ModeFactorised;
  SLEPARDISOSOLVER_PREPARE();
  ASSERT_TRUE(SLEPARDISOSOLVER_HASFACTOR());
  SOLVERSTA_RELEASE();
  EXPECT_FALSE(SLEPARDISOSOLVER_HASFACTOR());
  EXPECT_FALSE(SOLVERSTA::pR4 || SOLVERSTA::pC4 || SOLVERSTA::pR8 || SOLVERSTA::pC8);
  EXPECT_FALSE(SOLVERSTA::SysForces || SOLVERSTA::SysMatrix || SOLVERSTA::SysRhs ||
               SOLVERSTA::SysScale || SOLVERSTA::SysMatrixSP);
  SOLVERSTA_RELEASE();  // nothing left to free
}

// Structures that are odd but lead nowhere outside their arrays.

TEST_F(Solversta, GarbageInDroppedRowsAndColumnsIsAccepted) {
  SetMap({1, 0, 2, 0, 0, 3});
  RawStructure raw = TwoNodes();
  for (const std::size_t p : {7u, 8u, 9u, 10u}) raw.columns[p] = -5;  // row of component 2, dropped
  raw.columns[0] = 99;                                                // a diagonal isn't looked up
  std::swap(raw.columns[3], raw.columns[4]);                          // components 4 and 5: fixed
  WriteStructure(raw);
  Configure();
  ExpectRows({1, 4, 6, 7}, {1, 2, 3, 2, 3, 3});
}

TEST_F(Solversta, RowsOfTrailingFixedComponentsMayBeMissing) {
  SetMap({1, 2, 3, 0, 0, 0});
  WriteStructure({0, {1, 2, 3, 6, 2, 3, 3}, {1, 5, 7, 8}});
  Configure();
  ExpectRows({1, 4, 6, 7}, {1, 2, 3, 2, 3, 3});
}

TEST_F(Solversta, GapsBetweenRowsAreAccepted) {
  SetMap({1, 0, 2});
  WriteStructure({0, {1, 3, 50, 60, 3}, {1, 3, 5, 6}});
  Configure();
  ExpectRows({1, 3, 4}, {1, 2, 2});
}

// Structures that would lead outside their arrays or to a system that no solver takes.

class BadStructure : public Solversta {
 protected:
  void SetUp() override {
    Solversta::SetUp();
    SetMap({1, 2, 3, 4, 5, 6});
  }

  void ExpectRefused(const RawStructure& raw) {
    WriteStructure(raw);
    EXPECT_ABORT(Configure(), "Invalid index in file: mxs.sadr");
  }
};

TEST_F(BadStructure, NoRowsAreRefused) { ExpectRefused({0, {}, {1}}); }

TEST_F(BadStructure, MoreRowsThanComponentsAreRefused) {
  RawStructure raw = TwoNodes();
  raw.columns.push_back(7);
  raw.starts.push_back(23);
  ExpectRefused(raw);
}

TEST_F(BadStructure, MissingRowOfAFreeComponentIsRefused) {
  RawStructure raw = TwoNodes();
  raw.starts.pop_back();
  raw.columns.pop_back();
  ExpectRefused(raw);
}

TEST_F(BadStructure, ColumnBeyondTheComponentsIsRefused) {
  RawStructure raw = TwoNodes();
  raw.columns[5] = 7;
  ExpectRefused(raw);
}

TEST_F(BadStructure, ColumnZeroIsRefused) {
  RawStructure raw = TwoNodes();
  raw.columns[1] = 0;
  ExpectRefused(raw);
}

TEST_F(BadStructure, ColumnsOutOfOrderAreRefused) {
  RawStructure raw = TwoNodes();
  std::swap(raw.columns[1], raw.columns[2]);
  ExpectRefused(raw);
}

TEST_F(BadStructure, RepeatedColumnIsRefused) {
  RawStructure raw = TwoNodes();
  raw.columns[2] = 2;
  ExpectRefused(raw);
}

TEST_F(BadStructure, ColumnBelowTheDiagonalIsRefused) {
  RawStructure raw = TwoNodes();
  raw.columns[7] = 1;
  ExpectRefused(raw);
}

TEST_F(BadStructure, RowStartBeyondTheEntriesIsRefused) {
  RawStructure raw = TwoNodes();
  raw.starts[6] = 1000000;
  ExpectRefused(raw);
}

TEST_F(BadStructure, RowStartOfZeroIsRefused) {
  RawStructure raw = TwoNodes();
  raw.starts[0] = 0;
  ExpectRefused(raw);
}

TEST_F(BadStructure, RowThatStartsAmongThoseAlreadyCompressedIsRefused) {
  RawStructure raw = TwoNodes();
  raw.starts[2] = 3;
  ExpectRefused(raw);
}

TEST_F(BadStructure, RowThatEndsBeforeItStartsIsRefused) {
  RawStructure raw = TwoNodes();
  raw.starts[3] = std::numeric_limits<std::int64_t>::min();
  ExpectRefused(raw);
}

// Failures.

TEST_F(Solversta, MissingFileIsAnOpeningError) {
  SetMap({1, 2, 3});
  EXPECT_ABORT(Configure(), "Error opening file: mxs.sadr");
}

TEST_F(Solversta, FailedCloseIsToldWithItsUnit) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  EXPECT_ABORT((FailingClose = 1, Configure()), "Error closing fileunit: 200");
}

TEST_F(Solversta, ShortFileIsAReadingError) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  Shorten(Name, 1);
  EXPECT_ABORT(Configure(), "Error reading file: mxs.sadr");
}

TEST_F(Solversta, HeaderAloneIsAReadingError) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteFile(Name, Bytes(std::int32_t{6}) + Bytes(std::int32_t{0}) + Bytes(std::int64_t{21}));
  EXPECT_ABORT(Configure(), "Error reading file: mxs.sadr");
}

TEST_F(Solversta, CorruptCountIsAReadingErrorBeforeAnythingIsAllocated) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteFile(Name, Bytes(std::int32_t{6}) + Bytes(std::int32_t{0}) +
                      Bytes(std::numeric_limits<std::int64_t>::max()) + Bytes(std::int64_t{1}));
  EXPECT_ABORT(Configure(), "Error reading file: mxs.sadr");
}

TEST_F(Solversta, RawArraysThatCannotBeAllocatedStopTheRun) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  ARRAYS::LargestBytes = 70;
  EXPECT_ABORT(Configure(), "Error allocating pC and pR arrays.");
}

TEST_F(Solversta, MapThatCannotBeAllocatedStopsTheRun) {
  std::vector<std::int32_t> map(300, 0);
  map[0] = 1;
  SetMap(map);
  WriteStructure({0, {1}, {1, 2}});
  ARRAYS::LargestBytes = 1000;
  EXPECT_ABORT(Configure(), "Error allocating arrays.");
}

TEST_F(Solversta, SystemArraysThatCannotBeAllocatedStopTheRun) {
  SetMap({1, 2, 3, 4, 5, 6});
  WriteStructure(TwoNodes());
  ARRAYS::LargestBytes = 100;  // enough for the 21 columns, not for 21 values
  EXPECT_ABORT(Configure(), "Error allocating arrays.");
}

}  // namespace
