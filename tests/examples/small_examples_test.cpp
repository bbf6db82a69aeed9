#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "tests/support/temporary_key.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

using test::ExampleOutput;
using test::ExampleRefusal;
using test::RunExample;

TEST(Samples, DoWhatTheDocumentationSaysOfThem) {
  EXPECT_EQ(ExampleOutput("samples", {}), TStrings{"all samples went well"});
}

TEST(First, TicksThreeTimes) {
  EXPECT_EQ(ExampleOutput("first", {}), (TStrings{"tick 1", "tick 2", "tick 3"}));
}

TEST(VelAddr, ExpandsAListAndRefusesWhatIsNoAddress) {
  const TStrings lines = ExampleOutput("veladdr", {"10.0.0.3-10.0.0.5,10.0.0.4,192.168.1.*"});
  ASSERT_EQ(lines.size(), 3u + 254u);
  EXPECT_EQ(TStrings(lines.begin(), lines.begin() + 4),
            (TStrings{"10.0.0.3", "10.0.0.4", "10.0.0.5", "192.168.1.1"}));
  ExampleRefusal("veladdr", {"10.0.0.3,10.0.0.x"});
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
  TStrings lines = ExampleOutput("velfind", arguments);
  std::sort(lines.begin(), lines.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(RunExample("velfind", {"no such text", arguments[1]}).ExitCode, 1);
  EXPECT_EQ(RunExample("velfind", {"needle", folder.File("none"), arguments[1]}).ExitCode, 2);
}

TEST(VelList, WritesShowsAndDeletes) {
  const test::TTemporaryKey key;
  ExampleOutput("vellist", {"write", key.Path(), "L", "one", "two words"});
  EXPECT_EQ(ExampleOutput("vellist", {"show", key.Path(), "L"}), (TStrings{"one", "two words"}));
  ExampleOutput("vellist", {"delete", key.Path(), "L"});
  EXPECT_EQ(RunExample("vellist", {"show", key.Path(), "L"}).ExitCode, 1);
  EXPECT_EQ(ExampleRefusal("vellist", {"show", key.Path() + "\\none", "L"}),
            "Cannot open the key " + key.Path() + "\\none");
}

test::TExampleRun RunVelLog(const std::string& Command) {
  return test::RunCommand(test::ExampleCommand("vellog") + " " + Command);
}

TEST(VelLog, KeepsWhatAProgramPrints) {
  const std::string text = test::UniqueName("said ");
  const auto run = RunVelLog("cmd.exe /c \"echo " + text + "& exit 7\"");
  EXPECT_EQ(run.ExitCode, 7);
  EXPECT_EQ(run.Lines, TStrings{text});
  const std::string log = test::ReadFileBytes(test::FileOfPrograms("vellog.log"));
  EXPECT_NE(log.find("]  " + text + "\r\n"), std::string::npos);
  EXPECT_EQ(RunVelLog("no_such_program").ExitCode, 1);
  EXPECT_EQ(RunVelLog("cmd.exe /c \"exit -1\"").ExitCode, -1);
}

const test::TRole WordsRole("words", [](const TStrings& Words) {
  for (const std::string& word : Words) std::printf("%s\n", word.c_str());
  return 0;
});

TEST(VelLog, PassesEachWordOnAsItIs) {
  const TStrings written{R"(ends with a\\)", R"(a \"quoted\" one)", "", "last"};
  EXPECT_EQ(RunVelLog(test::RoleCommand("words", written)).Lines,
            (TStrings{R"(ends with a\)", R"(a "quoted" one)", "", "last"}));
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
  const std::string command = test::ExampleCommand("velwatch") + "\"" + path + "\" 60 wanted";
  EXPECT_EQ(ExecuteProcess(command, "", TProcessOutputEvent::To(react), false, nullptr), 0);
  EXPECT_EQ(lines, (TStrings{"watching " + path, "new  a", "gone a", "new  wanted"}));
  EXPECT_EQ(RunExample("velwatch", {path, "1", "never"}).ExitCode, 2);
  EXPECT_EQ(RunExample("velwatch", {folder.File("none"), "1"}).ExitCode, 1);
}

class VelMsi : public ::testing::Test {
 protected:
  VelMsi() {
    Run({"create"});
    Run({"run", "CREATE TABLE `T` (`K` SHORT NOT NULL, `V` LONGCHAR PRIMARY KEY `K`)"});
  }

  TStrings Run(TStrings Arguments) {
    Arguments.insert(Arguments.begin(), File_);
    return test::ExampleOutput("velmsi", Arguments);
  }

  const test::TTemporaryFolder Folder_;
  const std::string File_ = Folder_.File("t.msi");
};

TEST_F(VelMsi, PrintsEachRowInOneLine) {
  Run({"run", "INSERT INTO `T` (`K`, `V`) VALUES (1, ?)", "a\tb\r\n\\it's"});
  Run({"run", "INSERT INTO `T` (`K`) VALUES (2)"});
  EXPECT_EQ(Run({"tables"}), TStrings{"T"});
  EXPECT_EQ(Run({"export", "T"}), (TStrings{"K\tV", "1\ta\\tb\\r\\n\\\\it's", "2\t"}));
  EXPECT_EQ(Run({"query", "SELECT `K` FROM `T` WHERE `V` = ?", "none"}), TStrings{});
  EXPECT_EQ(Run({"query", " select\t`K` FROM `T`"}), (TStrings{"1", "2"}));
}

TEST_F(VelMsi, RefusesInOneLine) {
  const TStrings cases[] = {{"create"},
                            {"export", "None"},
                            {"export", "a`b"},
                            {"query", "SELECT `X` FROM `T`"},
                            {"query", "DELETE FROM `T`"},
                            {"run", "DELETE `T`"},
                            {"run"},
                            {"tables", "T"},
                            {"other"}};
  for (TStrings arguments : cases) {
    arguments.insert(arguments.begin(), File_);
    test::ExampleRefusal("velmsi", arguments);
  }
  for (const std::string& file : {Folder_.File("none.msi"), Folder_.File(".")})
    EXPECT_TRUE(test::ExampleRefusal("velmsi", {file, "tables"}).starts_with("cannot open "));
  EXPECT_EQ(Run({"export", "T"}), TStrings{"K\tV"});
  // That the file is not there is no reason for not creating it.
  const std::string line =
      test::ExampleRefusal("velmsi", {Folder_.File("no\\such\\t.msi"), "create"});
  EXPECT_EQ(line.find(SystemErrorMessage(ERROR_FILE_NOT_FOUND)), std::string::npos) << line;
}

TEST(VelWords, CountsWords) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("text");
  test::WriteFileBytes(file, "The cat, the dog; THE END and a cat");
  EXPECT_EQ(ExampleOutput("velwords", {file, "2"}),
            (TStrings{"     3  the", "     2  cat", "6 different words"}));
}

}  // namespace
}  // namespace velox
