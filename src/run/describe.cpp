#include "run/describe.hpp"

#include <cstring>
#include <span>
#include <string_view>
#include <variant>
#include <vector>

#include "model/femodel.hpp"
#include "model/fileio.hpp"
#include "model/files.hpp"
#include "platform/described.hpp"
#include "platform/json.hpp"
#include "platform/stop.hpp"
#include "run/driver.hpp"
#include "run/services/logger.hpp"
#include "run/services/loglines.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"
#include "solver/analysis.hpp"

namespace {

using std::string_view;

void PutNumber(JsonText& json, string_view key, std::int32_t value) {
  JSON_INTEGER(json, key, value);
}
void PutNumber(JsonText& json, string_view key, float value) { JSON_FLOAT(json, key, value); }

string_view TypeName(Scalar type) {
  if (type == Scalar::Character) return "char";
  if (type == Scalar::Int16) return "int16";
  if (type == Scalar::UInt16) return "uint16";
  if (type == Scalar::Int32) return "int32";
  if (type == Scalar::UInt32) return "uint32";
  if (type == Scalar::Int64) return "int64";
  return "float32";
}

bool IsLimit(std::int32_t value) { return value != RUNOPT::Lowest && value != RUNOPT::Highest; }
bool IsLimit(float value) { return value != RUNOPT::Unlimited && value != -RUNOPT::Unlimited; }

void DescribeValues(JsonText& json, string_view key, string_view valueKey,
                    std::span<const NamedValue> values) {
  JSON_OPEN(json, key, '[');
  for (const NamedValue& value : values) {
    JSON_OPEN(json, "", '{', JsonLayout::Row);
    JSON_TEXT(json, "name", value.name);
    JSON_INTEGER(json, valueKey, value.value);
    JSON_TEXT(json, "meaning", value.meaning);
    JSON_CLOSE(json, '}');
  }
  JSON_CLOSE(json, ']');
}

void DescribeValueTable(JsonText& json, const ValueTable& values) {
  if (values.rows.empty()) return;
  if (values.kind == ValueKind::Bits)
    DescribeValues(json, "bits", "mask", values.rows);
  else
    DescribeValues(json, "codes", "code", values.rows);
}

void DescribeStops(JsonText& json) {
  JSON_OPEN(json, "stops", '[');
  for (const NamedValue& stop : StopCodes) {
    JSON_OPEN(json, "", '{', JsonLayout::Row);
    JSON_TEXT(json, "name", stop.name);
    JSON_INTEGER(json, "code", stop.value);
    JSON_INTEGER(json, "status", stop.value & StopStatusMask);
    JSON_TEXT(json, "meaning", stop.meaning);
    JSON_CLOSE(json, '}');
  }
  JSON_CLOSE(json, ']');
}

template <class T>
void DescribeOption(JsonText& json, const RUNOPT::Option<T>& option) {
  constexpr VKCORE::RunOptionValues defaults;
  JSON_OPEN(json, "", '{');
  JSON_TEXT(json, "key", option.key);
  JSON_TEXT(json, "type", TypeName(ScalarOf<T>()));
  PutNumber(json, "default", defaults.*option.value);
  if (IsLimit(option.lowest)) PutNumber(json, "lowest", option.lowest);
  if (IsLimit(option.highest)) PutNumber(json, "highest", option.highest);
  JSON_TEXT(json, "meaning", option.meaning);
  if (!option.codes.empty()) DescribeValues(json, "codes", "code", option.codes);
  JSON_CLOSE(json, '}');
}

void DescribeOptions(JsonText& json) {
  JSON_OPEN(json, "options", '{');
  JSON_TEXT(json, "file", RUNOPT::FileName);
  JSON_INTEGER(json, "lineLength", RUNOPT::LineLength);
  JSON_TEXT(json, "comment", {&RUNOPT::Comment, 1});
  JSON_OPEN(json, "keys", '[');
  for (const RUNOPT::AnyOption& any : RUNOPT::Options)
    std::visit([&](const auto& option) { DescribeOption(json, option); }, any);
  JSON_CLOSE(json, ']');
  JSON_CLOSE(json, '}');
}

template <class T>
T ValueAt(const void* record, std::int64_t offset) {
  T value;
  std::memcpy(&value, static_cast<const char*>(record) + offset, sizeof value);
  return value;
}

std::int64_t IntegerAt(const void* record, std::int64_t offset, Scalar type) {
  if (type == Scalar::Int16) return ValueAt<std::int16_t>(record, offset);
  if (type == Scalar::UInt16) return ValueAt<std::uint16_t>(record, offset);
  if (type == Scalar::Int32) return ValueAt<std::int32_t>(record, offset);
  if (type == Scalar::UInt32) return ValueAt<std::uint32_t>(record, offset);
  return ValueAt<std::int64_t>(record, offset);
}

// The value or values that a field of the record `defaults` holds, in file order; text as a whole.
void DescribeDefault(JsonText& json, const Field& field, const void* defaults) {
  const int count = field.rows * field.columns;
  if (field.type == Scalar::Character) {
    const auto* text = static_cast<const char*>(defaults) + field.offset;
    return JSON_TEXT(json, "default", {text, static_cast<std::size_t>(count)});
  }
  if (count > 1) JSON_OPEN(json, "default", '[', JsonLayout::Row);
  for (int i = 0; i < count; ++i) {
    const std::int64_t offset = field.offset + i * SCALAR_BYTES(field.type);
    const string_view key = count > 1 ? "" : "default";
    if (field.type == Scalar::Float32)
      JSON_FLOAT(json, key, ValueAt<float>(defaults, offset));
    else
      JSON_INTEGER(json, key, IntegerAt(defaults, offset, field.type));
  }
  if (count > 1) JSON_CLOSE(json, ']');
}

void DescribeShape(JsonText& json, int rows, int columns) {
  if (rows * columns == 1) return;
  JSON_OPEN(json, "shape", '[', JsonLayout::Row);
  if (rows > 1) JSON_INTEGER(json, "", rows);
  JSON_INTEGER(json, "", columns);
  JSON_CLOSE(json, ']');
}

void DescribeField(JsonText& json, const Field& field, const void* defaults) {
  JSON_OPEN(json, "", '{', field.values.rows.empty() ? JsonLayout::Row : JsonLayout::Lines);
  JSON_TEXT(json, "name", field.name);
  JSON_INTEGER(json, "offset", field.offset);
  JSON_TEXT(json, "type", TypeName(field.type));
  DescribeShape(json, field.rows, field.columns);
  if (defaults != nullptr) DescribeDefault(json, field, defaults);
  JSON_TEXT(json, "meaning", field.meaning);
  DescribeValueTable(json, field.values);
  JSON_CLOSE(json, '}');
}

void DescribeRecord(JsonText& json, const RecordTable& record) {
  JSON_OPEN(json, "", '{');
  JSON_TEXT(json, "name", record.name);
  JSON_INTEGER(json, "bytes", record.bytes);
  JSON_OPEN(json, "fields", '[');
  for (const Field& field : record.fields) DescribeField(json, field, record.defaults);
  JSON_CLOSE(json, ']');
  JSON_CLOSE(json, '}');
}

// The records of the files, each once, in the order in which the files need them.
void DescribeRecords(JsonText& json) {
  std::vector<const RecordTable*> records;
  for (const FileTable* file : FILES::All)
    for (const FileItem& item : file->items)
      if (item.record != nullptr && std::ranges::find(records, item.record) == records.end())
        records.push_back(item.record);
  JSON_OPEN(json, "records", '[');
  for (const RecordTable* record : records) DescribeRecord(json, *record);
  JSON_CLOSE(json, ']');
}

void DescribeItem(JsonText& json, const FileItem& item) {
  JSON_OPEN(json, "", '{', item.values.rows.empty() ? JsonLayout::Row : JsonLayout::Lines);
  JSON_TEXT(json, "name", item.name);
  if (item.record != nullptr) {
    JSON_TEXT(json, "record", item.record->name);
  } else {
    JSON_TEXT(json, "type", TypeName(item.type));
    DescribeShape(json, 1, item.columns);
  }
  if (!item.count.empty()) JSON_TEXT(json, "count", item.count);
  if (item.more != 0) JSON_INTEGER(json, "more", item.more);
  if (!item.condition.empty()) JSON_TEXT(json, "condition", item.condition);
  if (!item.meaning.empty()) JSON_TEXT(json, "meaning", item.meaning);
  DescribeValueTable(json, item.values);
  JSON_CLOSE(json, '}');
}

void DescribeFile(JsonText& json, const FileTable& file) {
  JSON_OPEN(json, "", '{');
  JSON_TEXT(json, file.numbered ? "stem" : "name", file.name);
  JSON_TRUTH(json, "read", file.read);
  JSON_TRUTH(json, "written", file.written);
  JSON_TEXT(json, "meaning", file.meaning);
  JSON_OPEN(json, "items", '[');
  for (const FileItem& item : file.items) DescribeItem(json, item);
  JSON_CLOSE(json, ']');
  JSON_CLOSE(json, '}');
}

void DescribeFiles(JsonText& json) {
  JSON_OPEN(json, "loadCaseNumber", '{', JsonLayout::Row);
  JSON_INTEGER(json, "digits", FILEIO::NumberDigits);
  JSON_INTEGER(json, "highest", FILEIO::HighestNumber);
  JSON_TEXT(json, "otherwise", FILEIO::NoNumber);
  JSON_CLOSE(json, '}');
  JSON_OPEN(json, "files", '[');
  for (const FileTable* file : FILES::All) DescribeFile(json, *file);
  JSON_CLOSE(json, ']');
}

// The item of mx.elems that holds the nodes of the type.
string_view ConnectivityTable(int nodes) {
  const auto items = FILES::Elements.items;
  return std::ranges::find(items, nodes, &FileItem::columns)->name;
}

void DescribeElementTypes(JsonText& json) {
  JSON_OPEN(json, "elementTypes", '[');
  for (const NamedValue& type : ElementTypes) {
    const int nodes = FEMODEL_NODECOUNT(static_cast<std::int16_t>(type.value));
    JSON_OPEN(json, "", '{', JsonLayout::Row);
    JSON_TEXT(json, "name", type.name);
    JSON_INTEGER(json, "code", type.value);
    JSON_INTEGER(json, "nodes", nodes);
    JSON_TEXT(json, "table", ConnectivityTable(nodes));
    JSON_TEXT(json, "meaning", type.meaning);
    JSON_CLOSE(json, '}');
  }
  JSON_CLOSE(json, ']');
}

void DescribeFrame(JsonText& json, string_view name, string_view begin) {
  JSON_OPEN(json, "", '{', JsonLayout::Row);
  JSON_TEXT(json, "name", name);
  JSON_TEXT(json, "begin", begin);
  if (begin == LOGGER::DataFrame) JSON_TEXT(json, "value", LOGGER::DataValue);
  JSON_TEXT(json, "end", LOGGER::FrameEnd);
  JSON_CLOSE(json, '}');
}

string_view TailName(LOGLINES::Tail tail) {
  if (tail == LOGLINES::Tail::Integer) return "int32";
  if (tail == LOGLINES::Tail::Float) return "float32";
  return tail == LOGLINES::Tail::Text ? "text" : "none";
}

void DescribeLog(JsonText& json) {
  JSON_OPEN(json, "log", '{');
  JSON_TEXT(json, "file", LOGGER::FileName);
  JSON_OPEN(json, "frames", '[');
  DescribeFrame(json, "info", LOGGER::InfoFrame);
  DescribeFrame(json, "data", LOGGER::DataFrame);
  DescribeFrame(json, "warning", LOGGER::WarningFrame);
  DescribeFrame(json, "error", LOGGER::ErrorFrame);
  JSON_CLOSE(json, ']');
  JSON_OPEN(json, "lines", '[');
  for (const LOGLINES::Line* line : LOGLINES::All) {
    JSON_OPEN(json, "", '{', JsonLayout::Row);
    JSON_TEXT(json, "frame", line->frame == LOGLINES::Frame::Data ? "data" : "info");
    JSON_TEXT(json, "text", line->text);
    JSON_TEXT(json, "tail", TailName(line->tail));
    JSON_TEXT(json, "meaning", line->meaning);
    JSON_CLOSE(json, '}');
  }
  JSON_CLOSE(json, ']');
  JSON_CLOSE(json, '}');
}

template <class T>
void DescribeNumber(JsonText& json, string_view name, T value, string_view meaning) {
  JSON_OPEN(json, "", '{', JsonLayout::Row);
  JSON_TEXT(json, "name", name);
  PutNumber(json, "value", value);
  JSON_TEXT(json, "meaning", meaning);
  JSON_CLOSE(json, '}');
}

void DescribeUnits(JsonText& json) {
  JSON_OPEN(json, "units", '[');
  DescribeNumber(json, "options", RUNOPT::Unit, "the options file");
  DescribeNumber(json, "read", FILEIO::ReadUnit, "binary files that are read");
  DescribeNumber(json, "write", FILEIO::WriteUnit, "binary files that are written");
  JSON_CLOSE(json, ']');
}

void DescribeLimits(JsonText& json) {
  JSON_OPEN(json, "limits", '[');
  DescribeNumber(json, "threads", RUNOPT::MaxThreads, "most threads of a run, whatever the option");
  DescribeNumber(json, "stop quality", VKCORE::StopQuality, "a solution below it ends the run");
  DescribeNumber(json, "warning quality", VKCORE::WarningQuality,
                 "a solution below it gives a warning");
  DescribeNumber(json, "keep quality", RUN::KeepQuality,
                 "a solution above it leaves its displacements for a later start");
  JSON_CLOSE(json, ']');
}

}  // namespace

std::string DESCRIBE_TEXT() {
  JsonText json;
  JSON_OPEN(json, "", '{');
  JSON_INTEGER(json, "schema", DESCRIBE::Schema);
  JSON_TEXT(json, "program", "vk_rund");
  JSON_TEXT(json, "version", VK_VERSION);
  DescribeStops(json);
  DescribeOptions(json);
  DescribeLimits(json);
  DescribeLog(json);
  DescribeUnits(json);
  JSON_TEXT(json, "byteOrder", "little");
  DescribeElementTypes(json);
  DescribeRecords(json);
  DescribeFiles(json);
  JSON_CLOSE(json, '}');
  return json.text + '\n';
}
