// Records of the binary files, as they lie on disk: little-endian, no padding.
#pragma once

#include <cstddef>
#include <cstdint>

// Kinds of material, bits of MaterialRecord::MaterialFlags; other bits are ignored.
inline constexpr std::uint32_t MaterialIsotropic = 0x100;
inline constexpr std::uint32_t MaterialYielding = 0x200;
inline constexpr std::uint32_t MaterialCompressionOnly = 0x400;
inline constexpr std::uint32_t MaterialOrthotropic = 0x800;

struct MaterialRecord {
  char Name[32];  // not read
  std::uint32_t MaterialFlags;
  float E;  // isotropic
  float Nu;
  float RefValue;        // travels in the load data; no kernel reads it
  float YieldStress;     // before Sta.YieldStressFac
  float HardeningRatio;  // slope above yield relative to the elastic slope
  float Expansion;
  float InitialStrain;
  float LimitStress;  // factor of the response criteria
  float Reserved1;
  float E1, E2, E3;  // orthotropic
  float Nu12, Nu13, Nu23;
  float G12, G13, G23;
  float Expansion1, Expansion2, Expansion3;
  float Reserved2[6];
  float Reserved3[3][4];
};
static_assert(sizeof(MaterialRecord) == 192);
static_assert(offsetof(MaterialRecord, MaterialFlags) == 32);
static_assert(offsetof(MaterialRecord, LimitStress) == 64);
static_assert(offsetof(MaterialRecord, E1) == 72);
static_assert(offsetof(MaterialRecord, G12) == 96);
static_assert(offsetof(MaterialRecord, Expansion1) == 108);
static_assert(offsetof(MaterialRecord, Reserved3) == 144);

struct NodeRecord {
  float X, Y, Z;
};
static_assert(sizeof(NodeRecord) == 12);

// Bit 11 of NodeFlags: nodal loads are skipped and the diagonal is raised.
inline constexpr std::uint16_t NodeMarked = 0x800;

// TypeCode of an element; any other code is no element and passed over by every pass.
inline constexpr std::int16_t TypeTet4 = 40;
inline constexpr std::int16_t TypeTet10 = 41;
inline constexpr std::int16_t TypeHex8 = 60;

struct ElementRecord {
  std::int16_t MaterialIndex;  // 1-based row of Materials
  std::int16_t TypeCode;
  std::int32_t ConnIndex;  // 1-based row of the type's connectivity table
};
static_assert(sizeof(ElementRecord) == 8);

// Bits of ElementFlags.
inline constexpr std::uint16_t ElementIgnoresLevel = 0x2;  // its level values stay 1.0
inline constexpr std::uint16_t ElementExcluded = 0x104;    // bit 2 or bit 8: left out of the model

template <int Nodes>
struct ConnRecord {
  std::int32_t Node[Nodes];  // 1-based node numbers
};
static_assert(sizeof(ConnRecord<4>) == 16 && sizeof(ConnRecord<8>) == 32);
static_assert(sizeof(ConnRecord<10>) == 40);

inline constexpr std::int32_t LoadCaseFormat = 128;  // format number of mxs.lcdata
inline constexpr std::int32_t LoadCaseStatic = 1;    // the only Kind that runs

// Bits of LoadCaseFlags.
inline constexpr std::int32_t LoadCaseRequested = 1;
inline constexpr std::int32_t LoadCaseDone = 2;
inline constexpr std::int32_t LoadCaseExcluded = 4;

struct LoadCaseRecord {
  std::int32_t Kind;
  std::int32_t PatternIndex;
  std::int32_t RunOrder;  // of record i: number of the load case to run at position i
  char Reserved[1028];
};
static_assert(sizeof(LoadCaseRecord) == 1040);

inline constexpr std::int16_t ConstraintPenalty = 1;  // bit 0 of Kind

struct NodalConstraintRecord {
  std::int16_t Kind;      // bit 0 set: elastic support; clear: prescribed displacement
  std::uint16_t DofMask;  // bits 0, 1, 2: the directions the record acts on
  std::int32_t Node;
  float Value[3];    // prescribed displacement or support offset per direction
  float Axis[3][3];  // row k: direction vector of direction k of an elastic support
};
static_assert(sizeof(NodalConstraintRecord) == 56);
static_assert(offsetof(NodalConstraintRecord, Axis) == 20);

struct NodalForceRecord {
  std::int32_t Node;
  float Fx, Fy, Fz;
};
static_assert(sizeof(NodalForceRecord) == 16);

struct NodalScalarPair {
  std::int32_t Node;
  float Value;
};
static_assert(sizeof(NodalScalarPair) == 8);
