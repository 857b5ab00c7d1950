#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "platform/process.hpp"
#include "platform/stream.hpp"
#include "support/working_directory.hpp"

namespace {

class Stream : public WorkingDirectory {
 protected:
  void TearDown() override {
    CloseQuietly(stream);
    WorkingDirectory::TearDown();
  }

  FileStream stream;
};

bool Write(FileStream& stream, const std::string& text) {
  return STREAM_WRITE(stream, text.data(), static_cast<std::int64_t>(text.size()));
}

bool Replace(const std::string& name, const std::string& text) {
  FileStream stream;
  return STREAM_OPENREPLACE(stream, name) && Write(stream, text) && STREAM_FLUSH(stream) &&
         STREAM_CLOSE(stream);
}

// How many files lie beside `name` that have the form of one replacing it.
int Beside(const std::string& name) {
  int found = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("."))
    if (STREAM_REPLACEDBY(entry.path().filename().string()) == name) ++found;
  return found;
}

mode_t ModeOf(const std::string& name) {
  struct stat info = {};
  EXPECT_EQ(::lstat(name.c_str(), &info), 0);
  return info.st_mode & 07777;
}

// Replaces "flags" and is killed before step `step` of open, write, flush, close.
void KillReplacementBefore(int step) {
  const pid_t child = ::fork();
  if (child == 0) {
    FileStream stream;
    auto next = [&, done = 0]() mutable {
      if (done++ == step) ::raise(SIGKILL);
    };
    next();
    STREAM_OPENREPLACE(stream, "flags");
    next();
    Write(stream, "the new content");
    next();
    STREAM_FLUSH(stream);
    next();
    STREAM_CLOSE(stream);
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ASSERT_EQ(WIFSIGNALED(status), step < 4);
}

// No file of this process can grow beyond `bytes` while one of these lives: a full disk in small.
struct SizeLimit {
  explicit SizeLimit(rlim_t bytes) {
    handler = std::signal(SIGXFSZ, SIG_IGN);
    ::getrlimit(RLIMIT_FSIZE, &before);
    rlimit limit = before;
    limit.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~SizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handler);
  }
  SizeLimit(const SizeLimit&) = delete;
  SizeLimit& operator=(const SizeLimit&) = delete;

  rlimit before = {};
  void (*handler)(int) = nullptr;
};

}  // namespace

TEST_F(Stream, RegularFilesAndLinksToThemExist) {
  WriteFile("file", "");
  MakeLink("file", "link");
  EXPECT_TRUE(STREAM_EXISTS("file"));
  EXPECT_TRUE(STREAM_EXISTS("link"));
}

TEST_F(Stream, MissingFilesDirectoriesDevicesAndDanglingLinksDoNotExist) {
  MakeDirectory("directory");
  MakeLink("nowhere", "dangling");
  WriteFile("file", "");
  EXPECT_FALSE(STREAM_EXISTS("missing"));
  EXPECT_FALSE(STREAM_EXISTS("directory"));
  EXPECT_FALSE(STREAM_EXISTS("/dev/null"));
  EXPECT_FALSE(STREAM_EXISTS("dangling"));
  EXPECT_FALSE(STREAM_EXISTS("missing/file"));
  EXPECT_FALSE(STREAM_EXISTS("file/in it"));
}

TEST_F(Stream, WhatCannotBeLookedAtCountsAsThereAndFailsToOpen) {
  MakeLink("round", "round");
  const std::string tooLong(300, 'x');
  EXPECT_TRUE(STREAM_EXISTS("round"));
  EXPECT_FALSE(STREAM_OPENREAD(stream, "round"));
  EXPECT_EQ(stream.reason, "Too many levels of symbolic links");
  EXPECT_TRUE(STREAM_EXISTS(tooLong));
  EXPECT_FALSE(STREAM_OPENREAD(stream, tooLong));
}

TEST_F(Stream, FileExistsWhereNoDescriptorIsLeftToOpenIt) {
  WriteFile("file", "");
  rlimit before = {};
  ::getrlimit(RLIMIT_NOFILE, &before);
  rlimit none = before;
  none.rlim_cur = 0;
  ::setrlimit(RLIMIT_NOFILE, &none);
  const bool exists = STREAM_EXISTS("file"), opened = STREAM_OPENREAD(stream, "file");
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_TRUE(exists);
  EXPECT_FALSE(opened);
  EXPECT_EQ(stream.reason, "Too many open files");
}

TEST_F(Stream, DirectoriesAndDevicesCannotBeOpenedForReading) {
  MakeDirectory("directory");
  EXPECT_FALSE(STREAM_OPENREAD(stream, "directory"));
  EXPECT_FALSE(STREAM_OPENREAD(stream, "/dev/zero"));
}

TEST_F(Stream, PipeWithoutAWriterIsRefusedInsteadOfWaitedFor) {
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  EXPECT_FALSE(STREAM_EXISTS("pipe"));
  EXPECT_FALSE(STREAM_OPENREAD(stream, "pipe"));
}

TEST_F(Stream, ReadingGoesOnWhereTheLastReadEnded) {
  WriteFile("file", "abcdef");
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  EXPECT_EQ(stream.length, 6);
  char part[3];
  ASSERT_TRUE(STREAM_READ(stream, part, 3));
  EXPECT_EQ(std::string(part, 3), "abc");
  ASSERT_TRUE(STREAM_READ(stream, part, 3));
  EXPECT_EQ(std::string(part, 3), "def");
  EXPECT_EQ(stream.position, 6);
}

TEST_F(Stream, ReadingBeyondTheEndFails) {
  WriteFile("file", "abc");
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  char part[4];
  EXPECT_FALSE(STREAM_READ(stream, part, 4));
}

TEST_F(Stream, ReadingNothingSucceedsAtTheEnd) {
  WriteFile("file", "");
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  EXPECT_TRUE(STREAM_READ(stream, nullptr, 0));
}

TEST_F(Stream, RowsThatAreLeftInTheFileAreCountedFromThePosition) {
  WriteFile("file", std::string(4 + 2 * 12, 'x'));
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  char head[4];
  ASSERT_TRUE(STREAM_READ(stream, head, 4));
  EXPECT_TRUE(STREAM_HOLDS(stream, 0, 12));
  EXPECT_TRUE(STREAM_HOLDS(stream, 2, 12));
  EXPECT_FALSE(STREAM_HOLDS(stream, 3, 12));
}

TEST_F(Stream, RowCountWhoseSizeOverflowsIsNotHeld) {
  WriteFile("file", "abcdefgh");
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  EXPECT_FALSE(STREAM_HOLDS(stream, std::numeric_limits<std::int64_t>::max(), 1040));
}

TEST_F(Stream, NewFileAppearsAtClosingWithNothingBesideIt) {
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
  ASSERT_TRUE(Write(stream, "new"));
  EXPECT_FALSE(Exists("file"));
  ASSERT_TRUE(STREAM_FLUSH(stream));
  ASSERT_TRUE(STREAM_CLOSE(stream));
  EXPECT_EQ(ReadFile("file"), "new");
  EXPECT_EQ(Beside("file"), 0);
}

TEST_F(Stream, OldContentStaysUntilClosing) {
  WriteFile("file", "the old content");
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
  ASSERT_TRUE(Write(stream, "new"));
  ASSERT_TRUE(STREAM_FLUSH(stream));
  EXPECT_EQ(ReadFile("file"), "the old content");
  ASSERT_TRUE(STREAM_CLOSE(stream));
  EXPECT_EQ(ReadFile("file"), "new");
}

TEST_F(Stream, KillAtAnyStepLeavesTheOldOrTheNewContentWhole) {
  for (int step = 0; step <= 4; ++step) {
    WriteFile("flags", "the old content");
    KillReplacementBefore(step);
    EXPECT_EQ(ReadFile("flags"), step < 4 ? "the old content" : "the new content") << step;
    EXPECT_EQ(STREAM_UNFINISHED().size(), step > 0 && step < 4 ? 1 : 0) << step;
    for (const std::string& name : STREAM_UNFINISHED()) STREAM_REMOVE(name);
    EXPECT_TRUE(Replace("flags", "after the restart")) << step;
    EXPECT_EQ(ReadFile("flags"), "after the restart") << step;
    EXPECT_EQ(Beside("flags"), 0) << step;
  }
}

TEST_F(Stream, TwoWhoReplaceOneFileLeaveItWholeByTheLast) {
  FileStream other;
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
  ASSERT_TRUE(STREAM_OPENREPLACE(other, "file"));
  EXPECT_NE(stream.besideName, other.besideName);
  ASSERT_TRUE(Write(stream, "one") && Write(other, "the other"));
  ASSERT_TRUE(STREAM_FLUSH(stream) && STREAM_CLOSE(stream));
  EXPECT_EQ(ReadFile("file"), "one");
  ASSERT_TRUE(STREAM_FLUSH(other) && STREAM_CLOSE(other));
  EXPECT_EQ(ReadFile("file"), "the other");
  EXPECT_EQ(Beside("file"), 0);
}

TEST_F(Stream, NameOfANewFileTellsWhatItReplaces) {
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "ws.tcval.0001"));
  EXPECT_EQ(STREAM_REPLACEDBY(stream.besideName), "ws.tcval.0001");
  for (const char* name : {"ws.tcval.0001", "ws.tcval.0001~", "ws.tcval.0001~0123456789abcde",
                           "ws.tcval.0001~0123456789ABCDEF", "ws.tcval.0001~0123456789abcdef0",
                           "~0123456789abcdef", "", "ws.tcval.0001-0123456789abcdef"})
    EXPECT_EQ(STREAM_REPLACEDBY(name), "") << name;
}

TEST_F(Stream, OnlyRegularFilesCountAsUnfinished) {
  const std::string ending = "~0123456789abcdef";
  WriteFile("left" + ending, "half of someth");
  WriteFile("mine~", "a user's");
  MakeDirectory("folder" + ending);
  MakeLink("left" + ending, "link" + ending);
  EXPECT_EQ(STREAM_UNFINISHED(), std::vector<std::string>{"left" + ending});
}

TEST_F(Stream, ReplacementIsNeverMoreReadableThanTheReplaced) {
  WriteFile("file", "old");
  ASSERT_EQ(::chmod("file", 0600), 0);
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
  EXPECT_EQ(ModeOf(stream.besideName), mode_t{0600});
}

TEST_F(Stream, ReplacedFileKeepsItsMode) {
  WriteFile("file", "old");
  ASSERT_EQ(::chmod("file", 0640), 0);
  ASSERT_TRUE(Replace("file", "new"));
  EXPECT_EQ(ModeOf("file"), mode_t{0640});
}

TEST_F(Stream, ReplacedFileKeepsItsOwnerWhereTheProcessMaySetIt) {
  WriteFile("file", "old");
  const uid_t owner = ::geteuid() == 0 ? 12345 : ::geteuid();
  ASSERT_EQ(::chown("file", owner, static_cast<gid_t>(-1)), 0);
  ASSERT_TRUE(Replace("file", "new"));
  struct stat info = {};
  ASSERT_EQ(::stat("file", &info), 0);
  EXPECT_EQ(info.st_uid, owner);
}

TEST_F(Stream, WriteProtectedFileIsReplacedOnlyByThoseWhoMayOverwriteIt) {
  WriteFile("file", "old");
  ASSERT_EQ(::chmod("file", 0), 0);
  EXPECT_EQ(Replace("file", "new"), ::geteuid() == 0);
  EXPECT_EQ(ModeOf("file"), mode_t{0});
}

TEST_F(Stream, LinkStaysALinkWhoseTargetIsReplacedAtClosing) {
  MakeDirectory("folder");
  WriteFile("folder/target", "a longer old content");
  MakeLink("folder/target", "link");
  ASSERT_EQ(::chmod("folder/target", 0640), 0);
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "link"));
  ASSERT_TRUE(Write(stream, "new"));
  EXPECT_EQ(ReadFile("folder/target"), "a longer old content");
  EXPECT_TRUE(stream.besideName.starts_with("folder/link~")) << stream.besideName;
  ASSERT_TRUE(STREAM_FLUSH(stream) && STREAM_CLOSE(stream));
  EXPECT_TRUE(std::filesystem::is_symlink("link"));
  EXPECT_EQ(ReadFile("link"), "new");
  EXPECT_EQ(ReadFile("folder/target"), "new");
  EXPECT_EQ(ModeOf("folder/target"), mode_t{0640});
  EXPECT_EQ(Beside("link"), 0);
}

TEST_F(Stream, LinksBehindLinksAreFollowedFromWhereTheyLie) {
  MakeDirectory("one");
  MakeDirectory("two");
  WriteFile("two/target", "old");
  MakeLink("one/next", "link");
  MakeLink("../two/target", "one/next");
  ASSERT_TRUE(Replace("link", "new"));
  EXPECT_TRUE(std::filesystem::is_symlink("link") && std::filesystem::is_symlink("one/next"));
  EXPECT_EQ(ReadFile("two/target"), "new");
}

TEST_F(Stream, AbsoluteLinkIsFollowed) {
  MakeDirectory("folder");
  MakeLink((std::filesystem::current_path() / "folder/target").string(), "link");
  ASSERT_TRUE(Replace("link", "new"));
  EXPECT_EQ(ReadFile("folder/target"), "new");
}

TEST_F(Stream, FileThatADanglingLinkNamesIsMade) {
  MakeLink("target", "link");
  ASSERT_TRUE(Replace("link", "new"));
  EXPECT_TRUE(std::filesystem::is_symlink("link"));
  EXPECT_EQ(ReadFile("target"), "new");
}

TEST_F(Stream, TargetWithANameAsLongAsNamesCanBeIsReplaced) {
  const std::string longest(255, 'x');
  WriteFile(longest, "old");
  MakeLink(longest, "link");
  ASSERT_TRUE(Replace("link", "new"));
  EXPECT_EQ(ReadFile(longest), "new");
}

TEST_F(Stream, LinksThatLeadNowhereAreRefusedForAReason) {
  MakeLink("round", "round");
  MakeLink("missing/target", "astray");
  WriteFile("file", "keep");
  MakeLink("file/target", "into a file");
  EXPECT_FALSE(STREAM_OPENREPLACE(stream, "round"));
  EXPECT_EQ(stream.reason, "Too many levels of symbolic links");
  EXPECT_FALSE(STREAM_OPENREPLACE(stream, "astray"));
  EXPECT_EQ(stream.reason, "No such file or directory");
  EXPECT_FALSE(STREAM_OPENREPLACE(stream, "into a file"));
  EXPECT_EQ(stream.reason, "Not a directory");
}

TEST_F(Stream, DirectoryPipeAndSocketAreNotReplacedNorWaitedFor) {
  MakeDirectory("directory");
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  ASSERT_EQ(::mknod("socket", S_IFSOCK | 0600, 0), 0);
  for (const std::string kind : {"directory", "pipe", "socket"}) {
    MakeLink(kind, "link to " + kind);
    for (const std::string& name : {kind, "link to " + kind}) {
      EXPECT_FALSE(STREAM_OPENREPLACE(stream, name));
      EXPECT_EQ(stream.reason, "it is a " + kind);
      EXPECT_FALSE(STREAM_OPENDIRECT(stream, name));
      EXPECT_EQ(stream.reason, "it is a " + kind);
      EXPECT_EQ(Beside(name), 0);
    }
  }
  EXPECT_TRUE(std::filesystem::is_fifo("pipe"));
}

TEST_F(Stream, PipeThatIsReadIsRefusedAllTheSame) {
  ASSERT_EQ(::mkfifo("pipe", 0600), 0);
  const int reader = ::open("pipe", O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  EXPECT_FALSE(STREAM_OPENREPLACE(stream, "pipe"));
  EXPECT_FALSE(STREAM_OPENDIRECT(stream, "pipe"));
  ::close(reader);
}

TEST_F(Stream, FileInAMissingDirectoryCannotBeReplaced) {
  EXPECT_FALSE(STREAM_OPENREPLACE(stream, "missing/file"));
}

TEST_F(Stream, DeviceIsWrittenThrough) {
  MakeLink("/dev/null", "link");
  EXPECT_TRUE(Replace("link", "new"));
  EXPECT_TRUE(std::filesystem::is_symlink("link"));
}

TEST_F(Stream, FullDeviceOpensAndFailsAtTheFlush) {
  MakeLink("/dev/full", "link");
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "link"));
  EXPECT_FALSE(Write(stream, "new"));
  EXPECT_FALSE(STREAM_FLUSH(stream));
  EXPECT_EQ(stream.reason, "No space left on device");
}

TEST_F(Stream, FullDiskFailsAtTheFlushAndLeavesOnlyTheOldFile) {
  WriteFile("file", "old");
  {
    const SizeLimit limit(8);
    ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
    EXPECT_FALSE(Write(stream, "more than eight bytes"));
    EXPECT_FALSE(STREAM_FLUSH(stream));
  }
  EXPECT_EQ(stream.reason, "File too large");
  EXPECT_EQ(ReadFile("file"), "old");
  EXPECT_EQ(Beside("file"), 0);
}

TEST_F(Stream, ClosingAfterAFailedWriteReplacesNothing) {
  WriteFile("file", "old");
  {
    const SizeLimit limit(8);
    ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
    EXPECT_FALSE(Write(stream, "more than eight bytes"));
    EXPECT_FALSE(STREAM_CLOSE(stream));
  }
  EXPECT_EQ(ReadFile("file"), "old");
}

TEST_F(Stream, TargetThatTurnsIntoADirectoryFailsAtClosing) {
  ASSERT_TRUE(STREAM_OPENREPLACE(stream, "file"));
  ASSERT_TRUE(Write(stream, "new"));
  ASSERT_TRUE(STREAM_FLUSH(stream));
  MakeDirectory("file");
  EXPECT_FALSE(STREAM_CLOSE(stream));
  EXPECT_EQ(stream.reason, "Is a directory");
  EXPECT_EQ(Beside("file"), 0);
}

TEST_F(Stream, ClosingADescriptorThatIsGoneFails) {
  WriteFile("file", "x");
  ASSERT_TRUE(STREAM_OPENREAD(stream, "file"));
  ::close(stream.descriptor);
  EXPECT_FALSE(STREAM_CLOSE(stream));
  EXPECT_EQ(stream.reason, "Bad file descriptor");
}

TEST_F(Stream, FolderOfAFileCanBeSynced) {
  MakeDirectory("folder");
  WriteFile("folder/file", "");
  std::string reason;
  EXPECT_TRUE(STREAM_SYNCFOLDER("file", reason));
  EXPECT_TRUE(STREAM_SYNCFOLDER("folder/file", reason));
  EXPECT_EQ(reason, "");
}

TEST_F(Stream, FolderThatIsGoneCannotBeSyncedForAReason) {
  std::string reason;
  EXPECT_FALSE(STREAM_SYNCFOLDER("gone/file", reason));
  EXPECT_EQ(reason, "No such file or directory");
}

TEST_F(Stream, FolderThatHasNothingToSyncIsNoFailure) {
  std::string reason;
  EXPECT_TRUE(STREAM_SYNCFOLDER("/proc/self/file", reason)) << reason;
}

TEST_F(Stream, DirectWritesAreSeenAtOnce) {
  WriteFile("log", "an old log");
  ASSERT_TRUE(STREAM_OPENDIRECT(stream, "log"));
  EXPECT_EQ(ReadFile("log"), "");
  ASSERT_TRUE(Write(stream, "one\n"));
  EXPECT_EQ(ReadFile("log"), "one\n");
  ASSERT_TRUE(Write(stream, "two\n"));
  EXPECT_EQ(ReadFile("log"), "one\ntwo\n");
}

TEST_F(Stream, WriteIsOneSystemCall) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_DIRECT), 0);  // each write arrives as a packet of its own
  stream.descriptor = ends[1];
  ASSERT_TRUE(Write(stream, "a whole line\n"));
  ASSERT_TRUE(Write(stream, "and another\n"));
  char packet[64];
  EXPECT_EQ(::read(ends[0], packet, sizeof packet), 13);
  EXPECT_EQ(::read(ends[0], packet, sizeof packet), 12);
  ::close(ends[0]);
}
