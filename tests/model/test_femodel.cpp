#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "model/femodel.hpp"
#include "support/close_fault.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

using Femodel = WorkingDirectory;

const std::vector<std::string> FilesInReadingOrder = {
    "mx.mats", "mx.nodes", "mxs.nodeflags", "mxs.tpadr", "mx.elems", "mxs.elemflags", "mxs.tp"};

void Load(const ModelFiles& model) {
  WriteModel(model);
  FEMODEL_LOAD();
}

// The level field of the tetrahedron for a list of values and the nodes' positions in it.
std::vector<float> LevelField(const std::vector<float>& values,
                              const std::vector<std::int32_t>& positions) {
  ModelFiles model = OneTetrahedron();
  model.level = values;
  model.levelIndex = positions;
  Load(model);
  return {FEMODEL::NodeTpFactor.get(), FEMODEL::NodeTpFactor.get() + FEMODEL::NumNodes};
}

// The tetrahedron's nodes as the first corners of a larger element.
ModelFiles OneHexahedron() {
  ModelFiles model = OneTetrahedron();
  model.conn40.clear();
  model.elements = {{1, TypeHex8, 1}};
  model.conn60 = {{{1, 2, 3, 4, 1, 2, 3, 4}}};
  return model;
}

ModelFiles OneTetrahedron10() {
  ModelFiles model = OneTetrahedron();
  model.conn40.clear();
  model.elements = {{1, TypeTet10, 1}};
  model.conn41 = {{{1, 2, 3, 4, 1, 2, 3, 4, 1, 2}}};
  return model;
}

void LoadWithFailingClose(int number) {
  FailingClose = number;
  FEMODEL_LOAD();
}

void LoadWithin(std::int64_t largestBytes) {
  ARRAYS::LargestBytes = largestBytes;
  FEMODEL_LOAD();
}

#define EXPECT_INVALID_INDEX(model, name)                         \
  do {                                                            \
    WriteModel(model);                                            \
    EXPECT_ABORT(FEMODEL_LOAD(), "Invalid index in file: " name); \
  } while (false)

}  // namespace

TEST_F(Femodel, EveryArrayHoldsWhatItsFileSays) {
  ModelFiles model = OneTetrahedron();
  model.materials.push_back(Isotropic(5.0f, 0.0f));
  model.nodeFlags = {0, 0x800, -1, 3};
  model.elements = {{2, TypeTet4, 1}, {1, 99, -7}};
  model.elementFlags = {2, 4};
  Load(model);
  EXPECT_EQ(FEMODEL::NumMaterials, 2);
  EXPECT_EQ(FEMODEL::Materials[1].E, 5.0f);
  EXPECT_EQ(FEMODEL::MaterialStiffness[9], 5.0f);
  EXPECT_EQ(FEMODEL::NumNodes, 4);
  EXPECT_EQ(FEMODEL::NodeCoords[3].Z, 1.0f);
  EXPECT_EQ(FEMODEL::NodeFlags[1], 0x800);
  EXPECT_EQ(FEMODEL::NodeFlags[2], -1);
  EXPECT_EQ(FEMODEL::NodeTpIndex[3], 4);
  EXPECT_EQ(FEMODEL::NumElements, 2);
  EXPECT_EQ(FEMODEL::Elements[0].MaterialIndex, 2);
  EXPECT_EQ(FEMODEL::Elements[1].ConnIndex, -7);
  EXPECT_EQ(FEMODEL::ElementFlags[1], 4);
  EXPECT_EQ(FEMODEL::NumConn40, 1);
  EXPECT_EQ(FEMODEL::Conn40[0].Node[3], 4);
  EXPECT_EQ(FEMODEL::NumTp, 4);
}

TEST_F(Femodel, TablesOfTheThreeTypesFollowEachOther) {
  ModelFiles model = OneTetrahedron();
  model.elements = {{1, TypeTet10, 1}, {1, TypeTet4, 1}, {1, TypeHex8, 2}};
  model.elementFlags = {0, 0, 0};
  model.conn60 = {{{1, 1, 1, 1, 1, 1, 1, 1}}, {{4, 3, 2, 1, 4, 3, 2, 1}}};
  model.conn41 = {{{2, 3, 4, 1, 2, 3, 4, 1, 2, 3}}};
  Load(model);
  EXPECT_EQ(FEMODEL::NumConn40, 1);
  EXPECT_EQ(FEMODEL::NumConn60, 2);
  EXPECT_EQ(FEMODEL::NumConn41, 1);
  EXPECT_EQ(FEMODEL_NODES(FEMODEL::Elements[0])[9], 3);
  EXPECT_EQ(FEMODEL_NODES(FEMODEL::Elements[1])[0], 1);
  EXPECT_EQ(FEMODEL_NODES(FEMODEL::Elements[2])[0], 4);
}

TEST_F(Femodel, UnknownTypeHasNoNodes) {
  EXPECT_EQ(FEMODEL_NODECOUNT(TypeTet4), 4);
  EXPECT_EQ(FEMODEL_NODECOUNT(TypeHex8), 8);
  EXPECT_EQ(FEMODEL_NODECOUNT(TypeTet10), 10);
  EXPECT_EQ(FEMODEL_NODECOUNT(0), 0);
  EXPECT_EQ(FEMODEL_NODES({1, 99, 1}), nullptr);
}

TEST_F(Femodel, ElementFileEndsBehindAnEmptyLastTable) {
  WriteModel(OneTetrahedron());
  EXPECT_EQ(ReadFile("mx.elems").size(), 4u + 4u + 8u + 4u + 16u + 4u + 4u);
  FEMODEL_LOAD();
  EXPECT_EQ(FEMODEL::NumConn41, 0);
}

TEST_F(Femodel, MaterialFileWithoutMaterialsEndsAtByteEight) {
  ModelFiles model = OneTetrahedron();
  model.materials.clear();
  model.elements.clear();
  model.elementFlags.clear();
  Load(model);
  EXPECT_EQ(ReadFile("mx.mats").size(), 8u);
  EXPECT_EQ(FEMODEL::NumMaterials, 0);
}

TEST_F(Femodel, NegativeCountsAreEmptyTables) {
  ModelFiles model = OneTetrahedron();
  WriteModel(model);
  const std::string none = Bytes(std::int32_t{-2});
  const std::string header = Bytes(std::int32_t{0});
  WriteFile("mx.mats", header + none);
  WriteFile("mx.nodes", header + none);
  WriteFile("mxs.nodeflags", none);
  WriteFile("mxs.tpadr", none);
  WriteFile("mx.elems", header + none + none + none + none);
  WriteFile("mxs.elemflags", none);
  WriteFile("mxs.tp", none);
  FEMODEL_LOAD();
  EXPECT_EQ(FEMODEL::NumNodes, -2);
  EXPECT_EQ(FEMODEL::NumElements, -2);
}

TEST_F(Femodel, HeaderWordsAreIgnored) {
  const ModelFiles model = OneTetrahedron();
  WriteModel(model);
  const std::string header = Bytes(std::int32_t{-12345});
  WriteFile("mx.mats", header + Table(model.materials));
  WriteFile("mx.nodes", header + Table(model.nodes));
  WriteFile("mx.elems", header + ElementBytes(model).substr(4));
  FEMODEL_LOAD();
  EXPECT_EQ(FEMODEL::NumMaterials, 1);
  EXPECT_EQ(FEMODEL::NumNodes, 4);
  EXPECT_EQ(FEMODEL::NumElements, 1);
}

TEST_F(Femodel, BytesBehindTheLastTableAreNotRead) {
  WriteModel(OneTetrahedron());
  for (const std::string& name : FilesInReadingOrder) WriteFile(name, ReadFile(name) + "more");
  FEMODEL_LOAD();
  EXPECT_EQ(FEMODEL::NumElements, 1);
}

TEST_F(Femodel, MeanMagnitudeOfTheLevelValuesIsScaledToOneHalf) {
  EXPECT_EQ(LevelField({1, -3, 4, 0}, {1, 2, 3, 4}),
            (std::vector<float>{0.25f, -0.75f, 1.0f, 0.0f}));
}

TEST_F(Femodel, NodesWithoutALevelValueHaveFactorOne) {
  EXPECT_EQ(LevelField({2, 2}, {0, -1, 1, 2}), (std::vector<float>{1.0f, 1.0f, 0.5f, 0.5f}));
}

TEST_F(Femodel, MeanIsTakenOverTheListAndNotOverTheNodes) {
  EXPECT_EQ(LevelField({2, 6}, {1, 1, 1, 1}), (std::vector<float>(4, 0.25f)));
}

TEST_F(Femodel, EmptyLevelListGivesFactorOneEverywhere) {
  EXPECT_EQ(LevelField({}, {0, 0, 0, 0}), (std::vector<float>(4, 1.0f)));
}

TEST_F(Femodel, LevelListOfZerosGivesZeroAtItsNodes) {
  EXPECT_EQ(LevelField({0, 0, 0, 0}, {1, 2, 3, 0}), (std::vector<float>{0.0f, 0.0f, 0.0f, 1.0f}));
}

TEST_F(Femodel, UndefinedLevelValueReachesAllNodesOfTheList) {
  const auto field = LevelField({1.0f, std::numeric_limits<float>::quiet_NaN()}, {1, 2, 0, 1});
  EXPECT_TRUE(std::isnan(field[0]));
  EXPECT_TRUE(std::isnan(field[1]));
  EXPECT_EQ(field[2], 1.0f);
}

TEST_F(Femodel, LongLevelListLosesNoTail) {
  constexpr std::size_t count = 20'000'000;  // a plain float32 sum of ones stops at 2^24
  const auto field = LevelField(std::vector<float>(count, 1.0f), {1, 2, 3, 4});
  EXPECT_EQ(field[0], 0.5f);
}

TEST_F(Femodel, LevelPositionBehindTheListIsInvalid) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex[2] = 5;
  EXPECT_INVALID_INDEX(model, "mxs.tpadr");
}

TEST_F(Femodel, LevelPositionWithAnEmptyListIsInvalid) {
  ModelFiles model = OneTetrahedron();
  model.level.clear();
  EXPECT_INVALID_INDEX(model, "mxs.tpadr");
}

TEST_F(Femodel, NegativeLevelCountIsAnEmptyListToEveryPositionThatSaysNone) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex = {0, -1, std::numeric_limits<std::int32_t>::min(), 0};
  for (const std::int32_t count : {-1, -5, std::numeric_limits<std::int32_t>::min()}) {
    WriteModel(model);
    WriteFile("mxs.tp", Bytes(count));
    FEMODEL_LOAD();
    EXPECT_EQ(FEMODEL::NumTp, count);
    EXPECT_EQ(FEMODEL::NodeTpFactor[0], 1.0f);
    EXPECT_EQ(FEMODEL::NodeTpFactor[3], 1.0f);
  }
}

TEST_F(Femodel, LevelPositionWithANegativeCountIsInvalid) {
  WriteModel(OneTetrahedron());
  WriteFile("mxs.tp", Bytes(std::int32_t{-1}));
  EXPECT_ABORT(FEMODEL_LOAD(), "Invalid index in file: mxs.tpadr");
}

TEST_F(Femodel, FewerFlagsThanNodesAreNobodysLossAtLoading) {
  ModelFiles model = OneTetrahedron();
  model.nodeFlags.pop_back();
  Load(model);
  EXPECT_EQ(FEMODEL::NumNodes, 4);
  EXPECT_EQ(FEMODEL::NumNodeFlags, 3);
}

TEST_F(Femodel, LaterNodeCountsReplaceEarlierOnes) {
  ModelFiles model = OneTetrahedron();
  model.nodes.push_back({9, 9, 9});
  model.nodeFlags.assign(6, 0);
  Load(model);
  EXPECT_EQ(FEMODEL::NumNodes, 4);
  EXPECT_EQ(FEMODEL::NodeCoords[4].X, 9.0f);
}

TEST_F(Femodel, MoreLevelPositionsThanCoordinatesAreAcceptedWhereNoElementUsesThem) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex.assign(7, 0);
  Load(model);
  EXPECT_EQ(FEMODEL::NumNodes, 7);
  EXPECT_EQ(FEMODEL::NodeTpFactor[6], 1.0f);
}

TEST_F(Femodel, ElementNodeWithoutCoordinatesOrLevelPositionIsInvalid) {
  ModelFiles fewCoordinates = OneTetrahedron();
  fewCoordinates.nodes.pop_back();
  EXPECT_INVALID_INDEX(fewCoordinates, "mx.elems");
  ModelFiles fewPositions = OneTetrahedron();
  fewPositions.levelIndex.pop_back();
  EXPECT_INVALID_INDEX(fewPositions, "mx.elems");
}

TEST_F(Femodel, ElementNodeOutsideTheModelIsInvalidInEveryType) {
  for (const std::int32_t node : {0, -1, 5}) {
    ModelFiles tet4 = OneTetrahedron();
    tet4.conn40[0].Node[3] = node;
    EXPECT_INVALID_INDEX(tet4, "mx.elems");
    ModelFiles hex8 = OneHexahedron();
    hex8.conn60[0].Node[7] = node;
    EXPECT_INVALID_INDEX(hex8, "mx.elems");
    ModelFiles tet10 = OneTetrahedron10();
    tet10.conn41[0].Node[9] = node;
    EXPECT_INVALID_INDEX(tet10, "mx.elems");
  }
}

TEST_F(Femodel, ConnectivityRowOutsideItsTableIsInvalid) {
  for (const std::int32_t row : {0, -1, 2}) {
    for (ModelFiles model : {OneTetrahedron(), OneHexahedron(), OneTetrahedron10()}) {
      model.elements[0].ConnIndex = row;
      EXPECT_INVALID_INDEX(model, "mx.elems");
    }
  }
}

TEST_F(Femodel, ConnectivityRowOfAnotherTypesTableIsInvalid) {
  ModelFiles model = OneTetrahedron();
  model.elements[0].TypeCode = TypeHex8;
  EXPECT_INVALID_INDEX(model, "mx.elems");
}

TEST_F(Femodel, MaterialOutsideItsTableIsInvalid) {
  for (const int material : {0, -1, 2}) {
    ModelFiles model = OneTetrahedron();
    model.elements[0].MaterialIndex = static_cast<std::int16_t>(material);
    EXPECT_INVALID_INDEX(model, "mx.elems");
  }
}

TEST_F(Femodel, UnusedConnectivityRowsMayHoldAnything) {
  ModelFiles model = OneTetrahedron();
  model.conn40.push_back({{0, -1, 99, 1 << 30}});
  Load(model);
  EXPECT_EQ(FEMODEL::NumConn40, 2);
}

TEST_F(Femodel, RowsOfExcludedElementsMayHoldAnything) {
  for (const int flag : {0x4, 0x100, 0x104}) {
    ModelFiles model = OneTetrahedron();
    model.elements.push_back({-3, TypeTet4, 77});
    model.elementFlags.push_back(static_cast<std::int16_t>(flag));
    Load(model);
    EXPECT_FALSE(FEMODEL_ISEXCLUDED(1));
    EXPECT_TRUE(FEMODEL_ISEXCLUDED(2));
  }
}

TEST_F(Femodel, RowsOfUnknownTypesMayHoldAnything) {
  ModelFiles model = OneTetrahedron();
  model.elements.push_back({-3, 42, 77});
  model.elementFlags.push_back(0);
  Load(model);
  EXPECT_FALSE(FEMODEL_ISEXCLUDED(2));
  EXPECT_EQ(FEMODEL_ELEMENT(2).nodeCount, 0);
}

TEST_F(Femodel, ViewOfAnElementLeadsToItsNodesAndMaterial) {
  ModelFiles model = OneTetrahedron();
  model.materials.push_back(Isotropic(7.0f, 0.0f));
  model.elements.push_back({2, TypeTet4, 2});
  model.elementFlags.push_back(0);
  model.conn40.push_back({{4, 3, 2, 1}});
  Load(model);
  const ElementView element = FEMODEL_ELEMENT(2);
  EXPECT_EQ(element.number, 2);
  EXPECT_EQ(element.record->TypeCode, TypeTet4);
  EXPECT_EQ(element.material->E, 7.0f);
  EXPECT_EQ(std::vector<std::int32_t>(element.nodes, element.nodes + element.nodeCount),
            (std::vector<std::int32_t>{4, 3, 2, 1}));
}

TEST_F(Femodel, FlagBitsOtherThanTwoAndEightLeaveTheElementIn) {
  ModelFiles model = OneTetrahedron();
  model.elementFlags = {static_cast<std::int16_t>(~0x104)};
  Load(model);
  EXPECT_FALSE(FEMODEL_ISEXCLUDED(1));
}

TEST_F(Femodel, FewerFlagsThanElementsLeaveTheRestOut) {
  ModelFiles model = OneTetrahedron();
  model.elements.push_back({-3, TypeTet4, 77});
  Load(model);
  EXPECT_EQ(FEMODEL::NumElements, 1);
}

TEST_F(Femodel, FlagsWithoutAnElementAreInvalidUnlessTheyExcludeIt) {
  ModelFiles model = OneTetrahedron();
  model.elementFlags = {0, 4};
  Load(model);
  EXPECT_EQ(FEMODEL::NumElements, 2);
  model.elementFlags = {0, 0};
  EXPECT_INVALID_INDEX(model, "mxs.elemflags");
}

TEST_F(Femodel, MaterialOfNoKindMayBeAssigned) {
  ModelFiles model = OneTetrahedron();
  model.materials[0].MaterialFlags = 0;
  Load(model);
  EXPECT_EQ(FEMODEL::MaterialStiffness[0], 0.0f);
}

TEST_F(Femodel, EveryMissingFileIsAnOpeningError) {
  for (const std::string& name : FilesInReadingOrder) {
    WriteModel(OneTetrahedron());
    Remove(name);
    EXPECT_EXIT(FEMODEL_LOAD(), StopsWith(StopError),
                "1010: Error opening file: " + name + " .No such file or directory.\n");
  }
}

TEST_F(Femodel, EveryFileCutByOneByteIsAReadingError) {
  for (const std::string& name : FilesInReadingOrder) {
    WriteModel(OneTetrahedron());
    Shorten(name, 1);
    EXPECT_EXIT(FEMODEL_LOAD(), StopsWith(StopError),
                "1010: Error reading file: " + name + " .the file ends too early.\n");
  }
}

TEST_F(Femodel, EveryEmptyFileIsAReadingError) {
  for (const std::string& name : FilesInReadingOrder) {
    WriteModel(OneTetrahedron());
    WriteFile(name, "");
    EXPECT_EXIT(FEMODEL_LOAD(), StopsWith(StopError),
                "1010: Error reading file: " + name + " .the file ends too early.\n");
  }
}

TEST_F(Femodel, EveryCorruptCountIsAReadingErrorAndAsksForNoMemory) {
  const std::string huge = Bytes(std::numeric_limits<std::int32_t>::max());
  for (const std::string& name : FilesInReadingOrder) {
    WriteModel(OneTetrahedron());
    const bool hasHeader = name.starts_with("mx.");
    std::string content = ReadFile(name);
    content.replace(hasHeader ? 4 : 0, 4, huge);
    WriteFile(name, content);
    EXPECT_EXIT(LoadWithin(4096), StopsWith(StopError),
                "1010: Error reading file: " + name + " .the file ends too early.\n");
  }
}

TEST_F(Femodel, EveryFailedCloseTellsTheUnit) {
  WriteModel(OneTetrahedron());
  for (int number = 1; number <= static_cast<int>(FilesInReadingOrder.size()); ++number)
    EXPECT_EXIT(LoadWithFailingClose(number), StopsWith(StopError),
                "1010: Error closing fileunit: 200 .[a-z.]+: Input/output error.\n");
  EXPECT_TRUE(Log().ends_with("Error<Msg:Error closing fileunit: 200>\n"));
}

TEST_F(Femodel, EveryFailedAllocationIsTold) {
  ModelFiles model = OneTetrahedron();
  WriteModel(model);
  EXPECT_ABORT(LoadWithin(191), "Error allocating arrays.");  // the materials
  model.materials.clear();
  model.elements[0].TypeCode = 99;
  WriteModel(model);
  EXPECT_ABORT(LoadWithin(47), "Error allocating arrays.");  // the coordinates
  model.nodes.clear();
  model.nodeFlags.clear();
  model.conn40.assign(3, {});
  WriteModel(model);
  EXPECT_ABORT(LoadWithin(47), "Error allocating arrays.");  // the connectivity
  model.conn40.clear();
  model.level.assign(20, 1.0f);
  WriteModel(model);
  EXPECT_ABORT(LoadWithin(79), "Error allocating arrays.");  // the level values
}
