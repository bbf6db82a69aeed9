#include "velox/runtime/velRegistryKey.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

#include "tests/support/temporary_key.hpp"

namespace velox {
namespace {

using TBytes = std::vector<uint8_t>;

class Registry : public testing::Test {
 protected:
  const test::TTemporaryKey Key_;
  TRegistry Registry_;
};

TEST_F(Registry, KeysAreFoundFromTheOpenOneOrFromTheRoot) {
  EXPECT_EQ(Registry_.GetRootKey(), HKEY_CURRENT_USER);
  EXPECT_FALSE(Registry_.OpenKey(Key_.Path() + "\\one", false));
  EXPECT_EQ(::GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(Registry_.GetCurrentKey(), nullptr);
  ASSERT_TRUE(Registry_.OpenKey(Key_.Path() + "\\one\\two", true));
  ASSERT_TRUE(Registry_.OpenKey("three", true));
  EXPECT_EQ(Registry_.GetCurrentPath(), Key_.Path() + "\\one\\two\\three");
  ASSERT_TRUE(Registry_.OpenKey("\\" + Key_.Path(), false));
  EXPECT_EQ(Registry_.GetCurrentPath(), Key_.Path());
  EXPECT_FALSE(Registry_.OpenKey("two", false));
  EXPECT_EQ(Registry_.GetCurrentPath(), Key_.Path());  // the old one is still open
  EXPECT_TRUE(Registry_.KeyExists("one\\two\\three"));
  EXPECT_TRUE(Registry_.CreateKey("other"));
  EXPECT_EQ(Registry_.GetKeyNames(), (TStrings{"one", "other"}));

  EXPECT_FALSE(Registry_.DeleteKey(""));
  EXPECT_FALSE(Registry_.DeleteKey("\\"));
  EXPECT_FALSE(Registry_.DeleteKey("missing"));
  EXPECT_TRUE(Registry_.DeleteKey("one"));  // with what is below
  EXPECT_EQ(Registry_.GetKeyNames(), TStrings{"other"});

  ASSERT_TRUE(Registry_.OpenKey(Registry_.GetCurrentPath(), true));
  EXPECT_EQ(Registry_.GetCurrentPath(), Key_.Path() + "\\" + Key_.Path());

  Registry_.SetRootKey(HKEY_CURRENT_USER);
  EXPECT_NE(Registry_.GetCurrentKey(), nullptr);
  Registry_.SetRootKey(HKEY_LOCAL_MACHINE);
  EXPECT_EQ(Registry_.GetCurrentKey(), nullptr);
  EXPECT_EQ(Registry_.GetCurrentPath(), "");
  EXPECT_FALSE(Registry_.KeyExists(Key_.Path()));
}

TEST_F(Registry, KeysAreClosed) {
  const uint32_t before = test::HandleCount();
  {
    TRegistry registry;
    for (const char* path : {"\\one", "\\two"})
      EXPECT_TRUE(registry.OpenKey(Key_.Path() + path, true));
    EXPECT_TRUE(registry.KeyExists("\\" + Key_.Path() + "\\one"));
    EXPECT_TRUE(registry.DeleteKey("\\" + Key_.Path() + "\\one"));
  }
  EXPECT_EQ(test::HandleCount(), before);
}

TEST_F(Registry, ValuesComeBackAsWritten) {
  ASSERT_TRUE(Registry_.OpenKey(Key_.Path(), false));
  const std::string large(100'000, 'x');
  Registry_.WriteString("", "default");
  Registry_.WriteString("empty", "");
  Registry_.WriteExpandString("expand", "%PATH%;");
  Registry_.WriteString("large", large);
  Registry_.WriteInteger("lowest", std::numeric_limits<int32_t>::min());
  Registry_.WriteBool("true", true);
  Registry_.WriteBool("false", false);
  Registry_.WriteBinaryData("bytes", "\0\1\2", 3);
  Registry_.WriteBinaryData("none", nullptr, 0);
  const std::string longName(300, 'n');  // longer than what the first try has room for
  Registry_.WriteInteger(longName, 1);
  EXPECT_THROW(Registry_.WriteBinaryData("none", "", -1), Exception);

  EXPECT_EQ(Registry_.ReadString(""), "default");
  EXPECT_EQ(Registry_.ReadString("empty"), "");
  EXPECT_EQ(Registry_.ReadString("expand"), "%PATH%;");
  EXPECT_EQ(Registry_.ReadString("large"), large);
  EXPECT_EQ(Registry_.ReadInteger("lowest"), std::numeric_limits<int32_t>::min());
  EXPECT_TRUE(Registry_.ReadBool("true"));
  EXPECT_FALSE(Registry_.ReadBool("false"));
  EXPECT_EQ(Registry_.ReadBinaryData("bytes"), (TBytes{0, 1, 2}));
  EXPECT_EQ(Registry_.ReadBinaryData("none"), TBytes());

  EXPECT_EQ(Registry_.GetDataType("expand"), DWORD{REG_EXPAND_SZ});
  EXPECT_EQ(Registry_.GetDataSize("bytes"), 3);
  EXPECT_EQ(Registry_.GetDataSize("none"), 0);
  EXPECT_EQ(Registry_.GetDataSize("empty"), 1);
  TStrings names = Registry_.GetValueNames();
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (TStrings{"", "bytes", "empty", "expand", "false", "large", "lowest", longName,
                             "none", "true"}));
}

TEST_F(Registry, StringsNeedNoZeroAtTheirEnd) {
  ASSERT_TRUE(Registry_.OpenKey(Key_.Path(), false));
  const auto write = [&](const void* data, DWORD size) {
    ASSERT_EQ(::RegSetValueExW(Registry_.GetCurrentKey(), L"text", 0, REG_SZ,
                               static_cast<const BYTE*>(data), size),
              ERROR_SUCCESS);
  };
  write(L"abc", 6);
  EXPECT_EQ(Registry_.ReadString("text"), "abc");
  write(L"ab\0c", 10);
  EXPECT_EQ(Registry_.ReadString("text"), "ab");
  write(nullptr, 0);
  EXPECT_EQ(Registry_.ReadString("text"), "");
}

TEST_F(Registry, ReadsOfWhatIsNotThereRaise) {
  EXPECT_THROW(Registry_.ReadString("a"), ERegistryException);  // no key is open
  EXPECT_THROW(Registry_.WriteString("a", ""), ERegistryException);
  EXPECT_THROW(Registry_.GetKeyNames(), ERegistryException);

  ASSERT_TRUE(Registry_.OpenKey(Key_.Path(), false));
  EXPECT_FALSE(Registry_.ValueExists("a"));
  EXPECT_EQ(Registry_.GetDataSize("a"), -1);
  EXPECT_EQ(Registry_.GetDataType("a"), DWORD{REG_NONE});
  EXPECT_THROW(Registry_.ReadBinaryData("a"), ERegistryException);
  EXPECT_FALSE(Registry_.DeleteValue("a"));
  Registry_.WriteString("a", "1");
  EXPECT_TRUE(Registry_.ValueExists("A"));
  EXPECT_THROW(Registry_.ReadInteger("a"), ERegistryException);
  EXPECT_THROW(Registry_.ReadBinaryData("a"), ERegistryException);
  Registry_.WriteInteger("a", 1);
  EXPECT_THROW(Registry_.ReadString("a"), ERegistryException);
  EXPECT_TRUE(Registry_.DeleteValue("a"));
  EXPECT_EQ(Registry_.GetValueNames(), TStrings());

  ASSERT_TRUE(Registry_.OpenKeyReadOnly("\\" + Key_.Path()));
  EXPECT_THROW(Registry_.WriteString("a", ""), ERegistryException);
}

}  // namespace
}  // namespace velox
