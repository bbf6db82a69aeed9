#include <gtest/gtest.h>

#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"
#include "velox/runtime/velSystemMessage.hpp"

namespace velox {
namespace {

class VelMsi : public ::testing::Test {
 protected:
  VelMsi() {
    EXPECT_EQ(Run({"create"}).ExitCode, 0);
    EXPECT_EQ(Run({"run", "CREATE TABLE `T` (`K` SHORT NOT NULL, `V` LONGCHAR PRIMARY KEY `K`)"})
                  .ExitCode,
              0);
  }

  test::TExampleRun Run(std::vector<std::string> Arguments) {
    Arguments.insert(Arguments.begin(), File_);
    return test::RunExample("velmsi", Arguments);
  }

  const test::TTemporaryFolder Folder_;
  const std::string File_ = Folder_.File("t.msi");
};

TEST_F(VelMsi, PrintsEachRowInOneLine) {
  EXPECT_EQ(Run({"run", "INSERT INTO `T` (`K`, `V`) VALUES (1, ?)", "a\tb\r\n\\it's"}).ExitCode, 0);
  EXPECT_EQ(Run({"run", "INSERT INTO `T` (`K`) VALUES (2)"}).ExitCode, 0);
  EXPECT_EQ(Run({"tables"}).Lines, TStrings{"T"});
  EXPECT_EQ(Run({"export", "T"}).Lines, (TStrings{"K\tV", "1\ta\\tb\\r\\n\\\\it's", "2\t"}));
  EXPECT_EQ(Run({"query", "SELECT `K` FROM `T` WHERE `V` = ?", "none"}).Lines, TStrings{});
  EXPECT_EQ(Run({"query", " select\t`K` FROM `T`"}).Lines, (TStrings{"1", "2"}));
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
  for (const TStrings& arguments : cases) {
    const auto run = Run(arguments);
    EXPECT_EQ(run.ExitCode, 1) << arguments[0];
    ASSERT_EQ(run.Lines.size(), 1u) << arguments[0];
    EXPECT_EQ(run.Lines[0].rfind("velmsi: ", 0), 0u) << run.Lines[0];
  }
  for (const std::string& file : {Folder_.File("none.msi"), Folder_.File(".")}) {
    const auto run = test::RunExample("velmsi", {file, "tables"});
    EXPECT_EQ(run.ExitCode, 1);
    ASSERT_EQ(run.Lines.size(), 1u);
    EXPECT_EQ(run.Lines[0].rfind("velmsi: cannot open ", 0), 0u) << run.Lines[0];
  }
  EXPECT_EQ(Run({"export", "T"}).Lines, TStrings{"K\tV"});
  // That the file is not there is no reason for not creating it.
  const std::string line =
      test::RunExample("velmsi", {Folder_.File("no\\such\\t.msi"), "create"}).Lines.at(0);
  EXPECT_EQ(line.find(SystemErrorMessage(ERROR_FILE_NOT_FOUND)), std::string::npos) << line;
}

}  // namespace
}  // namespace velox
