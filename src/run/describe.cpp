#include "run/describe.hpp"

#include <span>
#include <string_view>

#include "platform/described.hpp"
#include "platform/json.hpp"
#include "platform/stop.hpp"
#include "run/services/runopt.hpp"
#include "run/services/vkcore.hpp"

namespace {

using std::string_view;

void PutNumber(JsonText& json, string_view key, std::int32_t value) {
  JSON_INTEGER(json, key, value);
}
void PutNumber(JsonText& json, string_view key, float value) { JSON_FLOAT(json, key, value); }

string_view TypeName(std::int32_t) { return "int32"; }
string_view TypeName(float) { return "float32"; }

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
  JSON_TEXT(json, "type", TypeName(T{}));
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

}  // namespace

std::string DESCRIBE_TEXT() {
  JsonText json;
  JSON_OPEN(json, "", '{');
  JSON_INTEGER(json, "schema", DESCRIBE::Schema);
  JSON_TEXT(json, "program", "vk_rund");
  JSON_TEXT(json, "version", VK_VERSION);
  DescribeStops(json);
  DescribeOptions(json);
  JSON_CLOSE(json, '}');
  return json.text + '\n';
}
