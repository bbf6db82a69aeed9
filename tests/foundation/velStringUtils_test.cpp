#include "velox/foundation/velStringUtils.hpp"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace velox {
namespace {

TEST(StringUtils, PosExFindsFromAnOffsetUpToAZeroByte) {
  const std::string zero("ab\0ab", 5);
  const struct {
    const char* SubStr;
    std::string S;
    int32_t Offset, Result;
  } cases[] = {
      {"c", "abc", 3, 3}, {"c", "abc", 4, 0}, {"", "abc", 1, 0},   {"a", "", 1, 0},
      {"a", "aba", 2, 3}, {"a", "abc", 0, 0}, {"abc", "ab", 1, 0}, {"b", zero, 1, 2},
      {"a", zero, 2, 0},  {"ab", zero, 4, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(PosEx(c.SubStr, c.S, c.Offset), c.Result) << c.SubStr << " in " << c.S;
    EXPECT_EQ(AnsiPosEx(c.SubStr, c.S, c.Offset), c.Result);
  }
}

TEST(StringUtils, JoinsPadsAndReplaces) {
  const struct {
    const char *A, *B, *Delimited, *Head, *Tail;
  } joins[] = {{"a", "b", "a, b", "a, b", "a, b"},
               {"a", "", "a", "a", "a, "},
               {"", "b", "b", ", b", "b"},
               {"", "", "", "", ""}};
  for (const auto& c : joins) {
    EXPECT_EQ(StrAddDelimited(c.A, ", ", c.B), c.Delimited);
    EXPECT_EQ(StrAddHead(c.A, ", ", c.B), c.Head);
    EXPECT_EQ(StrAddTail(c.A, ", ", c.B), c.Tail);
  }
  EXPECT_EQ(StrPaddingLeft("7", 3, '0'), "007");
  EXPECT_EQ(StrPaddingRight("7", 3, '.'), "7..");
  EXPECT_EQ(StrPaddingLeft("12345", 3, '0'), "12345");
  EXPECT_EQ(StrPaddingLeft("1", -5, '0'), "1");

  EXPECT_EQ(StrReplace("aaa", "aa", "a"), "aa");
  EXPECT_EQ(StrReplace("a-b-", "-", "--"), "a--b--");
  EXPECT_EQ(StrReplace("abc", "", "x"), "abc");
  EXPECT_EQ(StrReplace(std::string("a\0a", 3), "a", "b"), std::string("b\0a", 3));
}

TEST(StringUtils, PrefixesAndDeletedCharacters) {
  EXPECT_TRUE(StrBeginWith("abc", "ab"));
  EXPECT_TRUE(StrBeginWith("", ""));
  EXPECT_FALSE(StrBeginWith("a", "ab"));
  EXPECT_FALSE(StrBeginWith("Abc", "ab"));
  EXPECT_TRUE(StrBeginWithText("aBc[", "AbC["));
  EXPECT_FALSE(StrBeginWithText("a{", "a["));
  EXPECT_FALSE(StrBeginWithText("\xE4", "\xC4"));
  EXPECT_EQ(StrDeleteChars("a.b.", '.'), "ab");
  EXPECT_EQ(StrDeleteChars("y\xFFz.", TCharSet().set('.').set(0xFF)), "yz");
}

TEST(StringUtils, Tokens) {
  const struct {
    const char *S, *Delimiter;
    bool Trim, Skip;
    TStrings Result;
  } cases[] = {
      {"", ",", true, false, {}},
      {"a,b,", ",", false, false, {"a", "b", ""}},
      {"a,b,", ",", false, true, {"a", "b"}},
      {"a, ,b", ",", true, false, {"a", "", "b"}},
      {"a, ,b", ",", false, true, {"a", " ", "b"}},
      {"a, \t,b", ",", true, true, {"a", "b"}},
      {"a--b", "--", false, false, {"a", "b"}},
      {"ab", "", false, false, {"ab"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(StrGetTokens(c.S, c.Delimiter, c.Trim, c.Skip), c.Result) << c.S;
  std::string rest = "a::b", token;
  StrGetToken(rest, "::", token);
  EXPECT_EQ(token + "|" + rest, "a|b");
  StrGetToken(rest, "::", token);
  EXPECT_EQ(token + "|" + rest, "b|");
}

TEST(StringUtils, WholeDelimitersAreStripped) {
  EXPECT_EQ(StrRemoveTrailingDelimiters("a\\\\", "\\"), "a");
  EXPECT_EQ(StrRemoveLeadingDelimiters("-----a", "--"), "-a");
  EXPECT_EQ(StrRemoveTrailingDelimiters("a-----", "--"), "a-");
  EXPECT_EQ(StrRemoveLeadingDelimiters("----", "--"), "");
  EXPECT_EQ(StrRemoveLeadingDelimiters("a", ""), "a");
}

TEST(StringUtils, SetsAsText) {
  const std::array<std::string, 10> names = {"Red", "Green", "Blue", "3", "4",
                                             "5",   "6",     "7",    "8", "Last"};
  const std::array<uint8_t, 2> set = {0b101, 0b10};
  EXPECT_EQ(SetToStr(names, 9, set.data(), true), "[Red, Blue, Last]");
  EXPECT_EQ(SetOrdToStr(9, set.data(), false), "0, 2, 9");
  EXPECT_EQ(SetOrdToStr(9, std::array<uint8_t, 2>{}.data(), true), "[]");
  EXPECT_EQ(SetOrdToStr(8, set.data(), true), "[0, 2]");
  EXPECT_EQ(PowerOfSet(set.data(), 9), 3);

  const auto read = [&names](const char* Text) {
    std::array<uint8_t, 2> result = {0xFF, 0xFF};
    StrToSet(Text, names, 9, result.data());
    return result;
  };
  EXPECT_EQ(read("[Red, Blue,Last ]"), set);
  EXPECT_EQ(read("[Red, blue, Pink, ,]"), (std::array<uint8_t, 2>{1, 0}));
  EXPECT_EQ(read("Red, Blue"), (std::array<uint8_t, 2>{}));
  EXPECT_EQ(read("["), (std::array<uint8_t, 2>{}));
  EXPECT_THROW(PowerOfSet(set.data(), 256), Exception);
  EXPECT_THROW(SetToStr(names, 10, set.data(), false), Exception);
}

struct TBound : TObject {
  void Run() {}
};

TEST(StringUtils, MethodsAndProceduresAsText) {
  EXPECT_EQ(MethodToString(TMethod<void()>()), "nil");
  EXPECT_EQ(ProcedureToString(nullptr), "nil");
  EXPECT_EQ(ProcedureToString(reinterpret_cast<void*>(0xAB12)), "0000AB12");
  TBound bound;
  const std::string text = MethodToString(TMethod<void()>::Bind<&TBound::Run>(&bound));
  EXPECT_TRUE(text.starts_with(bound.ClassName() + ".")) << text;
  EXPECT_EQ(MethodToString(reinterpret_cast<void*>(0x1234), nullptr), ".00001234");
}

}  // namespace
}  // namespace velox
