#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <sstream>
#include <string>
#include <thread>

#include "run/services/logger.hpp"
#include "support/working_directory.hpp"

namespace {

using Logger = WorkingDirectory;

std::string LastLine() {
  const std::string log = Log();
  const auto end = log.rfind('\n', log.size() - 2);
  return log.substr(end == std::string::npos ? 0 : end + 1);
}

std::string InfoOf(float value) {
  LOGGER_POSTINF("v:", value);
  return LastLine();
}

std::string DataOf(float value) {
  LOGGER_POSTDATA("v", value);
  return LastLine();
}

constexpr float Infinite = std::numeric_limits<float>::infinity();
constexpr float Undefined = std::numeric_limits<float>::quiet_NaN();

void OpenOn(const std::string& device) {
  CloseQuietly(LOGGER::Stream);
  LOGGER_OPEN(device);
}

void CloseBehindItsBack() { ::close(LOGGER::Stream.descriptor); }

template <class Post>
void PostInThreads(Post post) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(post, t);
  for (std::thread& thread : threads) thread.join();
}

void AbortWhileOthersPost() {
  PostInThreads([](int t) {
    for (int i = 0; i < 1000; ++i) {
      if (t == 2 && i == 100) LOGGER_POSTERRABORT("The last word.");
      LOGGER_POSTINF("line of thread", t);
    }
  });
}

void AbortFromParallelRegion() {
#pragma omp parallel num_threads(4)
  LOGGER_POSTERRABORT("Error allocating arrays.");
}

}  // namespace

TEST_F(Logger, InfoWithoutTailEndsInABlank) {
  LOGGER_POSTINF("Tool.vk_rund.Start");
  EXPECT_EQ(Log(), "Info<Msg:Tool.vk_rund.Start >\n");
}

TEST_F(Logger, TrailingBlanksOfTheMessageGiveWayToTheOneOfTheFrame) {
  LOGGER_POSTINF("LCasePatInx:   ", 2);
  EXPECT_EQ(Log(), "Info<Msg:LCasePatInx: 2>\n");
}

TEST_F(Logger, LeadingAndInnerBlanksOfTheMessageStay) {
  LOGGER_POSTINF("  a  b ");
  EXPECT_EQ(Log(), "Info<Msg:  a  b >\n");
}

TEST_F(Logger, MessageOfBlanksIsEmpty) {
  LOGGER_POSTINF("   ");
  LOGGER_POSTWARN("   ");
  EXPECT_EQ(Log(), "Info<Msg: >\nWarning<Msg:>\n");
}

TEST_F(Logger, IntegersTakeTheShortestWidthAndTheirSign) {
  LOGGER_POSTINF("n:", 0);
  LOGGER_POSTINF("n:", -17);
  LOGGER_POSTINF("n:", std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Log(), "Info<Msg:n: 0>\nInfo<Msg:n: -17>\nInfo<Msg:n: -2147483648>\n");
}

TEST_F(Logger, FloatsHaveFiveDecimalsAndNoBlanks) {
  EXPECT_EQ(InfoOf(12.345f), "Info<Msg:v: 12.34500>\n");
  EXPECT_EQ(InfoOf(0.5f), "Info<Msg:v: 0.50000>\n");
  EXPECT_EQ(InfoOf(-0.5f), "Info<Msg:v: -0.50000>\n");
  EXPECT_EQ(InfoOf(0.0f), "Info<Msg:v: 0.00000>\n");
}

TEST_F(Logger, FloatsOfTwelveCharactersJustFit) {
  EXPECT_EQ(InfoOf(999999.875f), "Info<Msg:v: 999999.87500>\n");
  EXPECT_EQ(InfoOf(-99999.875f), "Info<Msg:v: -99999.87500>\n");
}

TEST_F(Logger, FloatsThatDoNotFitTheirFieldBecomeAsterisks) {
  EXPECT_EQ(InfoOf(1000000.0f), "Info<Msg:v: ************>\n");
  EXPECT_EQ(InfoOf(-100000.0f), "Info<Msg:v: ************>\n");
  EXPECT_EQ(InfoOf(std::numeric_limits<float>::max()), "Info<Msg:v: ************>\n");
}

TEST_F(Logger, UndefinedAndInfiniteValuesPrintAsWords) {
  EXPECT_EQ(InfoOf(Undefined), "Info<Msg:v: NaN>\n");
  EXPECT_EQ(InfoOf(-Undefined), "Info<Msg:v: NaN>\n");
  EXPECT_EQ(InfoOf(Infinite), "Info<Msg:v: Infinity>\n");
  EXPECT_EQ(InfoOf(-Infinite), "Info<Msg:v: -Infinity>\n");
  EXPECT_EQ(DataOf(Undefined), "Data<Key:v><Value:NaN>\n");
  EXPECT_EQ(DataOf(Infinite), "Data<Key:v><Value:Infinity>\n");
  EXPECT_EQ(DataOf(-Infinite), "Data<Key:v><Value:-Infinity>\n");
}

TEST_F(Logger, IntegerAndFloatStandWithASlashBetween) {
  LOGGER_POSTINF("message", 3, 0.25f);
  EXPECT_EQ(Log(), "Info<Msg:message 3 / 0.25000>\n");
}

TEST_F(Logger, DataWithAnInteger) {
  LOGGER_POSTDATA("LCaseId  ", 3);
  LOGGER_POSTDATA("zero", 0);
  EXPECT_EQ(Log(), "Data<Key:LCaseId><Value:3>\nData<Key:zero><Value:0>\n");
}

TEST_F(Logger, DataWithAFloatHasOneDigitBeforeThePointAndATwoDigitExponent) {
  EXPECT_EQ(DataOf(1.0f), "Data<Key:v><Value:1.000000E+00>\n");
  EXPECT_EQ(DataOf(0.0f), "Data<Key:v><Value:0.000000E+00>\n");
  EXPECT_EQ(DataOf(-123.456f), "Data<Key:v><Value:-1.234560E+02>\n");
  EXPECT_EQ(DataOf(1.5e-30f), "Data<Key:v><Value:1.500000E-30>\n");
  EXPECT_EQ(DataOf(-std::numeric_limits<float>::max()), "Data<Key:v><Value:-3.402823E+38>\n");
}

TEST_F(Logger, DataWithoutAValueIsEmpty) {
  LOGGER_POSTDATA("key");
  EXPECT_EQ(Log(), "Data<Key:key><Value:>\n");
}

TEST_F(Logger, WarningHasNoTail) {
  LOGGER_POSTWARN("Convergence problems in static response analysis process. ");
  EXPECT_EQ(Log(), "Warning<Msg:Convergence problems in static response analysis process.>\n");
}

TEST_F(Logger, ErrorIsTheLastLineOfTheLogAndStopsWith1010) {
  EXPECT_EXIT((LOGGER_POSTWARN("before"), LOGGER_POSTERRABORT("Error allocating arrays. ")),
              StopsWith(StopError), "1010: Error allocating arrays.\n");
  EXPECT_EQ(Log(), "Warning<Msg:before>\nError<Msg:Error allocating arrays.>\n");
}

TEST_F(Logger, ErrorCodeStandsBehindTheTrimmedMessage) {
  EXPECT_EXIT(LOGGER_POSTERRABORT("Error closing fileunit: ", 200), StopsWith(StopError),
              "1010: Error closing fileunit: 200\n");
  EXPECT_EQ(Log(), "Error<Msg:Error closing fileunit: 200>\n");
}

TEST_F(Logger, ErrorCodeZeroPrints) {
  EXPECT_EXIT(LOGGER_POSTERRABORT("message", 0), StopsWith(StopError), "");
  EXPECT_EQ(Log(), "Error<Msg:message 0>\n");
}

TEST_F(Logger, HintGoesToStandardErrorAndNotToTheLog) {
  EXPECT_EXIT((LOGGER::StopHint = "equation 12", LOGGER_POSTERRABORT("message")),
              StopsWith(StopError), "1010: message \\(equation 12\\)\n");
  EXPECT_EQ(Log(), "Error<Msg:message>\n");
}

TEST_F(Logger, OpeningReplacesAnOldLog) {
  LOGGER_POSTINF("of the run before");
  OpenOn(LogName);
  EXPECT_EQ(Log(), "");
}

TEST_F(Logger, LinesAreInTheFileBeforeTheLogIsClosed) {
  LOGGER_POSTINF("one");
  EXPECT_EQ(Log(), "Info<Msg:one >\n");
  LOGGER_CLOSE();
  EXPECT_EQ(Log(), "Info<Msg:one >\n");
}

TEST_F(Logger, EachLineIsOneSystemCall) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_DIRECT), 0);  // each write arrives as a packet of its own
  CloseQuietly(LOGGER::Stream);
  LOGGER::Stream.descriptor = ends[1];
  LOGGER_POSTINF("message", 3, 0.25f);
  LOGGER_POSTDATA("key", 1);
  char packet[128];
  EXPECT_EQ(std::string(packet, static_cast<std::size_t>(::read(ends[0], packet, sizeof packet))),
            "Info<Msg:message 3 / 0.25000>\n");
  EXPECT_EQ(std::string(packet, static_cast<std::size_t>(::read(ends[0], packet, sizeof packet))),
            "Data<Key:key><Value:1>\n");
  ::close(ends[0]);
}

TEST_F(Logger, LogThatCannotBeOpenedStopsWith1005) {
  MakeDirectory("directory");
  EXPECT_EXIT(OpenOn("directory"), StopsWith(StopLog),
              "1005: cannot open the log \"directory\" .it is a directory.\n");
}

TEST_F(Logger, EveryFrameStopsWith1005WhenItCannotBeWritten) {
  EXPECT_EXIT((OpenOn("/dev/full"), LOGGER_POSTINF("m")), StopsWith(StopLog),
              "1005: cannot write the log");
  EXPECT_EXIT((OpenOn("/dev/full"), LOGGER_POSTDATA("k", 1)), StopsWith(StopLog), "cannot write");
  EXPECT_EXIT((OpenOn("/dev/full"), LOGGER_POSTWARN("m")), StopsWith(StopLog), "cannot write");
}

TEST_F(Logger, ErrorThatCannotBeWrittenStopsWith1005) {
  EXPECT_EXIT((OpenOn("/dev/full"), LOGGER_POSTERRABORT("m")), StopsWith(StopLog), "cannot write");
  EXPECT_EXIT((OpenOn("/dev/full"), LOGGER_POSTERRABORT("m", 1)), StopsWith(StopLog),
              "cannot write");
}

TEST_F(Logger, FailedFlushStopsWith1005) {
  EXPECT_EXIT((LOGGER::Stream.writeFailed = true, LOGGER_CLOSE()), StopsWith(StopLog),
              "1005: cannot flush the log \"vk_rund_log.txt\"\n");
}

TEST_F(Logger, FailedCloseStopsWith1005) {
  EXPECT_EXIT((CloseBehindItsBack(), LOGGER_CLOSE()), StopsWith(StopLog),
              "1005: cannot close the log \"vk_rund_log.txt\" .Bad file descriptor.\n");
}

TEST_F(Logger, LinesOfManyThreadsNeverInterleave) {
  PostInThreads([](int t) {
    for (int i = 0; i < 250; ++i) LOGGER_POSTINF("thread", t, 0.5f);
  });
  std::istringstream log(Log());
  int counts[4] = {};
  for (std::string line; std::getline(log, line);) {
    ASSERT_EQ(line.size(), std::string("Info<Msg:thread 0 / 0.50000>").size()) << line;
    ++counts[line[16] - '0'];
  }
  for (const int count : counts) EXPECT_EQ(count, 250);
}

TEST_F(Logger, NoThreadWritesBehindTheErrorLine) {
  EXPECT_EXIT(AbortWhileOthersPost(), StopsWith(StopError), "1010: The last word.");
  EXPECT_EQ(LastLine(), "Error<Msg:The last word.>\n");
}

TEST_F(Logger, ErrorFromAParallelRegionIsPostedOnceAndEndsTheProcess) {
  EXPECT_EXIT(AbortFromParallelRegion(), StopsWith(StopError), "1010: Error allocating arrays.");
  EXPECT_EQ(Log(), "Error<Msg:Error allocating arrays.>\n");
}

TEST_F(Logger, LastLineIsAnErrorBehindWhichNobodyPosts) {
  EXPECT_EXIT((LOGGER_POSTWARN("before"), LOGGER_POSTLAST("The end."),
               std::thread(LOGGER_POSTWARN, "behind").detach(), ::usleep(100'000),
               PLATFORM_STOP(StopError, "x")),
              StopsWith(StopError), "");
  EXPECT_EQ(Log(), "Warning<Msg:before>\nError<Msg:The end.>\n");
}

TEST_F(Logger, LastLineOfALogThatIsClosedOrFullIsNone) {
  EXPECT_EXIT((LOGGER_CLOSE(), ::_exit(LOGGER_POSTLAST("The end.") ? 5 : 6)),
              testing::ExitedWithCode(5), "");
  EXPECT_EXIT((OpenOn("/dev/full"), ::_exit(LOGGER_POSTLAST("The end.") ? 5 : 6)),
              testing::ExitedWithCode(6), "");
}

TEST_F(Logger, MessageOfAnyLengthKeepsItsFrame) {
  LOGGER_POSTWARN(std::string(10'000, 'x'));
  const std::string log = Log();
  EXPECT_TRUE(log.starts_with("Warning<Msg:xxx") && log.ends_with("xxx>\n"));
  EXPECT_GT(log.size(), 2000u);
}
