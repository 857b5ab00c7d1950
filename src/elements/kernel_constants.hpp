// Constants of the presence law and of the rule choice, the same for all kernels.
#pragma once

// Constants that the system holds in single precision are those values, widened.
inline constexpr double PresenceFloor = double{0.001f};     // smallest presence
inline constexpr double PresenceSpan = 0.9989999999525025;  // 1 - PresenceFloor
inline constexpr double InversePi = 0.3183098861837907;
inline constexpr double RuleSwitchLevel = double{-0.2f};  // above it, the finer rule
inline constexpr double SharpSlope = 1000.0;              // of the sharp presence over the smooth

static_assert(PresenceFloor == 0.0010000000474974513);
static_assert(PresenceSpan == 1.0 - PresenceFloor);
static_assert(RuleSwitchLevel == -0.20000000298023224);
