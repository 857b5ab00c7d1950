#include "run_checks.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "memory_files.hpp"
#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "run/driver.hpp"
#include "run/load_case_table.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/vkcore.hpp"
#include "support/files.hpp"

namespace {

void Require(bool holds, std::string_view what) {
  if (!holds) Finding(std::string(what) + "\n" + LogText());
}

std::string_view Text(const MemoryFiles& files, std::string_view name) {
  const Content content = MEMORYFILES_FIND(files, name);
  return content ? std::string_view(*content) : std::string_view();
}

std::vector<std::string_view> Lines(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const auto end = text.find('\n');
    Require(end != std::string_view::npos, "the log ends in half a line");
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
  return lines;
}

bool IsFramed(std::string_view line) {
  const bool known = line.starts_with(LOGGER::InfoFrame) || line.starts_with(LOGGER::DataFrame) ||
                     line.starts_with(LOGGER::WarningFrame) || line.starts_with(LOGGER::ErrorFrame);
  return known && line.ends_with(LOGGER::FrameEnd);
}

std::ptrdiff_t CountLines(const std::vector<std::string_view>& lines, std::string_view start) {
  return std::count_if(lines.begin(), lines.end(),
                       [start](std::string_view line) { return line.starts_with(start); });
}

std::ptrdiff_t CountPosts(const std::vector<std::string_view>& lines, const LOGLINES::Line& line) {
  const bool data = line.frame == LOGLINES::Frame::Data;
  return CountLines(lines, std::string(data ? LOGGER::DataFrame : LOGGER::InfoFrame) +
                               std::string(line.text) + (data ? "><Value:" : ""));
}

// `done`: number of load cases that the run has finished.
void CheckLog(bool ended, std::ptrdiff_t done) {
  const std::string text = LogText();
  const std::vector<std::string_view> lines = Lines(text);
  for (const std::string_view line : lines) Require(IsFramed(line), "a line without its frame");
  Require(!lines.empty(), "an empty log");
  Require(CountLines(lines, LOGGER::ErrorFrame) == (ended ? 0 : 1), "not one error line");
  if (!ended) Require(lines.back().starts_with(LOGGER::ErrorFrame), "lines behind the error");
  for (const LOGLINES::Line* line :
       {&LOGLINES::SEner, &LOGLINES::MatVolume, &LOGLINES::BStress, &LOGLINES::MaxDis,
        &LOGLINES::Rx, &LOGLINES::Ry, &LOGLINES::Rz, &LOGLINES::LCaseTime})
    Require(CountPosts(lines, *line) == done, "a value that isn't posted once a load case");
  const std::ptrdiff_t begun = CountPosts(lines, LOGLINES::LCaseId);
  Require(begun == done || (!ended && begun == done + 1), "a load case that got lost");
  Require(CountPosts(lines, LOGLINES::ARQua) <= begun, "more solves than load cases");
}

// The load cases whose done flag this run has set.
std::set<std::int32_t> NewlyDone(const MemoryFiles& before, const MemoryFiles& after) {
  std::set<std::int32_t> done;
  const std::string old(Text(before, FILES::LoadCaseFlags.name));
  const std::string now(Text(after, FILES::LoadCaseFlags.name));
  if (old == now) return done;
  const auto count = static_cast<std::size_t>(ValueAt<std::int32_t>(old, 0));
  Require(now.size() == 4 + 8 * count, "flags that are not whole");
  Require(now.substr(0, 4) == old.substr(0, 4), "another count of load cases");
  Require(now.substr(4 + 4 * count) == old.substr(4 + 4 * count, 4 * count), "other values");
  for (std::size_t i = 0; i < count; ++i) {
    const auto was = ValueAt<std::int32_t>(old, 4 + 4 * i);
    const auto is = ValueAt<std::int32_t>(now, 4 + 4 * i);
    if (was == is) continue;
    Require((was & (LoadCaseRequested | LoadCaseDone | LoadCaseExcluded)) == LoadCaseRequested &&
                is == (was | LoadCaseDone),
            "a flag that is not the run's to change");
    done.insert(static_cast<std::int32_t>(i) + 1);
  }
  return done;
}

// int32 count and that many 4-byte values.
void CheckTable(std::string_view content, std::int32_t count) {
  const auto rows = static_cast<std::size_t>(std::max(count, 0));
  Require(content.size() == 4 + 4 * rows, "a result of the wrong length");
  Require(ValueAt<std::int32_t>(std::string(content), 0) == count, "a result with another count");
}

void CheckTotals(std::string_view content, std::int32_t number, float& quality) {
  Require(content.size() == sizeof(TotalsRecord), "totals of the wrong length");
  const auto totals = ValueAt<TotalsRecord>(std::string(content), 0);
  Require(totals.LoadCase == number && totals.Kind == LoadCaseStatic, "another load case's totals");
  quality = totals.ARQua;
  Require(quality >= 0.5f && quality <= 1.0f, "a quality that should have stopped the run");
}

void CheckDisplacements(const MemoryFiles& before, const MemoryFiles& after,
                        const std::string& name, float quality) {
  const std::string_view content = Text(after, name);
  if (!RUN_KEEPSDISPLACEMENTS(quality))
    return Require(content == Text(before, name), "displacements of a poor solve");
  const auto values = 3 * static_cast<std::size_t>(std::max(FEMODEL::NumNodes, 0));
  Require(content.size() == 8 + 4 * values, "displacements of the wrong length");
}

std::set<std::string> CheckDone(const MemoryFiles& before, const MemoryFiles& after,
                                std::int32_t number) {
  const auto named = [number](const auto& file) { return FILEIO_NUMBEREDNAME(file.name, number); };
  float quality = 0.0f;
  CheckTable(Text(after, named(FILES::Criterion)), FEMODEL::NumTp);
  CheckTable(Text(after, named(FILES::Stress)), FEMODEL::NumNodes);
  CheckTable(Text(after, named(FILES::Magnitudes)), FEMODEL::NumNodes);
  CheckTotals(Text(after, named(FILES::Totals)), number, quality);
  CheckDisplacements(before, after, named(FILES::Displacements), quality);
  if (VKCORE::MatStateEnabled)
    CheckTable(Text(after, named(FILES::ElementState)), FEMODEL::NumElements);
  std::set<std::string> written = {named(FILES::Criterion), named(FILES::Stress),
                                   named(FILES::Magnitudes), named(FILES::Totals),
                                   named(FILES::Displacements)};
  if (VKCORE::MatStateEnabled) written.insert(named(FILES::ElementState));
  return written;
}

// Nothing is left behind, lost or changed but what `written` names.
void CheckOthers(const MemoryFiles& before, const MemoryFiles& after,
                 const std::set<std::string>& written) {
  for (const auto& [name, content] : after) {
    const Content old = MEMORYFILES_FIND(before, name);
    if (content == old || written.count(name) != 0) continue;
    if (old == nullptr) Finding("a file that doesn't belong here: " + name);
    Require(*content == *old, "a file that is not the run's to change");
  }
  for (const auto& [name, content] : before)
    if (MEMORYFILES_FIND(after, name) == nullptr) Finding("a file that is gone: " + name);
}

// Without the lines that hold times.
std::string Timeless(std::string_view log) {
  std::string text;
  for (const std::string_view line : Lines(log))
    if (line.find(LOGLINES::LCaseTime.text) == std::string_view::npos)
      text += std::string(line) + "\n";
  return text;
}

}  // namespace

std::string LogText() {
  const Content log = MEMORYFILES_FIND(MEMORYFILES::Files, LOGGER::FileName);
  return log ? *log : std::string();
}

void CheckRun(const MemoryFiles& before, bool ended) {
  const MemoryFiles& after = MEMORYFILES::Files;
  const std::set<std::int32_t> done = NewlyDone(before, after);
  std::set<std::string> written = {std::string(LOGGER::FileName)};
  if (!done.empty()) written.insert(std::string(FILES::LoadCaseFlags.name));
  for (const std::int32_t number : done) written.merge(CheckDone(before, after, number));
  CheckOthers(before, after, written);
  CheckLog(ended, static_cast<std::ptrdiff_t>(done.size()));
}

void CheckSame(const MemoryFiles& first, const MemoryFiles& second, Compared compared) {
  Require(first.size() == second.size(), "the same directory gives other files");
  for (const auto& [name, content] : first) {
    const std::string_view other = Text(second, name);
    if (name != LOGGER::FileName)
      Require(*content == other, "the same directory gives another " + name);
    else if (compared == AllFiles)
      Require(Timeless(*content) == Timeless(other), "the same directory gives another log");
  }
}
