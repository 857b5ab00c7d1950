#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>

#include "platform/process.hpp"
#include "run/services/runopt.hpp"
#include "support/close_fault.hpp"
#include "support/option_lines.hpp"
#include "support/working_directory.hpp"

namespace {

constexpr const char* OptionsName = "vk_rund_cmd.txt";
constexpr const char* OptionList = VK_SOURCE_DIR "/tests/data/option_lines.txt";

using Options = WorkingDirectory;

const VKCORE::RunOptionValues& Read(const std::string& text) {
  VKCORE::RunOptions = VKCORE::RunOptionValues{};
  WriteFile(OptionsName, text);
  RUNOPT_READ(101, OptionsName);
  return VKCORE::RunOptions;
}

void ExpectDefaults(const VKCORE::RunOptionValues& o) {
  EXPECT_EQ(o.AvailableMemGB, 8.0f);
  EXPECT_EQ(o.MaxNumCompThreads, 0);
  EXPECT_EQ(o.ComputationMode, 0);
  EXPECT_EQ(o.SupportStiffness, 1.0f);
  EXPECT_EQ(o.ResponseDumpFac, 0.0f);
  EXPECT_EQ(o.TopCriteriaCode, 0);
  EXPECT_EQ(o.BStressExp, 4);
  EXPECT_EQ(o.YieldStressFac, 1.0f);
  EXPECT_EQ(o.MatSlopeFactor, 500.0f);
}

// The line as a single option, unreadable.
#define EXPECT_BAD_LINE(line)                                            \
  do {                                                                   \
    WriteFile(OptionsName, line "\n");                                   \
    EXPECT_ABORT(RUNOPT_READ(101, OptionsName),                          \
                 "Bad command line: " line " in file: vk_rund_cmd.txt"); \
  } while (false)

std::string Integer(const std::string& text) {
  std::int32_t value = -777;
  return RUNOPT_PARSEINTEGER(text, value) ? std::to_string(value) : "unreadable";
}

// The value that `key` has after a text was read, as the list tells it.
bool HasOutcome(const OptionText& given) {
  const VKCORE::RunOptionValues defaults{};
  const VKCORE::RunOptionValues& read = Read(given.text);
  for (const RUNOPT::AnyOption& any : RUNOPT::Options) {
    const bool good = std::visit(
        [&](const auto& option) {
          const auto value = read.*option.value;
          if (option.key != given.key || given.outcome == "kept")
            return value == defaults.*option.value;
          return value == static_cast<decltype(value)>(std::strtof(given.outcome.c_str(), nullptr));
        },
        any);
    if (!good) return false;
  }
  return true;
}

bool IsFloat(const std::string& text, float expected) {
  float value = -777.0f;
  return RUNOPT_PARSEFLOAT(text, value) && value == expected;
}

bool IsUnreadable(const std::string& text) {
  float value = -777.0f;
  return !RUNOPT_PARSEFLOAT(text, value) && value == -777.0f;
}

}  // namespace

TEST_F(Options, EmptyFileLeavesAllDefaults) { ExpectDefaults(Read("")); }

TEST_F(Options, FileOfCommentsAndBlankLinesLeavesAllDefaults) {
  ExpectDefaults(Read("* Sta.BStressExp=9\n\n   \n   *Sys.ComputationMode=2\n*\n"));
}

TEST_F(Options, EveryKeyReachesItsValue) {
  const auto& o = Read(
      "Sys.AvailableMemGB=12.5\nSys.MaxNumCompThreads=-2\nSys.ComputationMode=1\n"
      "Sta.SupportStiffness=3.5\nSta.ResponseDumpFac=0.25\nSta.TopCriteriaCode=1\n"
      "Sta.BStressExp=7\nSta.YieldStressFac=0.5\nSta.MatSlopeFactor=250\n");
  EXPECT_EQ(o.AvailableMemGB, 12.5f);
  EXPECT_EQ(o.MaxNumCompThreads, -2);
  EXPECT_EQ(o.ComputationMode, 1);
  EXPECT_EQ(o.SupportStiffness, 3.5f);
  EXPECT_EQ(o.ResponseDumpFac, 0.25f);
  EXPECT_EQ(o.TopCriteriaCode, 1);
  EXPECT_EQ(o.BStressExp, 7);
  EXPECT_EQ(o.YieldStressFac, 0.5f);
  EXPECT_EQ(o.MatSlopeFactor, 250.0f);
}

TEST_F(Options, ComputationModeIsClampedToTheThreeModes) {
  EXPECT_EQ(Read("Sys.ComputationMode=7").ComputationMode, 2);
  EXPECT_EQ(Read("Sys.ComputationMode=-1").ComputationMode, 0);
  EXPECT_EQ(Read("Sys.ComputationMode=2").ComputationMode, 2);
}

TEST_F(Options, StressExponentIsClamped) {
  EXPECT_EQ(Read("Sta.BStressExp=0").BStressExp, 1);
  EXPECT_EQ(Read("Sta.BStressExp=30").BStressExp, 24);
  EXPECT_EQ(Read("Sta.BStressExp=24").BStressExp, 24);
}

TEST_F(Options, CriteriaCodeIsClamped) {
  EXPECT_EQ(Read("Sta.TopCriteriaCode=-3").TopCriteriaCode, 0);
  EXPECT_EQ(Read("Sta.TopCriteriaCode=2").TopCriteriaCode, 1);
}

TEST_F(Options, SlopeFactorIsClamped) {
  EXPECT_EQ(Read("Sta.MatSlopeFactor=1").MatSlopeFactor, 10.0f);
  EXPECT_EQ(Read("Sta.MatSlopeFactor=20000").MatSlopeFactor, 10000.0f);
}

TEST_F(Options, StiffnessAndYieldFactorHaveALowerLimitOnly) {
  EXPECT_EQ(Read("Sta.SupportStiffness=-5").SupportStiffness, 0.0f);
  EXPECT_EQ(Read("Sta.SupportStiffness=1e30").SupportStiffness, 1e30f);
  EXPECT_EQ(Read("Sta.YieldStressFac=-0.1").YieldStressFac, 0.0f);
  EXPECT_EQ(Read("Sta.YieldStressFac=50").YieldStressFac, 50.0f);
}

TEST_F(Options, ResponseFactorIsClampedToTheSinglePrecisionValueNearest099) {
  EXPECT_EQ(std::bit_cast<std::uint32_t>(Read("Sta.ResponseDumpFac=1").ResponseDumpFac),
            0x3F7D70A4u);
  EXPECT_EQ(Read("Sta.ResponseDumpFac=-1").ResponseDumpFac, 0.0f);
}

TEST_F(Options, MemoryAndThreadsAreNotLimited) {
  EXPECT_EQ(Read("Sys.AvailableMemGB=-1").AvailableMemGB, -1.0f);
  EXPECT_EQ(Read("Sys.MaxNumCompThreads=1000").MaxNumCompThreads, 1000);
}

TEST_F(Options, BlanksMayStandBeforeTheKeyAndAroundTheEqualsSign) {
  EXPECT_EQ(Read("    Sta.BStressExp  =   9   ").BStressExp, 9);
}

TEST_F(Options, WhatFollowsTheNumberIsIgnored) {
  EXPECT_EQ(Read("Sta.BStressExp=9 of some power").BStressExp, 9);
  EXPECT_EQ(Read("Sta.BStressExp=9,x").BStressExp, 9);
  EXPECT_EQ(Read("Sta.BStressExp=9/2").BStressExp, 9);
}

TEST_F(Options, CommaOrSlashInTheNumbersPlaceLeavesTheOption) {
  EXPECT_EQ(Read("Sta.BStressExp=,9").BStressExp, 4);
  EXPECT_EQ(Read("Sta.BStressExp=/").BStressExp, 4);
  EXPECT_EQ(Read("Sta.MatSlopeFactor=20\nSta.MatSlopeFactor=,").MatSlopeFactor, 20.0f);
}

TEST_F(Options, LineThatMerelyBeginsWithAKeyCountsAsTheKey) {
  EXPECT_EQ(Read("Sta.BStressExponent=3").BStressExp, 3);
}

TEST_F(Options, UnknownKeysAndOtherSpellingsAreIgnored) {
  ExpectDefaults(
      Read("Sta.Unknown=x\nsta.bstressexp=3\nBStressExp=3\nx Sta.BStressExp=3\n"
           "just text\n=\n\tSta.BStressExp=3\n"));
}

TEST_F(Options, FirstEqualsSignCounts) {
  WriteFile(OptionsName, "Sta.BStressExp=5=6\n");
  EXPECT_ABORT(RUNOPT_READ(101, OptionsName),
               "Bad command line: Sta.BStressExp=5=6 in file: vk_rund_cmd.txt");
}

TEST_F(Options, LastOfTwoValuesStays) {
  EXPECT_EQ(Read("Sta.BStressExp=5\nSta.BStressExp=6\n").BStressExp, 6);
}

TEST_F(Options, LinesMayEndLikeThoseOfOtherSystems) {
  const auto& o = Read("Sta.BStressExp=9\r\nSta.MatSlopeFactor=20\r\n");
  EXPECT_EQ(o.BStressExp, 9);
  EXPECT_EQ(o.MatSlopeFactor, 20.0f);
}

TEST_F(Options, LastLineNeedsNoLineEnd) { EXPECT_EQ(Read("\nSta.BStressExp=9").BStressExp, 9); }

TEST_F(Options, LineIsCutAt512Characters) {
  const std::string key = "Sta.BStressExp=";
  const auto padded = [&](std::size_t length) {
    return key + std::string(length - key.size() - 2, ' ') + "12\n";
  };
  EXPECT_EQ(Read(padded(512)).BStressExp, 12);
  EXPECT_EQ(Read(padded(513)).BStressExp, 1);
}

TEST_F(Options, KeyBehindTheCutIsNotSeen) {
  ExpectDefaults(Read(std::string(512, ' ') + "Sta.BStressExp=9\n"));
}

TEST_F(Options, EveryTextOfTheListHasItsOutcome) {
  for (const OptionText& given : OptionTexts(OptionList)) {
    if (given.outcome == "unreadable") continue;
    EXPECT_TRUE(HasOutcome(given)) << given.escaped;
  }
}

TEST_F(Options, NoUnreadableTextOfTheListIsANumber) {
  for (const OptionText& given : OptionTexts(OptionList)) {
    if (given.outcome != "unreadable" || given.text.find('\n') != std::string::npos) continue;
    const std::string line = given.text.substr(0, RUNOPT::LineLength);
    const std::string value = line.substr(line.find('=') + 1);
    const bool isInteger = given.key == "Sta.BStressExp" || given.key == "Sys.MaxNumCompThreads";
    EXPECT_TRUE(isInteger ? Integer(value) == "unreadable" : IsUnreadable(value)) << given.escaped;
  }
}

TEST_F(Options, MissingFileAborts) {
  EXPECT_ABORT(RUNOPT_READ(101, "vk_rund_cmd.txt   "), "Error opening file: vk_rund_cmd.txt");
}

TEST_F(Options, DirectoryInThePlaceOfTheFileAborts) {
  MakeDirectory(OptionsName);
  EXPECT_ABORT(RUNOPT_READ(101, OptionsName), "Error opening file: vk_rund_cmd.txt");
}

TEST_F(Options, UnreadableValueAbortsWithTheTrimmedLine) {
  WriteFile(OptionsName, "   Sta.BStressExp=x   \n");
  EXPECT_ABORT(RUNOPT_READ(101, OptionsName),
               "Bad command line: Sta.BStressExp=x in file: vk_rund_cmd.txt");
}

TEST_F(Options, KeyWithoutEqualsSignAborts) { EXPECT_BAD_LINE("Sta.BStressExp"); }

TEST_F(Options, BlankValueAborts) {
  WriteFile(OptionsName, "Sta.BStressExp=    \n");
  EXPECT_ABORT(RUNOPT_READ(101, OptionsName),
               "Bad command line: Sta.BStressExp= in file: vk_rund_cmd.txt");
}

TEST_F(Options, IntegerKeyTakesNoFloat) {
  EXPECT_BAD_LINE("Sta.BStressExp=3.0");
  EXPECT_BAD_LINE("Sys.ComputationMode=1E0");
}

TEST_F(Options, FloatKeyTakesNoWord) { EXPECT_BAD_LINE("Sta.MatSlopeFactor=steep"); }

TEST_F(Options, NumberTooLargeForItsTypeAborts) {
  EXPECT_BAD_LINE("Sys.MaxNumCompThreads=3000000000");
  EXPECT_BAD_LINE("Sys.AvailableMemGB=1e40");
}

TEST_F(Options, FailedCloseAbortsWithTheName) {
  WriteFile(OptionsName, "Sta.BStressExp=9\n");
  EXPECT_ABORT((FailingClose = 1, RUNOPT_READ(101, OptionsName)),
               "Error closing file: vk_rund_cmd.txt");
}

TEST_F(Options, FailedAllocationAborts) {
  WriteFile(OptionsName, "Sta.BStressExp=9\n");
  EXPECT_ABORT((ARRAYS::LargestBytes = 4, RUNOPT_READ(101, OptionsName)),
               "Error allocating arrays.");
}

TEST(RunoptGrammar, IntegersHaveAnOptionalSignAndDigits) {
  EXPECT_EQ(Integer("12"), "12");
  EXPECT_EQ(Integer("+12"), "12");
  EXPECT_EQ(Integer("-12"), "-12");
  EXPECT_EQ(Integer("007"), "7");
  EXPECT_EQ(Integer("2147483647"), "2147483647");
  EXPECT_EQ(Integer("-2147483648"), "-2147483648");
}

TEST(RunoptGrammar, BlanksAndTabsMayStandBeforeTheNumber) {
  EXPECT_EQ(Integer("  \t 12"), "12");
  EXPECT_TRUE(IsFloat(" \t1.5", 1.5f));
}

TEST(RunoptGrammar, BlankTabCommaAndSlashEndTheNumber) {
  for (const char* end : {" ", "\t", ",", "/", " rest", ",rest", "/rest"}) {
    EXPECT_EQ(Integer("12" + std::string(end)), "12") << end;
    EXPECT_TRUE(IsFloat("1.5" + std::string(end), 1.5f)) << end;
  }
}

TEST(RunoptGrammar, CommaOrSlashInTheNumbersPlaceLeavesTheValue) {
  for (const char* text : {",", "/", "  ,5", "\t/5"}) {
    EXPECT_EQ(Integer(text), "-777") << text;
    EXPECT_TRUE(IsFloat(text, -777.0f)) << text;
  }
}

TEST(RunoptGrammar, EverythingElseIsNoInteger) {
  for (const char* text : {"", "  ", "x", "+", "-", "++1", "+-1", "-+1", "--1", "1x", "1.", "1.0",
                           "0x10", "1E2", "2147483648", "-2147483649", "1;2", "1=2", "- 1"})
    EXPECT_EQ(Integer(text), "unreadable") << text;
}

TEST(RunoptGrammar, FloatsHaveAnOptionalSignPointAndExponent) {
  EXPECT_TRUE(IsFloat("8", 8.0f));
  EXPECT_TRUE(IsFloat("+8", 8.0f));
  EXPECT_TRUE(IsFloat("-8", -8.0f));
  EXPECT_TRUE(IsFloat("0.5", 0.5f));
  EXPECT_TRUE(IsFloat("8.", 8.0f));
  EXPECT_TRUE(IsFloat(".5", 0.5f));
  EXPECT_TRUE(IsFloat("-.5", -0.5f));
  EXPECT_TRUE(IsFloat("0.1", 0.1f));
}

TEST(RunoptGrammar, ExponentsTakeLettersEAndDOfEitherCase) {
  EXPECT_TRUE(IsFloat("1.5E3", 1500.0f));
  EXPECT_TRUE(IsFloat("1.5e3", 1500.0f));
  EXPECT_TRUE(IsFloat("1.5D3", 1500.0f));
  EXPECT_TRUE(IsFloat("1.5d-1", 0.15f));
  EXPECT_TRUE(IsFloat("2.E+2", 200.0f));
  EXPECT_TRUE(IsFloat(".5E1", 5.0f));
  EXPECT_TRUE(IsFloat("8E03", 8000.0f));
}

TEST(RunoptGrammar, ExponentWithASignNeedsNoLetter) {
  EXPECT_TRUE(IsFloat("1.5+3", 1500.0f));
  EXPECT_TRUE(IsFloat("15-1", 1.5f));
}

TEST(RunoptGrammar, TooSmallANumberIsZeroAndTooLargeOneUnreadable) {
  EXPECT_TRUE(IsFloat("1e-60", 0.0f));
  EXPECT_TRUE(IsFloat("3.4e38", 3.4e38f));
  EXPECT_TRUE(IsFloat("0e9999", 0.0f));
  EXPECT_TRUE(IsUnreadable("3.5e38"));
  EXPECT_TRUE(IsUnreadable("1e99999999999"));
}

TEST(RunoptGrammar, EverythingElseIsNoFloat) {
  for (const char* text :
       {"",    "  ",  "x",     ".",        "+",     "-",   "+.",   "E3",   ".E3",
        "1E",  "1E+", "1e+-3", "1E3.5",    "++1",   "+-1", "1..2", "1.5x", "1.5f",
        "nan", "NaN", "inf",   "Infinity", "0x1p3", "1=2", "1;2",  "- 1"})
    EXPECT_TRUE(IsUnreadable(text)) << text;
}

TEST(RunoptTeamSize, RequestZeroTakesAllProcessors) {
  EXPECT_EQ(RUNOPT_TEAMSIZE(0, 8, 1000), 8);
  EXPECT_EQ(RUNOPT_TEAMSIZE(0, 0, 1000), 1);
}

TEST(RunoptTeamSize, PositiveRequestIsAMaximum) {
  EXPECT_EQ(RUNOPT_TEAMSIZE(3, 8, 1000), 3);
  EXPECT_EQ(RUNOPT_TEAMSIZE(12, 8, 1000), 8);
  EXPECT_EQ(RUNOPT_TEAMSIZE(12, 0, 1000), 1);
}

TEST(RunoptTeamSize, NegativeRequestLeavesProcessorsFree) {
  EXPECT_EQ(RUNOPT_TEAMSIZE(-2, 8, 1000), 6);
  EXPECT_EQ(RUNOPT_TEAMSIZE(-8, 8, 1000), 1);
  EXPECT_EQ(RUNOPT_TEAMSIZE(-100, 8, 1000), 1);
  EXPECT_EQ(RUNOPT_TEAMSIZE(std::numeric_limits<std::int32_t>::min(), 8, 1000), 1);
}

TEST(RunoptTeamSize, NeverMoreThanSixteenThreads) {
  EXPECT_EQ(RUNOPT_TEAMSIZE(100, 32, 1000), 16);
  EXPECT_EQ(RUNOPT_TEAMSIZE(0, 64, 1000), 16);
  EXPECT_EQ(RUNOPT_TEAMSIZE(-2, 64, 1000), 16);
}

TEST(RunoptTeamSize, RunTimesLimitIsKept) { EXPECT_EQ(RUNOPT_TEAMSIZE(0, 8, 2), 2); }

volatile double Smallest = std::numeric_limits<double>::min();

TEST(RunoptThreads, EveryThreadOfTheTeamFlushesToZero) {
  const int before = omp_get_max_threads();
  const int wanted = std::min(omp_get_num_procs(), 2);
  VKCORE::RunOptions.MaxNumCompThreads = 2;
  int teamSize = 0;
  int flushing = 0;
  std::thread([&] {  // a thread of its own: the mode ends with it
    RUNOPT_SETTHREADS();
#pragma omp parallel reduction(+ : flushing)
    {
#pragma omp single
      teamSize = omp_get_num_threads();
      flushing += Smallest * 0.5 == 0.0 ? 1 : 0;
    }
  })
      .join();
  EXPECT_EQ(VKCORE::NumThreads, wanted);
  EXPECT_EQ(teamSize, wanted);
  EXPECT_EQ(flushing, wanted);
  VKCORE::RunOptions = VKCORE::RunOptionValues{};
  VKCORE::NumThreads = 1;
  omp_set_num_threads(before);
}
