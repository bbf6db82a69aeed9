#include <gtest/gtest.h>

#include <cstdio>

#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velWindows.hpp"

namespace velox {
namespace {

TEST(StringUtilsLocale, CasesOfTheCodePage) {
  EXPECT_TRUE(AnsiStrBeginWith("abc", "ab"));
  EXPECT_FALSE(AnsiStrBeginWith("abc", "AB"));
  EXPECT_TRUE(AnsiStrBeginWithText("abc", "AB"));
  EXPECT_FALSE(AnsiStrBeginWithText("a", "AB"));
  EXPECT_TRUE(AnsiStrBeginWith("", ""));
  if (GetACP() != 1252) {
    std::printf("code page %u: letters beyond ASCII not compared\n", GetACP());
    return;
  }
  // Windows-1252: E4 and C4 are a small and a capital A with diaeresis.
  EXPECT_TRUE(AnsiStrBeginWithText("\xE4z", "\xC4"));
  EXPECT_FALSE(StrBeginWithText("\xE4z", "\xC4"));
  EXPECT_FALSE(AnsiStrBeginWith("\xE4z", "\xC4"));
}

TEST(StringUtilsLocale, TokensAndDelimiters) {
  EXPECT_EQ(AnsiStrGetTokens("a;\xE4;", ";", false, false), (TStrings{"a", "\xE4", ""}));
  std::string rest = "\xE4;b", token;
  AnsiStrGetToken(rest, ";", token);
  EXPECT_EQ(token + "|" + rest, "\xE4|b");
  EXPECT_EQ(AnsiStrRemoveLeadingDelimiters("\xE4\xE4z", "\xE4"), "z");
  EXPECT_EQ(AnsiStrRemoveTrailingDelimiters("a\xC4", "\xE4"), "a\xC4");
}

}  // namespace
}  // namespace velox
