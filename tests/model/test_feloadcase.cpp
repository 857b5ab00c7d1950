#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "model/fedof.hpp"
#include "model/feloadcase.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "run/services/vkcore.hpp"
#include "support/close_fault.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

using Feloadcase = WorkingDirectory;

void LoadModel(const ModelFiles& model = OneTetrahedron()) {
  WriteModel(model);
  FEMODEL_LOAD();
}

ModelFiles YieldingTetrahedron() {
  ModelFiles model = OneTetrahedron();
  model.materials[0].MaterialFlags = MaterialYielding;
  return model;
}

void Prepare(std::int32_t number = 1, std::int32_t pattern = 1) {
  FELOADCASE_PREPARE(number, LoadCaseStatic, pattern);
}

void PrepareCase(const LoadCaseFile& file, std::int32_t number = 1, std::int32_t pattern = 1) {
  WriteLoadCase(number, file);
  Prepare(number, pattern);
}

LoadCaseFile Constrained(const std::vector<NodalConstraintRecord>& rows) {
  LoadCaseFile file;
  file.constraints = rows;
  return file;
}

std::vector<std::int32_t> DofMap() {
  const std::int32_t* map = FEDOF::NodeDofMap.get();
  return {map, map + 3 * FEMODEL::NumNodes};
}

std::vector<float> NodalScalars() {
  return {FELOADCASE::NodalScalars.get(), FELOADCASE::NodalScalars.get() + FEMODEL::NumNodes};
}

std::vector<double> Displacements() {
  return {FEDOF::Displacements.get(), FEDOF::Displacements.get() + FEDOF::NumEquations};
}

constexpr const char* NoEquations =
    "1010: Structure with no degrees of freedom. Check displacement boundary conditions.\n";

// The load-case file, prepared on the tetrahedron, is refused for a number in it.
#define EXPECT_INVALID_CASE(file)                                     \
  do {                                                                \
    WriteLoadCase(1, file);                                           \
    EXPECT_ABORT(Prepare(), "Invalid index in file: mxs.lcmap.0001"); \
  } while (false)

}  // namespace

TEST_F(Feloadcase, NumberKindAndPatternAreKeptAndPosted) {
  LoadModel();
  WriteLoadCase(12, PulledTip());
  FELOADCASE_PREPARE(12, 1, -5);
  EXPECT_EQ(VKCORE::LCaseId, 12);
  EXPECT_EQ(VKCORE::LoadCaseKind, 1);
  EXPECT_EQ(FELOADCASE::PreviousPattern, -5);
  EXPECT_EQ(Log(), "Data<Key:LCaseId><Value:12>\nInfo<Msg:LCasePatInx: -5>\n");
}

TEST_F(Feloadcase, SectionsAreReadInTheirOrder) {
  LoadModel();
  LoadCaseFile file = PulledTip(4.0f);
  file.constraints[0].Value[2] = 0.5f;
  file.forces3 = {{1, 1.0f, 2.0f, 3.0f}, {2, 5.0f, 6.0f, 7.0f}};
  file.scalars = {{3, 20.0f}};
  PrepareCase(file);
  EXPECT_EQ(FEDOF::NumNodalConstraints, 3);
  EXPECT_EQ(FEDOF::NodalConstraints[0].Value[2], 0.5f);
  EXPECT_EQ(FELOADCASE::NumNodalForces2, 1);
  EXPECT_EQ(FELOADCASE::NodalForces2[0].Fz, 4.0f);
  EXPECT_EQ(FELOADCASE::NumNodalForces3, 2);
  EXPECT_EQ(FELOADCASE::NodalForces3[1].Fy, 6.0f);
  EXPECT_EQ(NodalScalars(), (std::vector<float>{0.0f, 0.0f, 20.0f, 0.0f}));
}

TEST_F(Feloadcase, PenaltyRowsGoToTheSupportListAndFixNothing) {
  LoadModel();
  PrepareCase(Constrained({Support(4), Prescribed(1, 7), Support(2)}));
  ASSERT_EQ(FELOADCASE::NumSupports, 2);
  EXPECT_EQ(FELOADCASE::SupportList[0], 1);
  EXPECT_EQ(FELOADCASE::SupportList[1], 3);
  EXPECT_EQ(FEDOF::NumEquations, 9);
}

TEST_F(Feloadcase, OnlyBitZeroOfTheKindMakesASupport) {
  LoadModel();
  NodalConstraintRecord even = Prescribed(1, 7);
  even.Kind = 6;
  NodalConstraintRecord odd = Support(2);
  odd.Kind = -1;
  PrepareCase(Constrained({even, odd}));
  ASSERT_EQ(FELOADCASE::NumSupports, 1);
  EXPECT_EQ(FELOADCASE::SupportList[0], 2);
  EXPECT_EQ(FEDOF::NumEquations, 9);
}

TEST_F(Feloadcase, SamePatternKeepsTheNumbering) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7)}), 1, 3);
  EXPECT_TRUE(VKCORE::PatternChanged);
  const auto map = DofMap();
  PrepareCase(Constrained({Prescribed(2, 7), Prescribed(1, 7)}), 2, 3);
  EXPECT_FALSE(VKCORE::PatternChanged);
  EXPECT_EQ(DofMap(), map);
  EXPECT_EQ(FEDOF::NumNodalConstraints, 2);
}

TEST_F(Feloadcase, OtherPatternBuildsTheNumberingAnew) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7)}), 1, 3);
  PrepareCase(Constrained({Prescribed(4, 7)}), 2, 4);
  EXPECT_TRUE(VKCORE::PatternChanged);
  EXPECT_EQ(DofMap(), (std::vector<std::int32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 0, 0, 0}));
}

TEST_F(Feloadcase, PatternZeroAfterAnotherIsAChangeLikeAnyOther) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7)}), 1, 3);
  PrepareCase(Constrained({Prescribed(4, 7)}), 2, 0);
  EXPECT_TRUE(VKCORE::PatternChanged);
  EXPECT_EQ(DofMap()[0], 1);
}

TEST_F(Feloadcase, FirstPatternZeroLeavesNoNumberingAndAborts) {
  LoadModel();
  WriteLoadCase(1, PulledTip());
  EXPECT_EXIT(Prepare(1, 0), StopsWith(StopError), NoEquations);
}

TEST_F(Feloadcase, AllDirectionsConstrainedAborts) {
  LoadModel();
  WriteLoadCase(1, Constrained({Prescribed(1, 7), Prescribed(2, 7), Prescribed(3, 7),
                                Prescribed(4, 7, 1.0f, 1.0f, 1.0f)}));
  EXPECT_EXIT(Prepare(), StopsWith(StopError), NoEquations);
}

TEST_F(Feloadcase, ModelWithoutNodesOrActiveElementsAborts) {
  ModelFiles model = OneTetrahedron();
  model.elementFlags = {4};
  LoadModel(model);
  WriteLoadCase(1, {});
  EXPECT_EXIT(Prepare(), StopsWith(StopError), NoEquations);
  EXPECT_EXIT((FEMODEL::NumNodes = 0, Prepare()), StopsWith(StopError), NoEquations);
}

TEST_F(Feloadcase, ScalarsOfNodesWithoutAPairAreZero) {
  LoadModel();
  LoadCaseFile file;
  file.scalars = {{2, 20.0f}, {4, 40.0f}, {2, 21.0f}};
  PrepareCase(file);
  EXPECT_FALSE(VKCORE::NoNodalScalars);
  EXPECT_EQ(NodalScalars(), (std::vector<float>{0.0f, 21.0f, 0.0f, 40.0f}));
}

TEST_F(Feloadcase, ScalarsAreFilledAnewByEachCaseThatHasThem) {
  LoadModel();
  LoadCaseFile first;
  first.scalars = {{1, 10.0f}};
  PrepareCase(first, 1);
  PrepareCase({}, 2);
  EXPECT_TRUE(VKCORE::NoNodalScalars);
  EXPECT_EQ(NodalScalars()[0], 10.0f);
  LoadCaseFile third;
  third.scalars = {{2, 30.0f}};
  PrepareCase(third, 3);
  EXPECT_FALSE(VKCORE::NoNodalScalars);
  EXPECT_EQ(NodalScalars(), (std::vector<float>{0.0f, 30.0f, 0.0f, 0.0f}));
}

TEST_F(Feloadcase, NegativeCountsAreEmptySections) {
  LoadModel();
  const std::string none = Bytes(std::int32_t{-1});
  WriteFile("mxs.lcmap.0001", none + none + none + none);
  Prepare();
  EXPECT_EQ(FEDOF::NumEquations, 12);
  EXPECT_EQ(FELOADCASE::NumSupports, 0);
  EXPECT_FALSE(VKCORE::NoNodalScalars);  // only a count of 0 says that there are none
  EXPECT_EQ(NodalScalars(), std::vector<float>(4, 0.0f));
}

TEST_F(Feloadcase, NegativeConstraintCountIsAcceptedUnderAKeptNumberingWithoutReferences) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7)}), 1, 3);
  WriteFile("mxs.lcmap.0002", Bytes(std::int32_t{-1}) + LoadCaseBytes({}).substr(4));
  Prepare(2, 3);
  EXPECT_EQ(FEDOF::NumEquations, 9);
}

TEST_F(Feloadcase, MissingFileAborts) {
  LoadModel();
  EXPECT_ABORT(Prepare(34), "Error opening file: mxs.lcmap.0034");
}

TEST_F(Feloadcase, NumberOfFiveDigitsLooksForAsterisks) {
  LoadModel();
  EXPECT_ABORT(Prepare(10000), "Error opening file: mxs.lcmap.****");
}

TEST_F(Feloadcase, FileCutAnywhereIsAReadingError) {
  LoadModel();
  LoadCaseFile file = PulledTip();
  file.forces3 = {{1, 1, 1, 1}};
  file.scalars = {{1, 1.0f}};
  const std::string whole = LoadCaseBytes(file);
  // Inside each count and inside the rows of each section.
  for (const std::size_t length : {0u, 3u, 5u, 171u, 173u, 190u, 192u, 195u, 210u, 213u, 223u}) {
    WriteFile("mxs.lcmap.0001", whole.substr(0, length));
    EXPECT_EXIT(Prepare(), StopsWith(StopError),
                "1010: Error reading file: mxs.lcmap.0001 .the file ends too early.\n")
        << length;
  }
}

TEST_F(Feloadcase, CorruptCountIsAReadingErrorAndAsksForNoMemory) {
  LoadModel();
  WriteFile("mxs.lcmap.0001",
            Bytes(std::numeric_limits<std::int32_t>::max()) + std::string(64, 'x'));
  EXPECT_ABORT((ARRAYS::LargestBytes = 4096, Prepare()), "Error reading file: mxs.lcmap.0001");
}

TEST_F(Feloadcase, FailedCloseAborts) {
  LoadModel();
  WriteLoadCase(1, PulledTip());
  EXPECT_ABORT((FailingClose = 1, Prepare()), "Error closing fileunit: 200");
}

TEST_F(Feloadcase, FailedAllocationAborts) {
  LoadModel();
  WriteLoadCase(1, PulledTip());
  EXPECT_ABORT((ARRAYS::LargestBytes = 100, Prepare()), "Error allocating arrays.");  // constraints
  WriteLoadCase(1, Constrained({}));
  EXPECT_ABORT((ARRAYS::LargestBytes = 3, Prepare()), "Error allocating arrays.");   // states
  EXPECT_ABORT((ARRAYS::LargestBytes = 47, Prepare()), "Error allocating arrays.");  // numbering
  EXPECT_ABORT((ARRAYS::LargestBytes = 95, Prepare()), "Error allocating arrays.");  // solution
}

TEST_F(Feloadcase, FailedAllocationOfTheElementStateAborts) {
  LoadModel(YieldingTetrahedron());
  WriteLoadCase(1, PulledTip());
  EXPECT_ABORT((ARRAYS::LargestBytes = 3, Prepare()), "Error allocating arrays.");
  EXPECT_EQ(Log(), "Error<Msg:Error allocating arrays.>\n");
}

TEST_F(Feloadcase, PrescribedRowOfANodeOutsideTheModelIsInvalid) {
  LoadModel();
  for (const std::int32_t node : {0, -1, 5})
    EXPECT_INVALID_CASE(Constrained({Prescribed(node, 1)}));
}

TEST_F(Feloadcase, SupportOfANodeOutsideTheModelIsInvalidWhateverItsMask) {
  LoadModel();
  NodalConstraintRecord row = Support(5);
  EXPECT_INVALID_CASE(Constrained({row}));
  row.DofMask = 0;
  EXPECT_INVALID_CASE(Constrained({row}));
}

TEST_F(Feloadcase, PrescribedRowWithoutDirectionsMayNameAnyNode) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(-99, 0), Prescribed(1 << 30, 8)}));
  EXPECT_EQ(FEDOF::NumEquations, 12);
}

TEST_F(Feloadcase, PrescribedRowsUnderAKeptNumberingMayNameAnyNode) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7)}), 1, 3);
  PrepareCase(Constrained({Prescribed(-99, 7)}), 2, 3);
  EXPECT_EQ(FEDOF::NumEquations, 9);
}

TEST_F(Feloadcase, ForceOnANodeOutsideTheModelIsInvalidInBothLists) {
  LoadModel();
  for (const std::int32_t node : {0, -1, 5}) {
    LoadCaseFile second;
    second.forces2 = {{1, 0, 0, 0}, {node, 0, 0, 0}};
    EXPECT_INVALID_CASE(second);
    LoadCaseFile third;
    third.forces3 = {{node, 0, 0, 0}};
    EXPECT_INVALID_CASE(third);
  }
}

TEST_F(Feloadcase, ForceOnANodeWithoutFlagsIsInvalid) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex.push_back(0);
  LoadModel(model);
  LoadCaseFile file;
  file.forces2 = {{5, 0, 0, 0}};
  EXPECT_INVALID_CASE(file);
}

TEST_F(Feloadcase, ForceOnAMarkedNodeBeyondTheModelLeadsNowhere) {
  ModelFiles model = OneTetrahedron();
  model.nodeFlags = {0, 0, 0, 0, 0, static_cast<std::int16_t>(NodeMarked)};
  LoadModel(model);
  LoadCaseFile file;
  file.forces2 = {{6, 1.0f, 1.0f, 1.0f}};
  file.forces3 = file.forces2;
  PrepareCase(file);
  EXPECT_EQ(FELOADCASE::NumNodalForces2, 1);
  EXPECT_EQ(FELOADCASE::NumNodalForces3, 1);
}

TEST_F(Feloadcase, ForceOnANodeBeyondTheModelIsInvalidUnlessItsOwnFlagMarksIt) {
  ModelFiles model = OneTetrahedron();
  const auto marked = static_cast<std::int16_t>(NodeMarked);
  model.nodeFlags = {marked, marked, marked, marked, static_cast<std::int16_t>(~marked), marked};
  LoadModel(model);
  for (const std::int32_t node : {0, -1, 5, 7}) {
    LoadCaseFile file;
    file.forces3 = {{node, 0, 0, 0}};
    EXPECT_INVALID_CASE(file);
  }
}

TEST_F(Feloadcase, NodeWithAnEquationNeedsFlagsWhenTheNumberingIsBuilt) {
  ModelFiles model = OneTetrahedron();
  model.nodeFlags.pop_back();
  LoadModel(model);
  WriteLoadCase(1, Constrained({Prescribed(1, 7), Prescribed(4, 3)}));
  EXPECT_ABORT(Prepare(), "Invalid index in file: mxs.nodeflags");
}

TEST_F(Feloadcase, NodesWithoutEquationsNeedNoFlags) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex.push_back(0);  // node 5, which no element uses
  model.nodeFlags = {0, 0};
  LoadModel(model);
  PrepareCase(Constrained({Prescribed(3, 7), Prescribed(4, 7, 0.5f, 0.5f, 0.5f)}));
  EXPECT_EQ(FEDOF::NumEquations, 6);
}

TEST_F(Feloadcase, ForceOnANodeWithoutCoordinatesIsAccepted) {
  ModelFiles model = OneTetrahedron();
  model.levelIndex.push_back(0);
  model.nodeFlags.push_back(0);
  LoadModel(model);
  LoadCaseFile file;
  file.forces2 = {{5, 0, 0, 1.0f}};
  PrepareCase(file);
  EXPECT_EQ(FELOADCASE::NumNodalForces2, 1);
}

TEST_F(Feloadcase, ScalarOfANodeOutsideTheModelIsInvalid) {
  LoadModel();
  for (const std::int32_t node : {0, -1, 5}) {
    LoadCaseFile file;
    file.scalars = {{1, 0.0f}, {node, 0.0f}};
    EXPECT_INVALID_CASE(file);
  }
}

TEST_F(Feloadcase, KeptNumberingThatRefersToAMissingRowIsInvalid) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7), Prescribed(4, 4, 0, 0, 0.5f)}), 2, 3);
  WriteLoadCase(1, Constrained({Prescribed(1, 7)}));
  EXPECT_ABORT(Prepare(1, 3), "Invalid index in file: mxs.lcmap.0001");
}

TEST_F(Feloadcase, KeptNumberingTakesTheValueOfThePresentCasesRow) {
  LoadModel();
  PrepareCase(Constrained({Prescribed(1, 7), Prescribed(4, 4, 0, 0, 0.5f)}), 1, 3);
  PrepareCase(Constrained({Support(2), Prescribed(4, 4, 0, 0, 0.75f)}), 2, 3);
  EXPECT_EQ(FEDOF_VALUE(DofMap()[11], 2, nullptr), 0.75);
}

TEST_F(Feloadcase, PlainMaterialsHaveNoElementState) {
  LoadModel();
  WriteFile("ws.mstate.0001", "not even looked at");
  PrepareCase(PulledTip());
  EXPECT_FALSE(VKCORE::MatStateEnabled);
  EXPECT_TRUE(VKCORE::MatStateMissing);
  EXPECT_FALSE(FELOADCASE::ElementState);
}

TEST_F(Feloadcase, YieldingAndCompressionOnlyMaterialsHaveElementState) {
  for (const std::uint32_t kind : {MaterialYielding, MaterialCompressionOnly}) {
    ModelFiles model = OneTetrahedron();
    model.materials.push_back(model.materials[0]);
    model.materials[1].MaterialFlags = kind;  // assigned to no element
    LoadModel(model);
    PrepareCase(PulledTip());
    EXPECT_TRUE(VKCORE::MatStateEnabled);
    EXPECT_TRUE(VKCORE::MatStateMissing);
    EXPECT_EQ(FELOADCASE::ElementState[0], 1.0f);
  }
}

TEST_F(Feloadcase, SavedElementStateIsTaken) {
  LoadModel(YieldingTetrahedron());
  WriteFile("ws.mstate.0001", Table(std::vector<float>{0.25f}));
  PrepareCase(PulledTip());
  EXPECT_FALSE(VKCORE::MatStateMissing);
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.25f);
}

TEST_F(Feloadcase, ElementStateIsSetBackToOneForACaseWithoutAFile) {
  LoadModel(YieldingTetrahedron());
  WriteFile("ws.mstate.0001", Table(std::vector<float>{0.25f}));
  PrepareCase(PulledTip(), 1);
  PrepareCase(PulledTip(), 2);
  EXPECT_TRUE(VKCORE::MatStateMissing);
  EXPECT_EQ(FELOADCASE::ElementState[0], 1.0f);
}

TEST_F(Feloadcase, ElementStateOfAnotherCountIsAllOnesButNotMissing) {
  LoadModel(YieldingTetrahedron());
  for (const std::vector<float>& values : {std::vector<float>{0.5f, 0.5f}, std::vector<float>{}}) {
    WriteFile("ws.mstate.0001", Table(values));
    PrepareCase(PulledTip());
    EXPECT_FALSE(VKCORE::MatStateMissing);
    EXPECT_EQ(FELOADCASE::ElementState[0], 1.0f);
  }
}

TEST_F(Feloadcase, ElementStateCutAnywhereIsAllOnesButNotMissing) {
  ModelFiles model = YieldingTetrahedron();
  model.elements.push_back(model.elements[0]);
  model.elementFlags.push_back(0);
  LoadModel(model);
  const std::string whole = Table(std::vector<float>{0.25f, 0.5f});
  for (std::size_t length = 0; length < whole.size(); ++length) {
    WriteFile("ws.mstate.0001", whole.substr(0, length));
    PrepareCase(PulledTip());
    EXPECT_FALSE(VKCORE::MatStateMissing) << length;
    EXPECT_EQ(FELOADCASE::ElementState[0], 1.0f) << length;
    EXPECT_EQ(FELOADCASE::ElementState[1], 1.0f) << length;
  }
  EXPECT_EQ(Log().find("Error"), std::string::npos);
}

TEST_F(Feloadcase, ValuesBehindTheElementStateAreNotLookedAt) {
  LoadModel(YieldingTetrahedron());
  WriteFile("ws.mstate.0001", Table(std::vector<float>{0.25f}) + "more");
  PrepareCase(PulledTip());
  EXPECT_EQ(FELOADCASE::ElementState[0], 0.25f);
}

TEST_F(Feloadcase, DirectoryInPlaceOfTheElementStateCountsAsMissing) {
  LoadModel(YieldingTetrahedron());
  MakeDirectory("ws.mstate.0001");
  PrepareCase(PulledTip());
  EXPECT_TRUE(VKCORE::MatStateMissing);
}

TEST_F(Feloadcase, StartVectorIsZeroWithoutASavedOne) {
  LoadModel();
  PrepareCase(PulledTip());
  EXPECT_EQ(Displacements(), std::vector<double>(3, 0.0));
}

TEST_F(Feloadcase, StartVectorIsTheSavedOneOfTheSameCase) {
  LoadModel();
  std::vector<float> values(12, 9.0f);
  values[10] = 0.25f;
  WriteFile("ws.sstate.0002", Bytes(std::int32_t{1}) + Table(values));
  PrepareCase(PulledTip(), 1);
  EXPECT_EQ(Displacements(), std::vector<double>(3, 0.0));
  PrepareCase(PulledTip(), 2);
  EXPECT_EQ(Displacements(), (std::vector<double>{9.0, 0.25, 9.0}));
}
