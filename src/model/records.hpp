// Records of the binary files, as they lie on disk: little-endian, no padding. Beside each stands
// the table of its fields, which says what they mean.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/described.hpp"
#include "run/services/loglines.hpp"

// Kinds of material, bits of MaterialRecord::MaterialFlags; other bits are ignored.
inline constexpr std::uint32_t MaterialIsotropic = 0x100;
inline constexpr std::uint32_t MaterialYielding = 0x200;
inline constexpr std::uint32_t MaterialCompressionOnly = 0x400;
inline constexpr std::uint32_t MaterialOrthotropic = 0x800;

inline constexpr NamedValue MaterialKinds[] = {
    {"isotropic", MaterialIsotropic, "isotropic"},
    {"yielding", MaterialYielding, "isotropic, yielding"},
    {"compression only", MaterialCompressionOnly, "isotropic, compression-only"},
    {"orthotropic", MaterialOrthotropic, "orthotropic (wins over the others)"},
};

struct MaterialRecord {
  char Name[32];
  std::uint32_t MaterialFlags;
  float E;
  float Nu;
  float RefValue;  // travels in the load data; no kernel reads it
  float YieldStress;
  float HardeningRatio;
  float Expansion;
  float InitialStrain;
  float LimitStress;
  float Reserved1;
  float E1, E2, E3;
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

inline constexpr auto MaterialFields = RECORD_FIELDS(
    Member{"Name", &MaterialRecord::Name, "not read"},
    Member{"MaterialFlags",
           &MaterialRecord::MaterialFlags,
           "kind of the material",
           {ValueKind::Bits, MaterialKinds}},
    Member{"E", &MaterialRecord::E, "Young's modulus"},
    Member{"Nu", &MaterialRecord::Nu, "Poisson's ratio"},
    Member{"RefValue", &MaterialRecord::RefValue, "not used by any formula"},
    Member{"YieldStress", &MaterialRecord::YieldStress, "of yielding materials"},
    Member{"HardeningRatio", &MaterialRecord::HardeningRatio,
           "slope above yield relative to the elastic slope"},
    Member{"Expansion", &MaterialRecord::Expansion, "isotropic expansion coefficient"},
    Member{"InitialStrain", &MaterialRecord::InitialStrain, "same in x, y, z"},
    Member{"LimitStress", &MaterialRecord::LimitStress,
           "factor of the criteria: multiplies under compression, divides under tension"},
    Member{"Reserved1", &MaterialRecord::Reserved1, "not read"},
    Member{"E1", &MaterialRecord::E1, "orthotropic modulus"},
    Member{"E2", &MaterialRecord::E2, "orthotropic modulus"},
    Member{"E3", &MaterialRecord::E3, "orthotropic modulus"},
    Member{"Nu12", &MaterialRecord::Nu12, "orthotropic Poisson's ratio"},
    Member{"Nu13", &MaterialRecord::Nu13, "orthotropic Poisson's ratio"},
    Member{"Nu23", &MaterialRecord::Nu23, "orthotropic Poisson's ratio"},
    Member{"G12", &MaterialRecord::G12, "orthotropic shear modulus"},
    Member{"G13", &MaterialRecord::G13, "orthotropic shear modulus"},
    Member{"G23", &MaterialRecord::G23, "orthotropic shear modulus"},
    Member{"Expansion1", &MaterialRecord::Expansion1, "orthotropic expansion coefficient"},
    Member{"Expansion2", &MaterialRecord::Expansion2, "orthotropic expansion coefficient"},
    Member{"Expansion3", &MaterialRecord::Expansion3, "orthotropic expansion coefficient"},
    Member{"Reserved2", &MaterialRecord::Reserved2, "not read"},
    Member{"Reserved3", &MaterialRecord::Reserved3, "not read"});

// What the preprocessor's layout declares for a material that it leaves unset.
constexpr MaterialRecord DefaultMaterial() {
  MaterialRecord m = {};
  for (char& c : m.Name) c = ' ';
  m.HardeningRatio = 0.001f;
  m.LimitStress = 1.0f;
  for (auto& group : m.Reserved3) group[3] = 1.0f;
  return m;
}
inline constexpr MaterialRecord MaterialDefaults = DefaultMaterial();

inline constexpr RecordTable MaterialTable = {"MaterialRecord", sizeof(MaterialRecord),
                                              MaterialFields, &MaterialDefaults};

struct NodeRecord {
  float X, Y, Z;
};
static_assert(sizeof(NodeRecord) == 12);

inline constexpr auto NodeFields = RECORD_FIELDS(Member{"X", &NodeRecord::X, "coordinate"},
                                                 Member{"Y", &NodeRecord::Y, "coordinate"},
                                                 Member{"Z", &NodeRecord::Z, "coordinate"});
inline constexpr RecordTable NodeTable = {"NodeRecord", sizeof(NodeRecord), NodeFields};

// Bit 11 of NodeFlags: nodal loads are skipped and the diagonal is raised.
inline constexpr std::uint16_t NodeMarked = 0x800;

inline constexpr NamedValue NodeFlagBits[] = {
    {"marked", NodeMarked,
     "loads on the node are skipped, its diagonal entries raised by a factor of 1.0000000001"},
};

// TypeCode of an element; any other code is no element and passed over by every pass.
inline constexpr std::int16_t TypeTet4 = 40;
inline constexpr std::int16_t TypeTet10 = 41;
inline constexpr std::int16_t TypeHex8 = 60;

inline constexpr NamedValue ElementTypes[] = {
    {"tet4", TypeTet4, "4-node tetrahedron"},
    {"tet10", TypeTet10, "10-node tetrahedron"},
    {"hex8", TypeHex8, "8-node hexahedron"},
};

struct ElementRecord {
  std::int16_t MaterialIndex;
  std::int16_t TypeCode;
  std::int32_t ConnIndex;
};
static_assert(sizeof(ElementRecord) == 8);

inline constexpr auto ElementFields = RECORD_FIELDS(
    Member{"MaterialIndex", &ElementRecord::MaterialIndex, "row of the material"},
    Member{"TypeCode",
           &ElementRecord::TypeCode,
           "elements of other types are passed over",
           {ValueKind::Codes, ElementTypes}},
    Member{"ConnIndex", &ElementRecord::ConnIndex, "row in the connectivity table of the type"});
inline constexpr RecordTable ElementTable = {"ElementRecord", sizeof(ElementRecord), ElementFields};

// Bits of ElementFlags.
inline constexpr std::uint16_t ElementIgnoresLevel = 0x2;  // its level values stay 1.0
inline constexpr std::uint16_t ElementExcluded = 0x104;    // bit 2 or bit 8: left out of the model

inline constexpr NamedValue ElementFlagBits[] = {
    {"ignores level", ElementIgnoresLevel, "the element ignores the level field"},
    {"excluded", ElementExcluded, "the element is left out of the model (either bit)"},
};

template <int Nodes>
struct ConnRecord {
  std::int32_t Node[Nodes];  // 1-based node numbers
};
static_assert(sizeof(ConnRecord<4>) == 16 && sizeof(ConnRecord<8>) == 32);
static_assert(sizeof(ConnRecord<10>) == 40);

inline constexpr std::int32_t LoadCaseFormat = 128;  // format number of mxs.lcdata
inline constexpr std::int32_t LoadCaseStatic = 1;    // the only Kind that runs

inline constexpr NamedValue LoadCaseFormats[] = {
    {"format", LoadCaseFormat, "the only one that is read"},
};
inline constexpr NamedValue LoadCaseKinds[] = {
    {"static", LoadCaseStatic, "the only kind that is run"},
};

// Bits of LoadCaseFlags.
inline constexpr std::int32_t LoadCaseRequested = 1;
inline constexpr std::int32_t LoadCaseDone = 2;
inline constexpr std::int32_t LoadCaseExcluded = 4;

inline constexpr NamedValue LoadCaseFlagBits[] = {
    {"requested", LoadCaseRequested, "to be run"},
    {"done", LoadCaseDone, "has been run (only the solver sets it)"},
    {"excluded", LoadCaseExcluded, "not to be run, requested or not"},
};

struct LoadCaseRecord {
  std::int32_t Kind;
  std::int32_t PatternIndex;
  std::int32_t RunOrder;
  char Reserved[1028];
};
static_assert(sizeof(LoadCaseRecord) == 1040);

inline constexpr auto LoadCaseFields = RECORD_FIELDS(
    Member{"Kind",
           &LoadCaseRecord::Kind,
           "load cases of other kinds are passed over",
           {ValueKind::Codes, LoadCaseKinds}},
    Member{"PatternIndex", &LoadCaseRecord::PatternIndex,
           "constraint pattern, not 0: load cases of one pattern have the same prescribed "
           "components"},
    Member{"RunOrder", &LoadCaseRecord::RunOrder,
           "of record i: number of the load case that is run at position i"},
    Member{"Reserved", &LoadCaseRecord::Reserved, "not read"});
inline constexpr RecordTable LoadCaseTable = {"LoadCaseRecord", sizeof(LoadCaseRecord),
                                              LoadCaseFields};

inline constexpr std::int16_t ConstraintPenalty = 1;  // bit 0 of Kind

inline constexpr NamedValue ConstraintKindBits[] = {
    {"elastic support", ConstraintPenalty,
     "elastic support (clear: prescribed displacement in x, y, z)"},
};
inline constexpr NamedValue DirectionBits[] = {
    {"first", 1 << 0, "x, or the first axis"},
    {"second", 1 << 1, "y, or the second axis"},
    {"third", 1 << 2, "z, or the third axis"},
};

struct NodalConstraintRecord {
  std::int16_t Kind;
  std::uint16_t DofMask;
  std::int32_t Node;
  float Value[3];
  float Axis[3][3];
};
static_assert(sizeof(NodalConstraintRecord) == 56);
static_assert(offsetof(NodalConstraintRecord, Axis) == 20);

inline constexpr auto NodalConstraintFields =
    RECORD_FIELDS(Member{"Kind",
                         &NodalConstraintRecord::Kind,
                         "kind of the constraint",
                         {ValueKind::Bits, ConstraintKindBits}},
                  Member{"DofMask",
                         &NodalConstraintRecord::DofMask,
                         "the directions that the record acts on",
                         {ValueKind::Bits, DirectionBits}},
                  Member{"Node", &NodalConstraintRecord::Node, "node number"},
                  Member{"Value", &NodalConstraintRecord::Value,
                         "displacement, or offset of the support, per direction"},
                  Member{"Axis", &NodalConstraintRecord::Axis,
                         "row k: vector of direction k of an elastic support"});
inline constexpr RecordTable NodalConstraintTable = {
    "NodalConstraintRecord", sizeof(NodalConstraintRecord), NodalConstraintFields};

struct NodalForceRecord {
  std::int32_t Node;
  float Fx, Fy, Fz;
};
static_assert(sizeof(NodalForceRecord) == 16);

inline constexpr auto NodalForceFields = RECORD_FIELDS(
    Member{"Node", &NodalForceRecord::Node, "node number, at most once in a list"},
    Member{"Fx", &NodalForceRecord::Fx, "force"}, Member{"Fy", &NodalForceRecord::Fy, "force"},
    Member{"Fz", &NodalForceRecord::Fz, "force"});
inline constexpr RecordTable NodalForceTable = {"NodalForceRecord", sizeof(NodalForceRecord),
                                                NodalForceFields};

struct NodalScalarPair {
  std::int32_t Node;
  float Value;
};
static_assert(sizeof(NodalScalarPair) == 8);

inline constexpr auto NodalScalarFields =
    RECORD_FIELDS(Member{"Node", &NodalScalarPair::Node, "node number"},
                  Member{"Value", &NodalScalarPair::Value, "temperature"});
inline constexpr RecordTable NodalScalarTable = {"NodalScalarPair", sizeof(NodalScalarPair),
                                                 NodalScalarFields};

// The totals of a load case.
struct TotalsRecord {
  std::int32_t LoadCase;
  std::int32_t Kind;
  float ARQua, SEner, MatVolume, BStress, MaxDis, Rx, Ry, Rz;
};
static_assert(sizeof(TotalsRecord) == 40);
static_assert(offsetof(TotalsRecord, ARQua) == 8);

// A real that is also posted: its name and meaning are the line's.
constexpr Member<TotalsRecord, float> Total(float TotalsRecord::*place,
                                            const LOGLINES::Line& line) {
  return {line.text, place, line.meaning};
}

inline constexpr auto TotalsFields = RECORD_FIELDS(
    Member{"LoadCase", &TotalsRecord::LoadCase, "load-case number"},
    Member{"Kind", &TotalsRecord::Kind, "of the load case", {ValueKind::Codes, LoadCaseKinds}},
    Total(&TotalsRecord::ARQua, LOGLINES::ARQua), Total(&TotalsRecord::SEner, LOGLINES::SEner),
    Total(&TotalsRecord::MatVolume, LOGLINES::MatVolume),
    Total(&TotalsRecord::BStress, LOGLINES::BStress),
    Total(&TotalsRecord::MaxDis, LOGLINES::MaxDis), Total(&TotalsRecord::Rx, LOGLINES::Rx),
    Total(&TotalsRecord::Ry, LOGLINES::Ry), Total(&TotalsRecord::Rz, LOGLINES::Rz));
inline constexpr RecordTable TotalsTable = {"TotalsRecord", sizeof(TotalsRecord), TotalsFields};
