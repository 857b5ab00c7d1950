// A test in a temporary working directory of its own, with all modules as at program start and the
// log open.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "platform/stop.hpp"
#include "run/services/logger.hpp"
#include "support/files.hpp"
#include "support/module_state.hpp"

inline constexpr const char* LogName = "vk_rund_log.txt";

class WorkingDirectory : public testing::Test {
 protected:
  WorkingDirectory() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void SetUp() override {
    before_ = std::filesystem::current_path();
    if (InStoppingProcess()) {
      directory_ = std::getenv(DirectoryVariable);
    } else {
      directory_ = (std::filesystem::temp_directory_path() / "vk_test_XXXXXX").string();
      ASSERT_NE(::mkdtemp(directory_.data()), nullptr);
      ::setenv(DirectoryVariable, directory_.c_str(), 1);
    }
    std::filesystem::current_path(directory_);
    ResetModules();
    LOGGER_OPEN(LogName);
  }

  void TearDown() override {
    ResetModules();
    std::filesystem::current_path(before_);
    if (InStoppingProcess()) return;
    std::filesystem::remove_all(directory_);
    ::unsetenv(DirectoryVariable);
  }

 private:
  std::filesystem::path before_;
  std::string directory_;
};

inline std::string Log() { return ReadFile(LogName); }

// The operating system hands on the low 8 bits of a stop code.
inline auto StopsWith(int code) { return testing::ExitedWithCode(code & 0xff); }

// `statement` posts this error, which becomes the last line of the log, and stops.
#define EXPECT_ABORT(statement, message)                               \
  do {                                                                 \
    EXPECT_EXIT(statement, StopsWith(StopError), "^1010: ");           \
    EXPECT_TRUE(Log().ends_with("Error<Msg:" message ">\n")) << Log(); \
  } while (false)
