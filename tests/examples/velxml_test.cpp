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

// Blanks are indentation among elements alone; saved, loaded and formatted again, all stays.
TEST(VelXml, KeepsBlanksOfTexts) {
  const struct {
    const char* Xml;
    const char* Expected;
  } cases[] = {
      {"<p>see <b>A</b> <i>B</i> now<q> </q></p>",
       "<p>\n\tsee <b>A</b> <i>B</i> now<q> </q>\n</p>"},
      {"<a>\n  <b> <c/> </b>\n  <!-- d -->\n</a>",
       "<a>\n\t<b>\n\t\t<c/>\n\t</b>\n\t<!-- d -->\n</a>"},
      {"<a><b/> <![CDATA[x]]> </a>", "<a>\n\t<b/> <![CDATA[x]]>\n</a>"},
      {"<a> <b xml:space='preserve'> <c xml:space='preserve'> </c>  <d/></b> </a>",
       "<a>\n\t<b xml:space=\"preserve\"> <c xml:space=\"preserve\"> </c>  <d/></b>\n</a>"},
      {"<a xml:space='preserve'> <b/></a>", "<a xml:space=\"preserve\"> <b/></a>"},
  };
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in.xml");
  for (const auto& each : cases) {
    test::WriteFileBytes(file, each.Xml);
    for (int pass = 0; pass < 2; ++pass) {
      ASSERT_EQ(test::RunExample("velxml", {file, file}).ExitCode, 0) << each.Xml;
      std::string text = test::ReadFileBytes(file);
      std::erase(text, '\r');
      EXPECT_NE(text.find(each.Expected), std::string::npos) << pass << ": " << text;
    }
  }
}

TEST(VelXml, BearsDeepNesting) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in.xml");
  std::string deep;
  for (int i = 0; i < 200; ++i) deep += "<e>";
  deep += "t";
  for (int i = 0; i < 200; ++i) deep += "</e>";
  test::WriteFileBytes(file, deep);
  ASSERT_EQ(test::RunExample("velxml", {file, file}).ExitCode, 0);
  const std::string text = test::ReadFileBytes(file);
  EXPECT_NE(
      text.find("\n" + std::string(199, '\t') + "<e>t</e>\n" + std::string(198, '\t') + "</e>"),
      std::string::npos);
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
