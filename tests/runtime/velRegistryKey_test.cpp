#include "velox/runtime/velRegistryKey.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tests/support/temporary_key.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;

TEST(Registry, KeysAreFoundFromTheOpenOneOrFromTheRoot) {
  const test::TTemporaryKey key;
  TRegistry registry;
  EXPECT_EQ(registry.GetRootKey(), HKEY_CURRENT_USER);
  EXPECT_FALSE(registry.OpenKey(key.Path() + "\\one", false));
  EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(registry.GetCurrentKey(), nullptr);
  ASSERT_TRUE(registry.OpenKey(key.Path() + "\\one\\two", true));
  ASSERT_TRUE(registry.OpenKey("three", true));
  EXPECT_EQ(registry.GetCurrentPath(), key.Path() + "\\one\\two\\three");
  ASSERT_TRUE(registry.OpenKey("\\" + key.Path(), false));
  EXPECT_EQ(registry.GetCurrentPath(), key.Path());
  EXPECT_FALSE(registry.OpenKey("two", false));
  EXPECT_EQ(registry.GetCurrentPath(), key.Path());  // the old one is still open
  EXPECT_TRUE(registry.KeyExists("one\\two\\three"));
  EXPECT_TRUE(registry.CreateKey("other"));
  EXPECT_EQ(registry.GetKeyNames(), (TStrings{"one", "other"}));

  EXPECT_FALSE(registry.DeleteKey(""));
  EXPECT_FALSE(registry.DeleteKey("\\"));
  EXPECT_FALSE(registry.DeleteKey("missing"));
  EXPECT_TRUE(registry.DeleteKey("one"));  // with what is below
  EXPECT_EQ(registry.GetKeyNames(), TStrings{"other"});

  ASSERT_TRUE(registry.OpenKey(registry.GetCurrentPath(), true));
  EXPECT_EQ(registry.GetCurrentPath(), key.Path() + "\\" + key.Path());

  registry.SetRootKey(HKEY_CURRENT_USER);
  EXPECT_NE(registry.GetCurrentKey(), nullptr);
  registry.SetRootKey(HKEY_LOCAL_MACHINE);
  EXPECT_EQ(registry.GetCurrentKey(), nullptr);
  EXPECT_EQ(registry.GetCurrentPath(), "");
  EXPECT_FALSE(registry.KeyExists(key.Path()));
}

TEST(Registry, KeysAreClosed) {
  const test::TTemporaryKey key;
  const uint32_t before = test::HandleCount();
  {
    TRegistry registry;
    for (const char* path : {"\\one", "\\two"})
      EXPECT_TRUE(registry.OpenKey(key.Path() + path, true));
    EXPECT_TRUE(registry.KeyExists("\\" + key.Path() + "\\one"));
    EXPECT_TRUE(registry.DeleteKey("\\" + key.Path() + "\\one"));
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST(Registry, ValuesComeBackAsWritten) {
  const test::TTemporaryKey key;
  TRegistry registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
  const std::string large(100'000, 'x');
  registry.WriteString("", "default");
  registry.WriteString("empty", "");
  registry.WriteExpandString("expand", "%PATH%;");
  registry.WriteString("large", large);
  registry.WriteInteger("lowest", std::numeric_limits<int32_t>::min());
  registry.WriteBool("true", true);
  registry.WriteBool("false", false);
  registry.WriteBinaryData("bytes", "\0\1\2", 3);
  registry.WriteBinaryData("none", nullptr, 0);
  EXPECT_THROW(registry.WriteBinaryData("none", "", -1), Exception);

  EXPECT_EQ(registry.ReadString(""), "default");
  EXPECT_EQ(registry.ReadString("empty"), "");
  EXPECT_EQ(registry.ReadString("expand"), "%PATH%;");
  EXPECT_EQ(registry.ReadString("large"), large);
  EXPECT_EQ(registry.ReadInteger("lowest"), std::numeric_limits<int32_t>::min());
  EXPECT_TRUE(registry.ReadBool("true"));
  EXPECT_FALSE(registry.ReadBool("false"));
  EXPECT_EQ(registry.ReadBinaryData("bytes"), (TBytes{0, 1, 2}));
  EXPECT_EQ(registry.ReadBinaryData("none"), TBytes());

  EXPECT_EQ(registry.GetDataType("expand"), DWORD{REG_EXPAND_SZ});
  EXPECT_EQ(registry.GetDataSize("bytes"), 3);
  EXPECT_EQ(registry.GetDataSize("none"), 0);
  EXPECT_EQ(registry.GetDataSize("empty"), 1);
  TStrings names = registry.GetValueNames();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names,
            (TStrings{"", "bytes", "empty", "expand", "false", "large", "lowest", "none", "true"}));
}

TEST(Registry, StringsNeedNoZeroAtTheirEnd) {
  const test::TTemporaryKey key;
  TRegistry registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
  const auto write = [&](const void* data, DWORD size) {
    ASSERT_EQ(::RegSetValueExW(registry.GetCurrentKey(), L"text", 0, REG_SZ,
                               static_cast<const BYTE*>(data), size),
              ERROR_SUCCESS);
  };
  write(L"abc", 6);
  EXPECT_EQ(registry.ReadString("text"), "abc");
  write(L"ab\0c", 10);
  EXPECT_EQ(registry.ReadString("text"), "ab");
  write(nullptr, 0);
  EXPECT_EQ(registry.ReadString("text"), "");
}

TEST(Registry, ReadsOfWhatIsNotThereRaise) {
  const test::TTemporaryKey key;
  TRegistry registry;
  EXPECT_THROW(registry.ReadString("a"), ERegistryException);  // no key is open
  EXPECT_THROW(registry.WriteString("a", ""), ERegistryException);
  EXPECT_THROW(registry.GetKeyNames(), ERegistryException);
  EXPECT_THROW(registry.GetValueNames(), ERegistryException);

  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
  EXPECT_FALSE(registry.ValueExists("a"));
  EXPECT_EQ(registry.GetDataSize("a"), -1);
  EXPECT_EQ(registry.GetDataType("a"), DWORD{REG_NONE});
  EXPECT_THROW(registry.ReadBinaryData("a"), ERegistryException);
  EXPECT_FALSE(registry.DeleteValue("a"));
  registry.WriteString("a", "1");
  EXPECT_TRUE(registry.ValueExists("A"));
  EXPECT_THROW(registry.ReadInteger("a"), ERegistryException);
  EXPECT_THROW(registry.ReadBinaryData("a"), ERegistryException);
  registry.WriteInteger("a", 1);
  EXPECT_THROW(registry.ReadString("a"), ERegistryException);
  EXPECT_TRUE(registry.DeleteValue("a"));
  EXPECT_EQ(registry.GetValueNames(), TStrings());

  ASSERT_TRUE(registry.OpenKeyReadOnly("\\" + key.Path()));
  EXPECT_THROW(registry.WriteString("a", ""), ERegistryException);
}

// 300 characters: longer than what the first try has room for.
TEST(Registry, LongNamesAreListed) {
  const test::TTemporaryKey key;
  TRegistry registry;
  ASSERT_TRUE(registry.OpenKey(key.Path(), false));
  const std::string longName(300, 'n');
  registry.WriteInteger("before", 1);
  registry.WriteInteger(longName, 1);
  TStrings names = registry.GetValueNames();
  EXPECT_EQ(std::count(names.begin(), names.end(), longName), 1);
  EXPECT_EQ(names.size(), 2u);
}

}  // namespace
}  // namespace velox
