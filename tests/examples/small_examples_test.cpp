#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "tests/support/temporary_key.hpp"

namespace velox {
namespace {

using test::RunExample;

TEST(First, TicksThreeTimes) {
  const auto run = RunExample("first", {});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Lines, (TStrings{"tick 1", "tick 2", "tick 3"}));
}

TEST(VelAddr, ExpandsAList) {
  const TStrings lines = RunExample("veladdr", {"10.0.0.3-10.0.0.5,10.0.0.4,192.168.1.*"}).Lines;
  ASSERT_EQ(lines.size(), 3u + 254u);
  EXPECT_EQ(TStrings(lines.begin(), lines.begin() + 4),
            (TStrings{"10.0.0.3", "10.0.0.4", "10.0.0.5", "192.168.1.1"}));
}

TEST(VelAddr, RefusesWhatIsNoAddress) {
  const auto run = RunExample("veladdr", {"10.0.0.3,10.0.0.x"});
  EXPECT_EQ(run.ExitCode, 1);
  ASSERT_EQ(run.Lines.size(), 1u);
  EXPECT_EQ(run.Lines[0].rfind("veladdr: ", 0), 0u) << run.Lines[0];
}

TEST(VelFind, FindsLinesInFilesOnSeveralThreads) {
  const test::TTemporaryFolder folder;
  TStrings arguments{"needle"}, expected;
  for (int i = 0; i < 12; ++i) {
    const std::string file = folder.File("f" + std::to_string(i));
    test::WriteFileBytes(file, "hay\r\na needle\r\nhay\nneedle " + std::to_string(i));
    arguments.push_back(file);
    expected.push_back(file + ":2: a needle");
    expected.push_back(file + ":4: needle " + std::to_string(i));
  }
  auto run = RunExample("velfind", arguments);
  EXPECT_EQ(run.ExitCode, 0);
  std::sort(run.Lines.begin(), run.Lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(run.Lines, expected);
  EXPECT_EQ(RunExample("velfind", {"no such text", arguments[1]}).ExitCode, 1);
  EXPECT_EQ(RunExample("velfind", {"needle", folder.File("none"), arguments[1]}).ExitCode, 2);
}

TEST(VelList, WritesShowsAndDeletes) {
  const test::TTemporaryKey key;
  EXPECT_EQ(RunExample("vellist", {"write", key.Path(), "L", "one", "two words"}).ExitCode, 0);
  EXPECT_EQ(RunExample("vellist", {"show", key.Path(), "L"}).Lines, (TStrings{"one", "two words"}));
  EXPECT_EQ(RunExample("vellist", {"delete", key.Path(), "L"}).ExitCode, 0);
  EXPECT_EQ(RunExample("vellist", {"show", key.Path(), "L"}).ExitCode, 1);
  EXPECT_EQ(RunExample("vellist", {"show", key.Path() + "\\none", "L"}).Lines,
            TStrings{"vellist: Cannot open the key " + key.Path() + "\\none"});
}

TEST(VelLog, KeepsWhatAProgramPrints) {
  const std::string text = test::UniqueName("said ");
  const auto run = RunExample("vellog", {"cmd.exe", "/c", "echo " + text + "& exit 7"});
  EXPECT_EQ(run.ExitCode, 7);
  EXPECT_EQ(run.Lines, TStrings{text});
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  const std::string log = test::ReadFileBytes(
      std::string(program, std::string(program).rfind('\\') + 1) + "vellog.log");
  EXPECT_NE(log.find("]  " + text + "\r\n"), std::string::npos);
  EXPECT_EQ(RunExample("vellog", {"no_such_program"}).ExitCode, 1);
}

TEST(VelWatch, TellsWhatComesAndGoes) {
  const test::TTemporaryFolder folder;
  // Without the backslash at its end, which would guard the quotation mark.
  const std::string path = folder.Path().substr(0, folder.Path().size() - 1);
  TStrings lines;
  auto react = [&](const std::string& Line) {
    lines.push_back(Line);
    if (Line.starts_with("watching")) test::WriteFileBytes(folder.File("a"), "");
    if (Line == "new  a") ::DeleteFileA(folder.File("a").c_str());
    if (Line == "gone a") test::WriteFileBytes(folder.File("wanted"), "");
  };
  char program[MAX_PATH] = "";
  ::GetModuleFileNameA(nullptr, program, sizeof program);
  const std::string bin(program, std::string(program).rfind('\\') + 1);
  const std::string command = "\"" + bin + "velwatch.exe\" \"" + path + "\" 60 wanted";
  EXPECT_EQ(ExecuteProcess(command, "", TProcessOutputEvent::To(react), false, nullptr), 0);
  EXPECT_EQ(lines, (TStrings{"watching " + path, "new  a", "gone a", "new  wanted"}));
  EXPECT_EQ(RunExample("velwatch", {path, "1", "never"}).ExitCode, 2);
  EXPECT_EQ(RunExample("velwatch", {folder.File("none"), "1"}).ExitCode, 1);
}

TEST(VelWords, CountsWords) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("text");
  test::WriteFileBytes(file, "The cat, the dog; THE END and a cat");
  const auto run = RunExample("velwords", {file, "2"});
  EXPECT_EQ(run.ExitCode, 0);
  EXPECT_EQ(run.Lines, (TStrings{"     3  the", "     2  cat", "6 different words"}));
}

}  // namespace
}  // namespace velox
