#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <string>
#include <vector>

#include "model/fileio.hpp"
#include "support/close_fault.hpp"
#include "support/working_directory.hpp"

namespace {

using Fileio = WorkingDirectory;

constexpr int Read = FILEIO::ReadUnit;
constexpr int Write = FILEIO::WriteUnit;

void WriteAndClose(const std::string& name, std::int32_t value) {
  FILEIO_OPENWRITE(Write, name);
  FILEIO_WRITEVALUE(value);
  FILEIO_FLUSHCLOSE(Write);
}

void ReadValueOf(const std::string& name) {
  FILEIO_OPENREAD(Read, name);
  FILEIO_READVALUE<std::int32_t>();
}

template <class T>
void ReadTableOf(const std::string& name) {
  std::int32_t count = 0;
  FILEIO_OPENREAD(Read, name);
  FILEIO_READTABLE<T>(count);
}

void FailClosing(const std::string& name) {
  FILEIO_OPENREAD(Read, name);
  FailingClose = 1;
  FILEIO_CLOSEREAD(Read);
}

void FailClosingWritten(const std::string& name) {
  FILEIO_OPENWRITE(Write, name);
  FailingClose = 1;
  FILEIO_FLUSHCLOSE(Write);
}

}  // namespace

TEST_F(Fileio, MissingFileAbortsWithItsTrimmedName) {
  EXPECT_ABORT(FILEIO_OPENREAD(Read, "mx.mats   "), "Error opening file: mx.mats");
}

TEST_F(Fileio, DirectoryOrDeviceInPlaceOfAnInputFileIsAnOpeningError) {
  MakeDirectory("mx.mats");
  MakeLink("/dev/zero", "mx.nodes");
  EXPECT_ABORT(FILEIO_OPENREAD(Read, "mx.mats"), "Error opening file: mx.mats");
  EXPECT_ABORT(FILEIO_OPENREAD(Read, "mx.nodes"), "Error opening file: mx.nodes");
}

TEST_F(Fileio, TrailingBlanksOfNamesAreNoPartOfThem) {
  FILEIO_OPENWRITE(Write, "ws.name.0001      ");
  FILEIO_FLUSHCLOSE(Write);
  EXPECT_TRUE(Exists("ws.name.0001"));
  FILEIO_OPENREAD(Read, "ws.name.0001      ");
  FILEIO_CLOSEREAD(Read);
}

TEST_F(Fileio, ValuesAreReadItemByItemWithoutMarks) {
  WriteFile("file", Bytes(std::int32_t{7}) + Bytes(std::int16_t{-2}) + Bytes(1.5f));
  FILEIO_OPENREAD(Read, "file");
  EXPECT_EQ(FILEIO_READVALUE<std::int32_t>(), 7);
  EXPECT_EQ(FILEIO_READVALUE<std::int16_t>(), -2);
  EXPECT_EQ(FILEIO_READVALUE<float>(), 1.5f);
  FILEIO_CLOSEREAD(Read);
}

TEST_F(Fileio, TableIsItsCountAndItsRows) {
  WriteFile("file", Table(std::vector<std::int16_t>{5, 6, 7}) + Bytes(std::int32_t{9}));
  FILEIO_OPENREAD(Read, "file");
  std::int32_t count = 0;
  const auto rows = FILEIO_READTABLE<std::int16_t>(count);
  ASSERT_EQ(count, 3);
  EXPECT_EQ(rows[0], 5);
  EXPECT_EQ(rows[2], 7);
  EXPECT_EQ(FILEIO_READVALUE<std::int32_t>(), 9);
}

TEST_F(Fileio, TableOfCountZeroOrLessHasNoBytes) {
  WriteFile("file", Bytes(std::int32_t{0}) + Bytes(std::int32_t{-3}) + Bytes(std::int32_t{9}));
  FILEIO_OPENREAD(Read, "file");
  std::int32_t count = 1;
  EXPECT_TRUE(FILEIO_READTABLE<double>(count));
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(FILEIO_READTABLE<double>(count));
  EXPECT_EQ(count, -3);
  EXPECT_EQ(FILEIO_READVALUE<std::int32_t>(), 9);
}

TEST_F(Fileio, FileThatEndsInsideAValueIsAReadingError) {
  WriteFile("mx.mats", "abc");
  EXPECT_ABORT(ReadValueOf("mx.mats"), "Error reading file: mx.mats");
}

TEST_F(Fileio, FileThatEndsInsideItsRowsIsAReadingError) {
  WriteFile("mx.mats", Table(std::vector<float>{1, 2, 3}));
  Shorten("mx.mats", 1);
  EXPECT_ABORT(ReadTableOf<float>("mx.mats"), "Error reading file: mx.mats");
}

TEST_F(Fileio, CorruptCountIsAReadingErrorBeforeAnythingIsAllocated) {
  WriteFile("mx.mats", Bytes(std::numeric_limits<std::int32_t>::max()) + "few bytes");
  EXPECT_ABORT((ARRAYS::LargestBytes = 16, ReadTableOf<double>("mx.mats")),
               "Error reading file: mx.mats");
}

TEST_F(Fileio, ArrayThatCannotBeAllocatedIsAnAllocationError) {
  WriteFile("mx.mats", Table(std::vector<double>{1, 2, 3}));
  EXPECT_ABORT((ARRAYS::LargestBytes = 16, ReadTableOf<double>("mx.mats")),
               "Error allocating arrays.");
}

TEST_F(Fileio, FailedCloseOfAFileThatWasReadTellsTheUnit) {
  WriteFile("file", "x");
  EXPECT_ABORT(FailClosing("file"), "Error closing fileunit: 200");
}

TEST_F(Fileio, FailedCloseOfAFileThatWasWrittenTellsTheUnit) {
  EXPECT_ABORT(FailClosingWritten("file"), "Error closing file unit: 400");
  EXPECT_FALSE(Exists("file"));
}

TEST_F(Fileio, FullDeviceIsAFlushingErrorThatTellsTheUnit) {
  MakeLink("/dev/full", "ws.disval.0001");
  EXPECT_ABORT(WriteAndClose("ws.disval.0001", 1), "Error flushing file unit: 400");
}

TEST_F(Fileio, DirectoryInPlaceOfAnOutputFileIsAnOpeningError) {
  MakeDirectory("ws.disval.0001");
  EXPECT_ABORT(WriteAndClose("ws.disval.0001  ", 1), "Error opening file: ws.disval.0001");
}

TEST_F(Fileio, FoldersOfReplacedFilesAreSyncedOnceEachAndThenForgotten) {
  MakeDirectory("folder");
  MakeLink("folder/target", "ws.disval.0002");
  for (const char* name : {"ws.disval.0001", "ws.disval.0002", "ws.disval.0003"})
    WriteAndClose(name, 1);
  EXPECT_EQ(FILEIO::UnsyncedFolders, (std::vector<std::string>{"ws.disval.0001", "folder/target"}));
  FILEIO_SYNCFOLDERS(Write);
  EXPECT_TRUE(FILEIO::UnsyncedFolders.empty());
}

TEST_F(Fileio, FolderThatCannotBeSyncedIsAFlushingErrorThatTellsTheUnit) {
  FILEIO::UnsyncedFolders = {"gone/file"};
  EXPECT_EXIT(FILEIO_SYNCFOLDERS(Write), StopsWith(StopError),
              "1010: Error flushing file unit: 400 .the folder of gone/file: "
              "No such file or directory.\n");
  EXPECT_TRUE(Log().ends_with("Error<Msg:Error flushing file unit: 400>\n"));
}

TEST_F(Fileio, DeviceHasNoFolderToSync) {
  MakeLink("/dev/null", "ws.disval.0001");
  WriteAndClose("ws.disval.0001", 1);
  EXPECT_TRUE(FILEIO::UnsyncedFolders.empty());
}

TEST_F(Fileio, OnlyWhatReplacedAFileOfTheProgramIsClearedAway) {
  const std::string digits = "~0123456789abcdef";
  for (const char* name : {"mxs.lcflags", "ws.sstate.0001", "ws.comval.****", "mxs.lcmap.0001",
                           "ws.sstate.001", "ws.sstate.0001x", "mine", "mx.nodes"})
    WriteFile(name + digits, "half of someth");
  FILEIO_CLEARUNFINISHED();
  for (const char* name : {"mxs.lcflags", "ws.sstate.0001", "ws.comval.****"})
    EXPECT_FALSE(Exists(name + digits)) << name;
  for (const char* name :
       {"mxs.lcmap.0001", "ws.sstate.001", "ws.sstate.0001x", "mine", "mx.nodes"})
    EXPECT_TRUE(Exists(name + digits)) << name;
}

TEST_F(Fileio, WrittenValuesAndArraysAreReadBack) {
  const float values[3] = {1.0f, 2.0f, 3.0f};
  FILEIO_OPENWRITE(Write, "file");
  FILEIO_WRITEVALUE(std::int32_t{3});
  FILEIO_WRITEARRAY(values, 3);
  FILEIO_WRITEARRAY(values, 0);
  FILEIO_WRITEARRAY(values, -1);
  FILEIO_FLUSHCLOSE(Write);
  EXPECT_EQ(ReadFile("file"), Table(std::vector<float>{1.0f, 2.0f, 3.0f}));
}

TEST_F(Fileio, InvalidIndexNamesTheFile) {
  EXPECT_ABORT(FILEIO_INVALIDINDEX("mx.elems"), "Invalid index in file: mx.elems");
}

TEST_F(Fileio, NumberedNamesHaveFourDigitsWithLeadingZeros) {
  EXPECT_EQ(FILEIO_NUMBEREDNAME("ws.mstate.", 7), "ws.mstate.0007");
  EXPECT_EQ(FILEIO_NUMBEREDNAME("mxs.lcmap.", 1234), "mxs.lcmap.1234");
  EXPECT_EQ(FILEIO_NUMBEREDNAME("mxs.lcmap.", 9999), "mxs.lcmap.9999");
}

TEST_F(Fileio, NumbersThatDoNotFitTheirFieldBecomeAsterisks) {
  EXPECT_EQ(FILEIO_NUMBEREDNAME("ws.mstate.", 10000), "ws.mstate.****");
  EXPECT_EQ(FILEIO_NUMBEREDNAME("ws.mstate.", -1), "ws.mstate.****");
}
