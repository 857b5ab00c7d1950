#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "platform/json.hpp"

namespace {

std::string Float(float value) {
  JsonText json;
  JSON_FLOAT(json, "", value);
  return json.text;
}

std::string Quoted(std::string_view value) {
  JsonText json;
  JSON_TEXT(json, "", value);
  return json.text;
}

}  // namespace

TEST(Json, EntriesStandOnLinesOfTheirOwnAndRowsInOne) {
  JsonText json;
  JSON_OPEN(json, "", '{');
  JSON_INTEGER(json, "count", -3);
  JSON_OPEN(json, "rows", '[');
  for (int i = 1; i <= 2; ++i) {
    JSON_OPEN(json, "", '{', JsonLayout::Row);
    JSON_TEXT(json, "name", "a");
    JSON_OPEN(json, "shape", '[');
    JSON_INTEGER(json, "", i);
    JSON_INTEGER(json, "", 4);
    JSON_CLOSE(json, ']');
    JSON_TRUTH(json, "read", i == 1);
    JSON_CLOSE(json, '}');
  }
  JSON_CLOSE(json, ']');
  JSON_CLOSE(json, '}');
  EXPECT_EQ(json.text,
            "{\n"
            "  \"count\": -3,\n"
            "  \"rows\": [\n"
            "    {\"name\": \"a\", \"shape\": [1, 4], \"read\": true},\n"
            "    {\"name\": \"a\", \"shape\": [2, 4], \"read\": false}\n"
            "  ]\n"
            "}");
}

TEST(Json, EmptyObjectsAndArraysHaveNoLines) {
  JsonText json;
  JSON_OPEN(json, "", '{');
  JSON_OPEN(json, "none", '[');
  JSON_CLOSE(json, ']');
  JSON_OPEN(json, "nothing", '{');
  JSON_CLOSE(json, '}');
  JSON_CLOSE(json, '}');
  EXPECT_EQ(json.text, "{\n  \"none\": [],\n  \"nothing\": {}\n}");
}

TEST(Json, QuotesBackslashesAndControlCharactersAreEscaped) {
  EXPECT_EQ(Quoted("plain"), "\"plain\"");
  EXPECT_EQ(Quoted("a\"b\\c/d"), R"("a\"b\\c/d")");
  EXPECT_EQ(Quoted("a\nb\tc\x1f"), R"("a\u000ab\u0009c\u001f")");
  EXPECT_EQ(Quoted(std::string_view("\0", 1)), R"("\u0000")");
  EXPECT_EQ(Quoted("\xc3\xa4"), "\"\xc3\xa4\"");  // bytes of UTF-8 pass
}

TEST(Json, FloatsAreTheShortestThatReadBackTheSame) {
  EXPECT_EQ(Float(0.99f), "0.99");
  EXPECT_EQ(Float(0.001f), "0.001");
  EXPECT_EQ(Float(10000.0f), "10000");
  EXPECT_EQ(Float(-0.5f), "-0.5");
  for (const float value : {0.1f, 1.0f / 3.0f, 3.4028235e38f, 1.17549435e-38f, 16777217.0f})
    EXPECT_EQ(std::strtof(Float(value).c_str(), nullptr), value);
}

TEST(Json, FloatsWithoutANumberAreNull) {
  EXPECT_EQ(Float(std::numeric_limits<float>::infinity()), "null");
  EXPECT_EQ(Float(-std::numeric_limits<float>::infinity()), "null");
  EXPECT_EQ(Float(std::numeric_limits<float>::quiet_NaN()), "null");
}
