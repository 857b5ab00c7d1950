#include <gmock/gmock.h>

#include "run/describe.hpp"

using testing::HasSubstr;

TEST(Describe, TextIsTheSameAtEveryCall) { EXPECT_EQ(DESCRIBE_TEXT(), DESCRIBE_TEXT()); }

TEST(Describe, TextIsOneDocumentThatEndsItsLine) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_TRUE(text.starts_with("{\n  \"schema\": 1,\n"));
  EXPECT_TRUE(text.ends_with("\n}\n"));
}

TEST(Describe, FieldsLieWhereTheCompilerPutsThem) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_THAT(text, HasSubstr("\"name\": \"E\", \"offset\": 36, \"type\": \"float32\""));
  EXPECT_THAT(text, HasSubstr("\"name\": \"Axis\", \"offset\": 20, \"type\": \"float32\", "
                              "\"shape\": [3, 3]"));
  EXPECT_THAT(text, HasSubstr("\"name\": \"ConnIndex\", \"offset\": 4, \"type\": \"int32\""));
}

TEST(Describe, DefaultsAreThoseOfAMaterialThatIsLeftUnset) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_THAT(text, HasSubstr("\"default\": \"" + std::string(32, ' ') + "\""));
  EXPECT_THAT(text, HasSubstr("\"default\": 0.001, \"meaning\": \"slope above yield"));
  EXPECT_THAT(text, HasSubstr("\"default\": [0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1]"));
}

TEST(Describe, ItemsNameTheirCountAndRowsBeyondIt) {
  EXPECT_THAT(DESCRIBE_TEXT(),
              HasSubstr("{\"name\": \"RawRowStart\", \"type\": \"int64\", \"count\": "
                        "\"NumRawRows\", \"more\": 1, \"condition\": \"NumRawRows\""));
}

TEST(Describe, AnElementTypeHasItsNodesAndTable) {
  EXPECT_THAT(DESCRIBE_TEXT(), HasSubstr("\"code\": 41, \"nodes\": 10, \"table\": \"Conn41\""));
}

TEST(Describe, LinesOfTheLogHaveTheirFrameAndWhatFollows) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_THAT(text, HasSubstr("{\"name\": \"data\", \"begin\": \"Data<Key:\", \"value\": "
                              "\"><Value:\", \"end\": \">\"}"));
  EXPECT_THAT(text, HasSubstr("{\"frame\": \"info\", \"text\": \"ICount: \", \"tail\": \"int32\""));
}

TEST(Describe, LimitsAreThoseThatTheRunKeeps) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_THAT(text, HasSubstr("{\"name\": \"threads\", \"value\": 16,"));
  EXPECT_THAT(text, HasSubstr("{\"name\": \"stop quality\", \"value\": 0.5,"));
}

TEST(Describe, StopsHaveTheStatusThatTheSystemHandsOn) {
  EXPECT_THAT(DESCRIBE_TEXT(), HasSubstr("\"code\": 1010, \"status\": 242,"));
}

TEST(Describe, LimitsOfAnOptionAreLeftOutWhereThereAreNone) {
  const std::string text = DESCRIBE_TEXT();
  EXPECT_THAT(text, HasSubstr("\"key\": \"Sys.AvailableMemGB\",\n"
                              "        \"type\": \"float32\",\n"
                              "        \"default\": 8,\n"
                              "        \"meaning\""));
  EXPECT_THAT(text, HasSubstr("\"key\": \"Sta.SupportStiffness\",\n"
                              "        \"type\": \"float32\",\n"
                              "        \"default\": 1,\n"
                              "        \"lowest\": 0,\n"
                              "        \"meaning\""));
  EXPECT_THAT(text, HasSubstr("\"key\": \"Sta.ResponseDumpFac\",\n"
                              "        \"type\": \"float32\",\n"
                              "        \"default\": 0,\n"
                              "        \"lowest\": 0,\n"
                              "        \"highest\": 0.99,\n"));
}
