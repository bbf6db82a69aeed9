#include "velox/system/velRegistry.hpp"

#include <gtest/gtest.h>

#include "tests/support/temporary_key.hpp"
#include "velox/foundation/velSysUtils.hpp"

namespace velox {
namespace {

using namespace std::string_literals;

/// What the system's own program shows of a key: its lines without blanks at either end.
TStrings QueryRegistry(const std::string& Path) {
  TStrings lines;
  auto keep = [&](const std::string& line) {
    const size_t begin = line.find_first_not_of(' ');
    if (begin != std::string::npos) lines.push_back(line.substr(begin));
  };
  const std::string command = "reg query \"HKEY_CURRENT_USER\\" + Path + "\"";
  EXPECT_EQ(ExecuteProcess(command, "", TProcessOutputEvent::To(keep), false, nullptr), 0);
  return lines;
}

TEST(RegistryEx, ListsAreAppendedInStoredOrder) {
  const test::TTemporaryKey key;
  TRegistryEx registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
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
    registry.WriteStringList("list", c.Written);
    EXPECT_EQ(registry.GetDataType("list"), DWORD{REG_MULTI_SZ});
    EXPECT_EQ(registry.GetDataSize("list"), c.Size);
    TStrings strings{"already", "here"};
    registry.ReadStringList("list", strings);
    ASSERT_EQ(strings.size(), 2 + c.Read.size());
    EXPECT_EQ(strings[1], "here");
    EXPECT_EQ(TStrings(strings.begin() + 2, strings.end()), c.Read);
  }
}

TEST(RegistryEx, ListsThatOthersWroteEndAtTheirEnd) {
  const test::TTemporaryKey key;
  TRegistryEx registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
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
    ASSERT_EQ(::RegSetValueExW(registry.GetCurrentKey(), L"list", 0, REG_MULTI_SZ, data,
                               static_cast<DWORD>(c.Stored.size() * sizeof(wchar_t))),
              ERROR_SUCCESS);
    TStrings strings;
    registry.ReadStringList("list", strings);
    EXPECT_EQ(strings, c.Read);
  }
}

TEST(RegistryEx, FailuresNameTheValueOrKey) {
  const test::TTemporaryKey key;
  TRegistryEx registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
  registry.WriteString("text", "abc");
  TStrings strings{"kept"};
  const auto message = [](auto&& act) -> std::string {
    try {
      act();
    } catch (const ERegistryException& e) {
      return e.what();
    }
    return "nothing raised";
  };
  EXPECT_EQ(message([&] { registry.ReadStringList("text", strings); }),
            "Registry data \"text\" have another type");
  EXPECT_EQ(message([&] { registry.ReadStringList("none", strings); }),
            "Cannot read registry data \"none\"");
  EXPECT_EQ(strings, TStrings{"kept"});
  ASSERT_TRUE(registry.OpenKeyReadOnly(""));
  EXPECT_EQ(message([&] { registry.WriteStringList("list", strings); }),
            "Cannot write registry data \"list\"");
  registry.SetRootKey(HKEY_LOCAL_MACHINE);
  registry.SetRootKey(reinterpret_cast<HKEY>(1));
  EXPECT_EQ(message([&] { TRegistryEx::WriteDefaultString(registry, "key", "x"); }),
            "Cannot create registry key \"key\"");
}

TEST(RegistryEx, TheSystemsProgramSeesTheSame) {
  const test::TTemporaryKey key;
  TRegistryEx registry;
  TRegistryEx::WriteDefaultString(registry, key.Path() + "\\made", "first text");
  EXPECT_EQ(registry.GetCurrentKey(), nullptr);
  TRegistryEx::WriteDefaultString(registry, key.Path() + "\\made", "text");
  ASSERT_TRUE(registry.OpenKey(key.Path() + "\\made", false));
  registry.WriteStringList("list", {"one", "", "two three"});
  const TStrings expected = {"HKEY_CURRENT_USER\\" + registry.GetCurrentPath(),
                             "(Default)    REG_SZ    text",
                             "list    REG_MULTI_SZ    one\\0two three"};
  EXPECT_EQ(QueryRegistry(registry.GetCurrentPath()), expected);
}

}  // namespace
}  // namespace velox
