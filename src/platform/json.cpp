#include "platform/json.hpp"

#include <charconv>
#include <cmath>
#include <cstddef>

namespace {

std::string Quoted(std::string_view value) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string quoted = "\"";
  for (const char c : value) {
    const auto code = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      quoted += '\\';
      quoted += c;
    } else if (code < 0x20) {
      quoted += "\\u00";
      quoted += digits[code / 16];
      quoted += digits[code % 16];
    } else {
      quoted += c;
    }
  }
  return quoted + '"';
}

void Break(JsonText& json) {
  json.text += '\n';
  json.text.append(2 * static_cast<std::size_t>(json.depth), ' ');
}

// Comma, line and key ahead of an entry's value.
void Begin(JsonText& json, std::string_view key) {
  if (!json.first) json.text += json.rowDepth > 0 ? ", " : ",";
  if (json.depth > 0 && json.rowDepth == 0) Break(json);
  if (!key.empty()) json.text += Quoted(key) + ": ";
  json.first = false;
}

void Put(JsonText& json, std::string_view key, std::string_view value) {
  Begin(json, key);
  json.text += value;
}

}  // namespace

void JSON_OPEN(JsonText& json, std::string_view key, char bracket, JsonLayout layout) {
  Begin(json, key);
  json.text += bracket;
  ++json.depth;
  if (layout == JsonLayout::Row || json.rowDepth > 0) ++json.rowDepth;
  json.first = true;
}

void JSON_CLOSE(JsonText& json, char bracket) {
  const bool empty = json.first;
  --json.depth;
  if (json.rowDepth > 0)
    --json.rowDepth;
  else if (!empty)
    Break(json);
  json.text += bracket;
  json.first = false;
}

void JSON_TEXT(JsonText& json, std::string_view key, std::string_view value) {
  Put(json, key, Quoted(value));
}

void JSON_INTEGER(JsonText& json, std::string_view key, std::int64_t value) {
  Put(json, key, std::to_string(value));
}

void JSON_FLOAT(JsonText& json, std::string_view key, float value) {
  if (!std::isfinite(value)) return Put(json, key, "null");
  char digits[32];
  const auto [end, status] = std::to_chars(digits, digits + sizeof digits, value);
  Put(json, key, {digits, static_cast<std::size_t>(end - digits)});
}

void JSON_TRUTH(JsonText& json, std::string_view key, bool value) {
  Put(json, key, value ? "true" : "false");
}
