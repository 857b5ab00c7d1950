#include "platform/maths.hpp"

#include <gtest/gtest.h>

TEST(Maths, NameTellsLibraryAndVersion) {
  EXPECT_NE(MATHS_NAME().find_first_of("0123456789"), std::string_view::npos);
}
