#include "velox/foundation/velSysUtils.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <iterator>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

TEST(SysUtilsErrors, CarryTheCodeAndTheSystemsText) {
  EXPECT_EQ(test::ErrorCodeOf([] { RaiseLastOSErrorEx(0); }), 0);
  EXPECT_EQ(test::ErrorCodeOf([] { RaiseLastOSErrorEx(-2147024891); }), 0x80070005);
  EXPECT_EQ(test::ErrorCodeOf([] { CheckOSResult(0); }), -1);
  const auto raise = [] {
    ::SetLastError(ERROR_FILE_NOT_FOUND);
    RaiseLastOSError();
  };
  EXPECT_EQ(test::ErrorCodeOf(raise), 2);
  const std::string text = test::MessageOf(raise);
  EXPECT_NE(text.find(SystemErrorMessage(2)), std::string::npos) << text;
}

TEST(SysUtilsErrors, FilteredChecksLetTheAllowedPass) {
  const auto check = [](uint32_t error, const auto& allowed) {
    return test::ErrorCodeOf([&] {
      ::SetLastError(error);
      CheckOSResultFiltered(allowed);
    });
  };
  EXPECT_EQ(check(997, 997u), -1);
  EXPECT_EQ(check(0, 997u), -1);
  EXPECT_EQ(check(5, 997u), 5);
  const std::vector<uint32_t> none, two{997, 6};
  EXPECT_EQ(check(0, none), -1);
  EXPECT_EQ(check(5, none), 5);
  EXPECT_EQ(check(6, two), -1);
  EXPECT_EQ(check(5, two), 5);
}

TEST(SysUtilsPaths, NamesWithoutExtension) {
  const char* cases[][2] = {
      {"C:\\data\\log.2.txt", "log.2"},
      {"dir.d\\name", "name"},
      {"C:name.x", "name"},
      {"a/b.c", "b"},
      {"C:\\dir\\", ""},
      {"", ""},
      {".x", ""},
  };
  for (const auto& [path, expected] : cases)
    EXPECT_EQ(ExtractFileNameWithoutExt(path), expected) << path;
}

TEST(SysUtilsPaths, MissingFoldersAreMade) {
  const test::TTemporaryFolder folder;
  test::WriteFileBytes(folder.File("file"), "x");
  EXPECT_TRUE(EnsurePathExists(folder.Path()));
  EXPECT_TRUE(EnsurePathExists(folder.File("a\\b\\c")));
  EXPECT_TRUE(EnsurePathExists(folder.File("a\\d\\")));
  EXPECT_TRUE(EnsurePathExists(folder.File("e/f")));
  for (const char* made : {"a\\b\\c", "a\\d", "e\\f"}) {
    EXPECT_TRUE(std::filesystem::is_directory(folder.File(made))) << made;
  }
  EXPECT_FALSE(EnsurePathExists(folder.File("file")));
  EXPECT_FALSE(EnsurePathExists(folder.File("file\\a\\b")));
  EXPECT_FALSE(EnsurePathExists("Q:\\no\\such\\drive"));
  EXPECT_FALSE(EnsurePathExists("Q:"));
  EXPECT_FALSE(EnsurePathExists(""));

  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder.Path());
  EXPECT_TRUE(EnsurePathExists("relative\\x"));
  std::filesystem::current_path(before);
  EXPECT_TRUE(std::filesystem::is_directory(folder.File("relative\\x")));
}

TEST(SysUtilsPaths, ExpandsFromTheBase) {
  const char* cases[][3] = {
      {"C:\\base", "\\x\\y", "C:\\x\\y"},
      {"C:\\base", "", "C:\\base"},
      {"C:\\base", "x\\..\\y.txt", "C:\\base\\y.txt"},
      {"C:\\base\\", "y.txt", "C:\\base\\y.txt"},
      {"C:\\base", "D:y", "D:y"},
      {"C:\\base", "D:\\y\\..\\z", "D:\\y\\..\\z"},
      {"C:\\base", "\\\\server\\share\\x", "\\\\server\\share\\x"},
      {"C:\\base", "/x", "C:\\base\\x"},
      {"\\\\server\\share\\base", "\\x", "\\\\server\\share\\x"},
      {"", "C:\\x\\..\\y", "C:\\y"},
      {"", "", ""},
  };
  for (const auto& [base, path, expected] : cases) {
    EXPECT_EQ(ExpandToAbsolutePath(base, path), expected) << base << " + " << path;
  }
  EXPECT_EQ(ExpandToAbsolutePath("", "x"), (std::filesystem::current_path() / "x").string());
  EXPECT_THROW(ExpandToAbsolutePath("C:\\base", std::string(MAX_PATH, 'n')), EOSError);
}

TEST(SysUtilsTime, FileTimesBecomeLocal) {
  constexpr TDateTime Minute = 1.0 / 1440;
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  EXPECT_NEAR(FileTimeToDateTime(now), Now(), Minute);
  const FILETIME invalid{0xFFFFFFFF, 0xFFFFFFFF}, year10000{0, 0x25000000};
  EXPECT_THROW(FileTimeToDateTime(invalid), EOSError);
  EXPECT_THROW(FileTimeToDateTime(year10000), EOSError);
}

TEST(SysUtilsTime, ThrottlesToOnceASecond) {
  constexpr TDateTime Second = 1.0 / 86400;
  TDateTime last = 0;
  EXPECT_TRUE(WaitOneSecond(last));
  EXPECT_NEAR(last, Now(), 60 * Second);
  TDateTime ahead = Now() + 100 * Second;
  const TDateTime unchanged = ahead;
  EXPECT_FALSE(WaitOneSecond(ahead));
  EXPECT_EQ(ahead, unchanged);
  TDateTime before = Now() - 1.5 * Second;
  EXPECT_TRUE(WaitOneSecond(before));
}

TEST(SysUtilsCommandLine, SplitsAsCProgramsDo) {
  // The second to the fifth are the examples of Microsoft's "Parsing C Command-Line Arguments".
  const struct {
    const char* Line;
    TStrings Expected;
  } cases[] = {
      {"program", {}},
      {"program \"a b c\" d e", {"a b c", "d", "e"}},
      {"program \"ab\\\"c\" \"\\\\\" d", {"ab\"c", "\\", "d"}},
      {"program a\\\\\\b d\"e f\"g h", {"a\\\\\\b", "de fg", "h"}},
      {"program a\\\\\\\"b c d", {"a\\\"b", "c", "d"}},
      {"program a\\\\\\\\\"b c\" d e", {"a\\\\b c", "d", "e"}},
      {"program a\"b\"\" c d", {"ab\" c d"}},
      {"\"C:\\my program.exe\"   x\t\"\"  ", {"x", ""}},
      {"C:\\dir\\\"my program\".exe x\\", {"x\\"}},
      {"program \"open end", {"open end"}},
      {"", {}},
  };
  for (const auto& c : cases) EXPECT_EQ(SplitCommandLine(c.Line), c.Expected) << c.Line;
}

/// Runs in a child that was given: -portX "" /Verbose +level=3 "-name=a b" plain
const test::TRole SwitchesRole("switches", [](const std::vector<std::string>&) {
  const struct {
    const char* Switch;
    const char* Chars;  // null: the short forms
    bool IgnoreCase;
    bool Found;
    const char* Value;
  } cases[] = {
      {"port", nullptr, true, true, "X"},    {"PORT", nullptr, true, true, "X"},
      {"po", nullptr, true, true, "rtX"},    {"portXY", nullptr, true, false, ""},
      {"verbose", nullptr, true, true, ""},  {"level", nullptr, true, false, ""},
      {"level=", "+", true, true, "3"},      {"port", "+", true, false, ""},
      {"Port", "-", false, false, ""},       {"port", "-", false, true, "X"},
      {"name=", nullptr, true, true, "a b"}, {"lain", "", true, true, ""},
      {"erbose", nullptr, true, false, ""},  {"verbose", "", false, false, ""},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    TCharSet chars;
    for (const char* p = c.Chars; p != nullptr && *p != 0; ++p)
      chars.set(static_cast<unsigned char>(*p));
    std::string value = "old";
    const bool found = c.Chars == nullptr
                           ? FindCmdLineSwitchEx(c.Switch, value)
                           : FindCmdLineSwitchEx(c.Switch, chars, c.IgnoreCase, value);
    const bool same = c.Chars != nullptr || FindSwitch(c.Switch) == found;
    if (found != c.Found || value != c.Value || !same) return static_cast<int>(i) + 1;
  }
  return 0;
});

TEST(SysUtilsCommandLine, FindsSwitches) {
  const TStrings parameters = {"-portX", "", "/Verbose", "+level=3", "-name=a b", "plain"};
  EXPECT_EQ(test::TChild(test::RoleCommand("switches", parameters)).Wait(), 0u)
      << "number of the case that fails";
}

void Print(const std::string& Text) {
  DWORD written = 0;
  ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), Text.data(), static_cast<DWORD>(Text.size()),
              &written, nullptr);
}

/// Writes the bytes that its argument spells in hexadecimal; ends with the code that another one
/// gives, else 7.
const test::TRole PrintRole("print", [](const std::vector<std::string>& Arguments) {
  std::string text;
  for (size_t i = 0; i + 1 < Arguments.at(0).size(); i += 2) {
    text += static_cast<char>(DigitToByte(Arguments[0][i]) << 4 | DigitToByte(Arguments[0][i + 1]));
  }
  if (!text.empty()) Print(text);
  return Arguments.size() > 1 ? std::stoi(Arguments[1]) : 7;
});

constexpr int32_t FloodLines = 1500;
std::string FloodLine(int32_t Index) {
  return std::to_string(Index) + std::string(900 + Index % 200, 'f');
}

/// Writes about 1.5 MB in lines, then 1 MB without a line end.
const test::TRole FloodRole("flood", [](const std::vector<std::string>&) {
  for (int32_t i = 0; i < FloodLines; ++i) Print(FloodLine(i) + "\r\n");
  Print(std::string(1 << 20, 'e'));
  return 0;
});

/// Writes to its standard error until nobody reads that.
const test::TRole EndlessRole("endless", [](const std::vector<std::string>&) {
  DWORD written = 0;
  while (::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), "tick\n", 5, &written, nullptr)) ::Sleep(1);
  return 0;
});

const test::TRole FolderRole("folder", [](const std::vector<std::string>&) {
  Print(std::filesystem::current_path().string());
  return 0;
});

TEST(SysUtilsExecute, CutsTheOutputIntoLines) {
  const std::string full(254, 'x');  // one byte less than is read at once
  const struct {
    std::string Text;
    TStrings Lines;  // without those that a carriage return ends
    TStrings AllLines;
  } cases[] = {
      {"", {}, {}},
      {"one\ntwo\r\n\nthree", {"one", "two", "", "three"}, {"one", "two", "", "three"}},
      {"10%\r50%\rdone\n", {"done"}, {"10%", "50%", "done"}},
      {"10%\r", {}, {"10%"}},
      {"a\r\r\nb\r\n", {"", "b"}, {"a", "", "b"}},
      {full + "\r\nend", {full, "end"}, {full, "end"}},  // the pair stands across two reads
      {full + "\rend\n", {"end"}, {full, "end"}},        // so does the text behind a lone one
      {full + full + "\n\n" + full, {full + full, "", full}, {full + full, "", full}},
  };
  for (const auto& c : cases) {
    const std::string hex =
        BinToHex(c.Text.data(), static_cast<int32_t>(c.Text.size()), "", "", "", "");
    const std::string command = test::RoleCommand("print", {hex});
    const test::TExampleRun some = test::RunCommand(command, false),
                            all = test::RunCommand(command, true);
    EXPECT_EQ(some.Lines, c.Lines) << hex;
    EXPECT_EQ(all.Lines, c.AllLines) << hex;
    EXPECT_EQ(some.ExitCode, 7);
  }
}

TEST(SysUtilsExecute, LosesNothingOfAFlood) {
  const test::TExampleRun output = test::RunCommand(test::RoleCommand("flood"));
  EXPECT_EQ(output.ExitCode, 0);
  ASSERT_EQ(output.Lines.size(), FloodLines + 1u);
  for (int32_t i = 0; i < FloodLines; ++i) ASSERT_EQ(output.Lines[i], FloodLine(i));
  EXPECT_EQ(output.Lines.back(), std::string(1 << 20, 'e'));
  EXPECT_EQ(ExecuteProcess(test::RoleCommand("print", {"4142"}), "", nullptr, true, nullptr), 7);
}

TEST(SysUtilsExecute, CancelEndsTheChild) {
  std::atomic<uint8_t> cancel{1};  // what an earlier run left does not count
  int32_t lines = 0;
  auto count = [&](const std::string& line) {
    EXPECT_EQ(line, "tick");
    if (++lines == 3) cancel = 1;
  };
  EXPECT_EQ(ExecuteProcess(test::RoleCommand("endless"), "", TProcessOutputEvent::To(count), false,
                           &cancel),
            1223);
  EXPECT_GE(lines, 3);
}

TEST(SysUtilsExecute, RunsInTheGivenFolder) {
  const test::TTemporaryFolder folder;
  const test::TExampleRun output =
      test::RunCommand(test::RoleCommand("folder"), false, folder.Path());
  ASSERT_EQ(output.Lines.size(), 1u);
  EXPECT_EQ(output.Lines[0] + "\\", folder.Path());
}

TEST(SysUtilsExecute, AChildsOwnMinusOneIsNoFailure) {
  const test::TExampleRun output = test::RunCommand(test::RoleCommand("print", {"4142", "-1"}));
  const DWORD error = ::GetLastError();
  EXPECT_EQ(output.ExitCode, -1);
  EXPECT_EQ(error, 0u);
  EXPECT_EQ(output.Lines, TStrings{"AB"});
}

TEST(SysUtilsExecute, FailuresLeaveNothingBehind) {
  const std::string endless = test::RoleCommand("endless");
  auto raise = [](const std::string&) { throw EAssertionFailed("enough"); };
  const auto fail = [&] {
    ::SetLastError(0);
    EXPECT_EQ(test::RunCommand("no-such-program.exe").ExitCode, -1);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    // The child then ends by itself, since nobody reads what it writes.
    EXPECT_THROW(ExecuteProcess(endless, "", TProcessOutputEvent::To(raise), false, nullptr),
                 EAssertionFailed);
  };
  fail();
  const uint32_t before = test::HandleCount();
  fail();
  EXPECT_EQ(test::HandleCount(), before);
}

}  // namespace
}  // namespace velox
