#include <gtest/gtest.h>

#include <string>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

TEST(VelXml, FormatsAFileInPlace) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in.xml");
  test::WriteFileBytes(
      file,
      "<?xml version=\"1.0\"?><a> <b x=\"1\">t</b><c>\n<d/> and <e/> </c>\n<f> x<g/>y </f></a>");
  std::string first;
  for (int pass = 0; pass < 2; ++pass) {
    const auto run = test::RunExample("velxml", {file, file});
    ASSERT_EQ(run.ExitCode, 0) << run.Lines.at(0);
    std::string text = test::ReadFileBytes(file);
    std::erase(text, '\r');
    EXPECT_NE(text.find("<a>\n\t<b x=\"1\">t</b>\n\t<c>\n\t\t<d/> and "
                        "<e/>\n\t</c>\n\t<f>\n\t\tx<g/>y\n\t</f>\n</a>"),
              std::string::npos)
        << text;
    if (pass == 0) first = text;
    EXPECT_EQ(text, first);
  }
}

TEST(VelXml, RefusesInOneLineAndLeavesTheTargetAlone) {
  const test::TTemporaryFolder folder;
  const std::string good = folder.File("good.xml"), bad = folder.File("bad.xml"),
                    empty = folder.File("empty.xml"), out = folder.File("out.xml");
  test::WriteFileBytes(good, "<a><b/></a>");
  test::WriteFileBytes(bad, "<a>\n<b></a>");
  test::WriteFileBytes(empty, "");
  test::WriteFileBytes(out, "as it was");
  const std::vector<std::string> cases[] = {{bad, out},
                                            {empty, out},
                                            {folder.Path(), out},
                                            {folder.File("none"), out},
                                            {good},
                                            {good, folder.File("no\\such\\folder")}};
  for (const auto& arguments : cases) {
    const auto run = test::RunExample("velxml", arguments);
    EXPECT_EQ(run.ExitCode, 1) << arguments[0];
    ASSERT_EQ(run.Lines.size(), 1u) << arguments[0];
    EXPECT_EQ(run.Lines[0].rfind("velxml: ", 0), 0u) << run.Lines[0];
  }
  EXPECT_EQ(test::ReadFileBytes(out), "as it was");
  const std::string line = test::RunExample("velxml", {bad, out}).Lines.at(0);
  EXPECT_EQ(line.rfind("velxml: " + bad + " cannot be read: ", 0), 0u) << line;
}

}  // namespace
}  // namespace velox
