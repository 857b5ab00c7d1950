// Module JSON: the text of a JSON document, built from front to back.
// Objects and arrays nest; `key` is empty for an entry of an array. Entries stand on lines of their
// own, apart from those of an object or array that is opened as a row.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct JsonText {
  std::string text;
  int depth = 0;
  int rowDepth = 0;  // above 0: inside a row, by that many brackets
  bool first = true;
};

enum class JsonLayout { Lines, Row };

// Opens an object, '{', or an array, '['.
void JSON_OPEN(JsonText& json, std::string_view key, char bracket,
               JsonLayout layout = JsonLayout::Lines);

// Closes what was opened last, with '}' or ']'.
void JSON_CLOSE(JsonText& json, char bracket);

// UTF-8 as it is; quotes, backslashes and control characters escaped.
void JSON_TEXT(JsonText& json, std::string_view key, std::string_view value);

void JSON_INTEGER(JsonText& json, std::string_view key, std::int64_t value);

// The shortest digits that read back as the same float; null for what JSON has no number for.
void JSON_FLOAT(JsonText& json, std::string_view key, float value);

void JSON_TRUTH(JsonText& json, std::string_view key, bool value);
