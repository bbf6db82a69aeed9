#include "velox/system/velRegistry.hpp"

#include <gtest/gtest.h>

#include "tests/examples/run_example.hpp"
#include "tests/support/temporary_key.hpp"
#include "velox/foundation/velStringUtils.hpp"

namespace velox {
namespace {

using namespace std::string_literals;

/// A key of the test's own, opened.
class RegistryEx : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(Registry_.OpenKey(Key_.Path(), false)); }

  const test::TTemporaryKey Key_;
  TRegistryEx Registry_;
};

/// What the system's own program shows of a key: its lines without blanks at either end.
TStrings QueryRegistry(const std::string& Path) {
  TStrings lines;
  const std::string command = "reg query \"HKEY_CURRENT_USER\\" + Path + "\"";
  for (const std::string& line : test::RunCommand(command).Lines)
    if (!Trim(line).empty()) lines.push_back(Trim(line));
  return lines;
}

TEST_F(RegistryEx, ListsAreAppendedInStoredOrder) {
  const std::string large(70'000, 'x');
  const struct {
    TStrings Written;
    TStrings Read;
    int32_t Size;
  } cases[] = {
      {{"one", "two", "\xFC"}, {"one", "two", "\xFC"}, 11},
      {{"", "one", "", "two", ""}, {"one", "two"}, 9},
      {{"one\0two"s, "\0"s, "b"}, {"one", "b"}, 7},
      {{large, "end"}, {large, "end"}, 70'006},
      {{}, {}, 1},
      {{"", ""}, {}, 1},
  };
  for (const auto& c : cases) {
    Registry_.WriteStringList("list", c.Written);
    EXPECT_EQ(Registry_.GetDataType("list"), DWORD{REG_MULTI_SZ});
    EXPECT_EQ(Registry_.GetDataSize("list"), c.Size);
    TStrings strings{"already", "here"};
    Registry_.ReadStringList("list", strings);
    ASSERT_EQ(strings.size(), 2 + c.Read.size());
    EXPECT_EQ(strings[1], "here");
    EXPECT_EQ(TStrings(strings.begin() + 2, strings.end()), c.Read);
  }
}

TEST_F(RegistryEx, ListsThatOthersWroteEndAtTheirEnd) {
  const struct {
    std::wstring Stored;
    TStrings Read;
  } cases[] = {
      {L"one\0two"s, {"one", "two"}},
      {L"one\0two\0"s, {"one", "two"}},
      {L"one\0\0two\0\0"s, {"one"}},
      {L"\0one\0\0"s, {}},
      {L""s, {}},
  };
  for (const auto& c : cases) {
    const auto* data = reinterpret_cast<const BYTE*>(c.Stored.data());
    ASSERT_EQ(::RegSetValueExW(Registry_.GetCurrentKey(), L"list", 0, REG_MULTI_SZ, data,
                               static_cast<DWORD>(c.Stored.size() * sizeof(wchar_t))),
              ERROR_SUCCESS);
    TStrings strings;
    Registry_.ReadStringList("list", strings);
    EXPECT_EQ(strings, c.Read);
  }
}

TEST_F(RegistryEx, FailuresNameTheValueOrKey) {
  Registry_.WriteString("text", "abc");
  TStrings strings{"kept"};
  EXPECT_EQ(test::MessageOf([&] { Registry_.ReadStringList("text", strings); }),
            "Registry data \"text\" have another type");
  EXPECT_EQ(test::MessageOf([&] { Registry_.ReadStringList("none", strings); }),
            "Cannot read registry data \"none\"");
  EXPECT_THROW(Registry_.ReadStringList("none", strings), ERegistryException);
  EXPECT_EQ(strings, TStrings{"kept"});
  ASSERT_TRUE(Registry_.OpenKeyReadOnly(""));
  EXPECT_EQ(test::MessageOf([&] { Registry_.WriteStringList("list", strings); }),
            "Cannot write registry data \"list\"");
  Registry_.SetRootKey(HKEY_LOCAL_MACHINE);
  Registry_.SetRootKey(reinterpret_cast<HKEY>(1));
  EXPECT_EQ(test::MessageOf([&] { TRegistryEx::WriteDefaultString(Registry_, "key", "x"); }),
            "Cannot create registry key \"key\"");
}

TEST_F(RegistryEx, TheSystemsProgramSeesTheSame) {
  Registry_.CloseKey();
  TRegistryEx::WriteDefaultString(Registry_, Key_.Path() + "\\made", "first text");
  EXPECT_EQ(Registry_.GetCurrentKey(), nullptr);
  TRegistryEx::WriteDefaultString(Registry_, Key_.Path() + "\\made", "text");
  ASSERT_TRUE(Registry_.OpenKey(Key_.Path() + "\\made", false));
  Registry_.WriteStringList("list", {"one", "", "two three"});
  const TStrings expected = {"HKEY_CURRENT_USER\\" + Registry_.GetCurrentPath(),
                             "(Default)    REG_SZ    text",
                             "list    REG_MULTI_SZ    one\\0two three"};
  EXPECT_EQ(QueryRegistry(Registry_.GetCurrentPath()), expected);
}

}  // namespace
}  // namespace velox
