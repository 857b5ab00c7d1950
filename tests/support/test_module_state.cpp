#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "support/files.hpp"

namespace {

const std::filesystem::path Root = VK_SOURCE_DIR;

// Filled once, the same for every test: the tables of integration rules.
const std::set<std::string> Constant = {"FEINTEG::TetRuleTable", "FEINTEG::TriRuleTable"};

// MODULE::Name of each variable that the headers of src/ declare.
std::set<std::string> Variables() {
  const std::regex space("^namespace ([A-Z]+) \\{"),
      variable("^inline (?!constexpr).*?(\\w+)( =|;|\\[|\\()");
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(Root / "src")) {
    if (entry.path().extension() != ".hpp") continue;
    std::ifstream header(entry.path());
    std::string module;
    std::smatch match;
    for (std::string line; std::getline(header, line);) {
      if (std::regex_search(line, match, space)) module = match[1];
      if (line.starts_with("}  // namespace")) module.clear();
      if (!module.empty() && std::regex_search(line, match, variable))
        found.insert(module + "::" + match[1].str());
    }
  }
  return found;
}

}  // namespace

TEST(ModuleState, EveryVariableOfAModuleIsSetBackBetweenTests) {
  const std::string resets = ReadFile((Root / "tests/support/module_state.hpp").string());
  const std::set<std::string> variables = Variables();
  EXPECT_TRUE(variables.contains("FEDOF::NodeDofMap"));
  EXPECT_TRUE(variables.contains("SLEPARDISOSOLVER::pt"));
  EXPECT_TRUE(variables.contains("VKCORE::AppliedLoadSum"));
  EXPECT_TRUE(variables.contains("LOGGER::StopHint"));
  for (const std::string& name : variables)
    EXPECT_TRUE(Constant.contains(name) || std::regex_search(resets, std::regex(name + "\\b")))
        << name;
}
