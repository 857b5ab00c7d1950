// vk_rund DIRECTORY: solves the load cases that are prepared in a working directory.
#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "platform/maths/maths.hpp"
#include "platform/process.hpp"
#include "platform/processor.hpp"
#include "platform/stop.hpp"
#include "run/describe.hpp"
#include "run/driver.hpp"

namespace {

constexpr std::size_t LongestDirectory = 512;  // characters of the argument that are read

void PrintHelp() {
  std::puts(
      "usage: vk_rund DIRECTORY\n"
      "\n"
      "Solves every load case that is requested and not yet done in the prepared working\n"
      "directory. Results, state files, updated flags and the log are written there; a stopped\n"
      "run is finished by starting it again.\n"
      "\n"
      "  --describe  files, options and codes, as JSON\n"
      "  --help      this text\n"
      "  --version   version, maths library and instruction set of the kernels\n"
      "\n"
      "Exit status: 0 normal end; else the low 8 bits of the code on standard error:");
  for (const NamedValue& stop : StopCodes)
    std::printf("  %3d  %d %.*s\n", static_cast<int>(stop.value) & StopStatusMask,
                static_cast<int>(stop.value), static_cast<int>(stop.meaning.size()),
                stop.meaning.data());
}

void PrintVersion() {
  const std::string_view maths = MATHS_NAME();
  const std::string_view kernels = PLATFORM_INSTRUCTIONSETNAME();
  std::printf("vk_rund %s, maths library: %.*s, kernels: %.*s\n", VK_VERSION,
              static_cast<int>(maths.size()), maths.data(), static_cast<int>(kernels.size()),
              kernels.data());
}

// False when the text can't be written, since half a description is none.
bool PrintDescription() {
  const std::string text = DESCRIBE_TEXT();
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
         std::fflush(stdout) == 0;
}

// The argument as far as it is read, without leading blanks. Nothing but closing slashes may lie
// beyond: the run must not work in another directory than the one that is meant.
std::string_view DirectoryName(std::string_view argument) {
  std::string_view name = argument.substr(0, LongestDirectory);
  if (argument.find_first_not_of('/', name.size()) != std::string_view::npos)
    PLATFORM_STOP(StopDirectory, "cannot enter directory \"" + std::string(name) +
                                     "...\": longer than 512 characters");
  name.remove_prefix(std::min(name.find_first_not_of(' '), name.size()));
  return name;
}

}  // namespace

int main(int argc, char** argv) {
  PLATFORM_FLUSHTOZERO();
  PLATFORM_GUARDSTREAMS();
  if (argc != 2)
    PLATFORM_STOP(StopArguments, "expected one argument, the working directory (see --help)");
  const std::string_view argument = argv[1];
  if (argument == "--describe") return PrintDescription() ? EXIT_SUCCESS : EXIT_FAILURE;
  if (argument == "--help") return PrintHelp(), 0;
  if (argument == "--version") return PrintVersion(), 0;
  RUN_ENTRY(DirectoryName(argument));
}
