// Module VKCORE, state: the run options and the run flags that the subsystems share.
// RunOptions is final once the options file has been read; the flags belong to the load case that
// runs. Written by the modules named beside each; read by all.
#pragma once

#include <cstdint>

namespace VKCORE {

// Values of ComputationMode.
inline constexpr std::int32_t ModeAutomatic = 0;
inline constexpr std::int32_t ModeIterative = 1;
inline constexpr std::int32_t ModeFactorised = 2;

// Values of TopCriteriaCode.
inline constexpr std::int32_t CriterionEnergy = 0;
inline constexpr std::int32_t CriterionStress = 1;

// The nine values of the options file, with their built-in defaults; RUNOPT::Options tells their
// keys, limits and meanings.
struct RunOptionValues {
  float AvailableMemGB = 8.0f;
  std::int32_t MaxNumCompThreads = 0;
  std::int32_t ComputationMode = ModeAutomatic;
  float SupportStiffness = 1.0f;
  float ResponseDumpFac = 0.0f;
  std::int32_t TopCriteriaCode = CriterionEnergy;
  std::int32_t BStressExp = 4;
  float YieldStressFac = 1.0f;
  float MatSlopeFactor = 500.0f;
};

inline RunOptionValues RunOptions;   // written by RUNOPT_READ
inline std::int32_t NumThreads = 1;  // the run's team size, written by RUNOPT_SETTHREADS

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
