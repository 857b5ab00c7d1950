// Data about data: names, places and meanings of what the program reads, writes and answers. The
// tables stand beside the constants and records they tell of; run/describe.cpp prints them.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

// A code, or a bit mask, and what it stands for.
struct NamedValue {
  std::string_view name;
  std::int64_t value;
  std::string_view meaning;
};

// What the values of a field stand for: each bit, or each whole value, by itself.
enum class ValueKind { Codes, Bits };
struct ValueTable {
  ValueKind kind = ValueKind::Codes;
  std::span<const NamedValue> rows = {};
};

enum class Scalar { Character, Int16, UInt16, Int32, UInt32, Int64, Float32 };

template <class T>
consteval Scalar ScalarOf() {
  if constexpr (std::is_same_v<T, char>) return Scalar::Character;
  if constexpr (std::is_same_v<T, std::int16_t>) return Scalar::Int16;
  if constexpr (std::is_same_v<T, std::uint16_t>) return Scalar::UInt16;
  if constexpr (std::is_same_v<T, std::int32_t>) return Scalar::Int32;
  if constexpr (std::is_same_v<T, std::uint32_t>) return Scalar::UInt32;
  if constexpr (std::is_same_v<T, std::int64_t>) return Scalar::Int64;
  if constexpr (std::is_same_v<T, float>) return Scalar::Float32;
}

constexpr std::int64_t SCALAR_BYTES(Scalar type) {
  if (type == Scalar::Character) return 1;
  if (type == Scalar::Int16 || type == Scalar::UInt16) return 2;
  return type == Scalar::Int64 ? 8 : 4;
}

// A field of a record on disk; rows x columns values of its type.
struct Field {
  std::string_view name;
  Scalar type;
  int rows, columns;
  std::int64_t offset;
  std::string_view meaning;
  ValueTable values;
};

struct RecordTable {
  std::string_view name;
  std::int64_t bytes;
  std::span<const Field> fields;
  const void* defaults = nullptr;  // a whole record, where the fields have defaults
};

// A member of a record and what is to be told of it.
template <class Record, class T>
struct Member {
  std::string_view name;
  T Record::*place;
  std::string_view meaning;
  ValueTable values = {};
};
template <class Record, class T>
Member(std::string_view, T Record::*, std::string_view) -> Member<Record, T>;
template <class Record, class T>
Member(std::string_view, T Record::*, std::string_view, ValueTable) -> Member<Record, T>;

// A value of which every byte is 1.
template <class T>
constexpr T OnesInEveryByte() {
  std::array<unsigned char, sizeof(T)> bytes{};
  bytes.fill(1);
  return std::bit_cast<T>(bytes);
}

template <class T>
constexpr void MarkFirst(T& value) {
  if constexpr (std::is_array_v<T>)
    MarkFirst(value[0]);
  else
    value = OnesInEveryByte<T>();
}

// Where a member lies in its record: offsetof for a pointer to a member.
template <class Record, class T>
constexpr std::int64_t OffsetOf(T Record::*place) {
  Record record{};
  MarkFirst(record.*place);
  const auto bytes = std::bit_cast<std::array<unsigned char, sizeof(Record)>>(record);
  return std::find(bytes.begin(), bytes.end(), 1) - bytes.begin();
}

template <class T>
inline constexpr unsigned LastExtent = std::rank_v<T> > 0 ? std::rank_v<T> - 1 : 0;

template <class Record, class T>
constexpr Field FieldOf(const Member<Record, T>& member) {
  using Value = std::remove_all_extents_t<T>;
  const int rows = std::rank_v<T> > 1 ? static_cast<int>(std::extent_v<T>) : 1;
  const int columns = std::rank_v<T> > 0 ? static_cast<int>(std::extent_v<T, LastExtent<T>>) : 1;
  return {member.name,    ScalarOf<Value>(), rows, columns, OffsetOf(member.place),
          member.meaning, member.values};
}

constexpr std::int64_t FIELD_BYTES(const Field& field) {
  return SCALAR_BYTES(field.type) * field.rows * field.columns;
}

// The fields of a record, in its order. Doesn't compile unless they cover it without gap or
// overlap.
template <class Record, class... T>
consteval std::array<Field, sizeof...(T)> RECORD_FIELDS(const Member<Record, T>&... members) {
  const std::array<Field, sizeof...(T)> fields = {FieldOf(members)...};
  std::int64_t end = 0;
  for (const Field& field : fields) {
    if (field.offset != end) throw "a member is missing or out of place";
    end += FIELD_BYTES(field);
  }
  if (end != sizeof(Record)) throw "members are missing at the end";
  return fields;
}
