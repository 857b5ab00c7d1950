#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "model/fedof.hpp"
#include "model/femodel.hpp"
#include "model/fenod.hpp"
#include "model/fileio.hpp"
#include "support/close_fault.hpp"
#include "support/model_files.hpp"
#include "support/working_directory.hpp"

namespace {

constexpr const char* Name = "ws.sstate.0001";

// Three nodes, five equations; node 2 has a fixed x and a prescribed y, node 3 only z.
class Fenod : public WorkingDirectory {
 protected:
  void SetUp() override {
    WorkingDirectory::SetUp();
    SetMap({1, 2, 3, 0, -2, 4, 0, 0, 5});
    FEDOF::NumEquations = 5;
    FEDOF::NumNodalConstraints = 2;
    FEDOF::NodalConstraints = ARRAYS_ALLOCATE<NodalConstraintRecord>(2);
    FEDOF::NodalConstraints[0] = Prescribed(3, 3);
    FEDOF::NodalConstraints[1] = Prescribed(2, 2, 91.0f, 0.25f, 92.0f);
  }

  static void SetMap(const std::vector<std::int32_t>& map) {
    FEMODEL::NumNodes = static_cast<std::int32_t>(map.size() / 3);
    FEDOF::NodeDofMap = ARRAYS_ALLOCATE<std::int32_t>(static_cast<std::int64_t>(map.size()));
    std::copy(map.begin(), map.end(), FEDOF::NodeDofMap.get());
  }
};

const std::vector<double> Solution = {1.0, 0.1, -3.0, 1e-20, 5.5};

void Save(const std::vector<double>& displacements = Solution) {
  FENOD_SAVEDISP(FILEIO::WriteUnit, Name, displacements.data());
}

struct Loaded {
  bool exists = false;
  std::vector<double> displacements;
};

Loaded Load() {
  Loaded loaded;
  loaded.displacements.assign(static_cast<std::size_t>(FEDOF::NumEquations), 777.0);
  loaded.exists = FENOD_LOADDISP(FILEIO::ReadUnit, Name, loaded.displacements.data());
  return loaded;
}

const std::vector<double> Zeros(5, 0.0);

std::string Header(std::int32_t kind, std::int32_t count) { return Bytes(kind) + Bytes(count); }

}  // namespace

TEST_F(Fenod, SavedFileHoldsKindCountAndThreeValuesANode) {
  Save();
  EXPECT_EQ(ReadFile(Name), Header(1, 9) + Bytes(std::vector<float>{1.0f, 0.1f, -3.0f, 0.0f, 0.25f,
                                                                    1e-20f, 0.0f, 0.0f, 5.5f}));
}

TEST_F(Fenod, FreeValuesComeBackRoundedToSinglePrecision) {
  Save();
  const Loaded loaded = Load();
  EXPECT_TRUE(loaded.exists);
  for (std::size_t i = 0; i < Solution.size(); ++i)
    EXPECT_EQ(loaded.displacements[i], static_cast<double>(static_cast<float>(Solution[i]))) << i;
}

TEST_F(Fenod, PrescribedValuesInTheFileArePassedOver) {
  Save();
  SetMap({-1, 0, 1, 0, 2, -2, 0, 0, 3});  // other directions are free now
  FEDOF::NumEquations = 3;
  EXPECT_EQ(Load().displacements, (std::vector<double>{-3.0, 0.25, 5.5}));
}

TEST_F(Fenod, MissingFileGivesZeros) {
  const Loaded loaded = Load();
  EXPECT_FALSE(loaded.exists);
  EXPECT_EQ(loaded.displacements, Zeros);
}

TEST_F(Fenod, DirectoryInPlaceOfTheFileCountsAsMissing) {
  MakeDirectory(Name);
  const Loaded loaded = Load();
  EXPECT_FALSE(loaded.exists);
  EXPECT_EQ(loaded.displacements, Zeros);
}

TEST_F(Fenod, FileCutShortAnywhereGivesZerosAndNoMessage) {
  Save();
  while (std::filesystem::file_size(Name) > 0) {
    Shorten(Name, 1);
    const Loaded loaded = Load();
    EXPECT_TRUE(loaded.exists);
    EXPECT_EQ(loaded.displacements, Zeros) << std::filesystem::file_size(Name);
  }
  EXPECT_EQ(Log(), "");
}

TEST_F(Fenod, LongerFileIsAcceptedWithItsExtraValuesUnread) {
  Save();
  WriteFile(Name, ReadFile(Name) + Bytes(9.0f));
  EXPECT_EQ(Load().displacements[4], 5.5);
}

TEST_F(Fenod, HeaderIsNotComparedWithTheModel) {
  Save();
  WriteFile(Name, Header(-4, 1 << 30) + ReadFile(Name).substr(8));
  EXPECT_EQ(Load().displacements[4], 5.5);
}

TEST_F(Fenod, UndefinedValuesTravel) {
  std::vector<double> displacements = Solution;
  displacements[0] = std::numeric_limits<double>::quiet_NaN();
  Save(displacements);
  EXPECT_TRUE(std::isnan(Load().displacements[0]));
}

TEST_F(Fenod, ModelWithoutNodesSavesTheHeaderAlone) {
  FEMODEL::NumNodes = 0;
  FEDOF::NumEquations = 0;
  Save();
  EXPECT_EQ(ReadFile(Name), Header(1, 0));
  EXPECT_TRUE(Load().exists);
}

TEST_F(Fenod, SavingReplacesAnOldFile) {
  WriteFile(Name, std::string(5000, 'x'));
  Save();
  EXPECT_EQ(ReadFile(Name).size(), 8u + 36u);
}

TEST_F(Fenod, AnyNumberOfThreadsGivesTheSameFileAndVector) {
  std::vector<std::int32_t> map;
  std::vector<double> displacements;
  for (std::int32_t i = 0; i < 3000; ++i) {
    const bool isFree = i % 7 != 0;
    if (isFree) displacements.push_back(std::sin(i));
    map.push_back(isFree ? static_cast<std::int32_t>(displacements.size()) : 0);
  }
  SetMap(map);
  FEDOF::NumEquations = static_cast<std::int32_t>(displacements.size());
  const int before = omp_get_max_threads();
  omp_set_num_threads(1);
  Save(displacements);
  const std::string serialFile = ReadFile(Name);
  const std::vector<double> serialVector = Load().displacements;
  omp_set_num_threads(4);
  Save(displacements);
  EXPECT_EQ(ReadFile(Name), serialFile);
  EXPECT_EQ(Load().displacements, serialVector);
  omp_set_num_threads(before);
}

TEST_F(Fenod, SavingIntoADirectoryIsAnOpeningError) {
  MakeDirectory(Name);
  EXPECT_ABORT(Save(), "Error opening file: ws.sstate.0001");
}

TEST_F(Fenod, SavingToAFullDeviceIsAFlushingError) {
  MakeLink("/dev/full", Name);
  EXPECT_ABORT(Save(), "Error flushing file unit: 400");
}

TEST_F(Fenod, FailedCloseInSavingIsTold) {
  EXPECT_ABORT((FailingClose = 1, Save()), "Error closing file unit: 400");
}

TEST_F(Fenod, FailedCloseInLoadingIsTold) {
  Save();
  EXPECT_ABORT((FailingClose = 1, Load()), "Error closing fileunit: 200");
}

TEST_F(Fenod, FailedAllocationInSavingIsToldAndWritesNothing) {
  EXPECT_ABORT((ARRAYS::LargestBytes = 35, Save()), "Error allocating arrays.");
  EXPECT_FALSE(Exists(Name));
}

TEST_F(Fenod, FailedAllocationInLoadingIsTold) {
  Save();
  EXPECT_ABORT((ARRAYS::LargestBytes = 35, Load()), "Error allocating arrays.");
}
