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

}  // namespace
}  // namespace velox
