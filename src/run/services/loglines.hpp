// The lines of the log by their text: what a run posts besides warnings and errors, and what a
// reader of the log can wait for.
#pragma once

#include <string_view>

namespace LOGLINES {

enum class Frame { Info, Data };

// What stands behind the text.
enum class Tail { None, Integer, Float, Text };

struct Line {
  Frame frame;
  std::string_view text;
  Tail tail;
  std::string_view meaning;
};

inline constexpr Line Start = {Frame::Info, "Tool.vk_rund.Start", Tail::None, "the run begins"};
inline constexpr Line Banner = {Frame::Info, "Eng x64 TLMx/IC/ID Build 2018.06.03", Tail::None,
                                "banner"};
inline constexpr Line LCaseId = {Frame::Data, "LCaseId", Tail::Integer, "number of a load case"};
inline constexpr Line LCasePatInx = {Frame::Info, "LCasePatInx: ", Tail::Integer,
                                     "its constraint pattern"};
inline constexpr Line SysConfig32 = {
    Frame::Info, "SysConfig: Im4::MaxBW/MDOF/MPRE=", Tail::Text,
    "bandwidth figure, millions of equations, millions of matrix entries of a new pattern"};
inline constexpr Line SysConfig64 = {Frame::Info, "SysConfig: Im8::MaxBW/MDOF/MPRE=", Tail::Text,
                                     "the same on the 64-bit index path"};
inline constexpr Line EstDecMemReq = {Frame::Info, "EstDecMemReq: ", Tail::Float,
                                      "estimated memory of a new factor, GB"};
inline constexpr Line IMode = {
    Frame::Info, "IMode: ", Tail::Integer,
    "preconditioner of the solution, by its code of Sys.ComputationMode"};
inline constexpr Line ICount = {Frame::Info, "ICount: ", Tail::Integer,
                                "iterations, negative when the limit was reached"};
inline constexpr Line ARQua = {Frame::Data, "ARQua", Tail::Float,
                               "quality of the solution: 1 converged"};
inline constexpr Line SEner = {Frame::Data, "SEner", Tail::Float, "strain energy"};
inline constexpr Line MatVolume = {Frame::Data, "MatVolume", Tail::Float, "material volume"};
inline constexpr Line BStress = {Frame::Data, "BStress", Tail::Float, "boundary stress"};
inline constexpr Line MaxDis = {Frame::Data, "MaxDis", Tail::Float,
                                "largest displacement of free components"};
inline constexpr Line Rx = {Frame::Data, "Rx", Tail::Float, "sum of the forces in x"};
inline constexpr Line Ry = {Frame::Data, "Ry", Tail::Float, "sum of the forces in y"};
inline constexpr Line Rz = {Frame::Data, "Rz", Tail::Float, "sum of the forces in z"};
inline constexpr Line LCaseTime = {Frame::Info, "LCaseTime: ", Tail::Text,
                                   "time of the load case, hours:minutes:seconds"};
inline constexpr Line TotalTime = {Frame::Info, "Total time: ", Tail::Text,
                                   "time of the run, hours:minutes:seconds"};
inline constexpr Line End = {Frame::Info, "Tool.vk_rund.End", Tail::None, "the run has ended"};

// In the order of a run; those from LCaseId to LCaseTime come with each load case.
inline constexpr const Line* All[] = {
    &Start, &Banner, &LCaseId, &LCasePatInx, &SysConfig32, &SysConfig64, &EstDecMemReq,
    &IMode, &ICount, &ARQua,   &SEner,       &MatVolume,   &BStress,     &MaxDis,
    &Rx,    &Ry,     &Rz,      &LCaseTime,   &TotalTime,   &End,
};

}  // namespace LOGLINES
