// Module VKCORE, state: the run options and the run flags that the subsystems share.
// RunOptions is final once the options file has been read; the flags belong to the load case that
// runs. Written by the modules named beside each; read by all.
#pragma once

#include <cstdint>

namespace VKCORE {

// The nine values of the options file "vk_rund_cmd.txt", with their built-in defaults.
struct RunOptionValues {
  float AvailableMemGB = 8.0f;         // Sys.AvailableMemGB: budget of the direct solver, GB
  std::int32_t MaxNumCompThreads = 0;  // Sys.MaxNumCompThreads: 0 all, > 0 at most, < 0 left free
  std::int32_t ComputationMode = 0;    // Sys.ComputationMode: 0 automatic, 1 iterative, 2 direct
  float SupportStiffness = 1.0f;       // Sta.SupportStiffness: penalty stiffness of supports
  float ResponseDumpFac = 0.0f;        // Sta.ResponseDumpFac: base of TcBlendFactor, 0 .. 0.99
  std::int32_t TopCriteriaCode = 0;    // Sta.TopCriteriaCode: 0 energy, 1 equivalent stress
  std::int32_t BStressExp = 4;         // Sta.BStressExp: exponent of the boundary stress, 1 .. 24
  float YieldStressFac = 1.0f;         // Sta.YieldStressFac: factor on YieldStress, 0 switches off
  float MatSlopeFactor = 500.0f;       // Sta.MatSlopeFactor: steepness k of the presence step
};

inline RunOptionValues RunOptions;   // written by RUNOPT_READ
inline std::int32_t NumThreads = 1;  // the run's team size, 1 .. 16; written by RUNOPT_SETTHREADS

// Flags of the load case that runs, written by FELOADCASE_PREPARE.
inline bool PatternChanged = false;
inline bool MatStateEnabled = false;
inline bool MatStateMissing = true;
inline bool NoNodalScalars = true;
inline std::int32_t LCaseId = 0;  // load-case number
inline std::int32_t LoadCaseKind = 0;

// Outcome of the load case that runs, written by the analysis step.
inline float SolveQuality = 0.0f;      // 0 .. 1
inline float TcBlendFactor = 0.0f;     // weight of the earlier run's criterion values
inline double AppliedLoadSum[3] = {};  // sum of the nodal forces, x, y, z

}  // namespace VKCORE
