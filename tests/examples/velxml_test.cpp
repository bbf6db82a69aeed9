#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "tests/examples/run_example.hpp"
#include "tests/support/support.hpp"

namespace velox {
namespace {

/// What becomes of a document in its own file, and stays when it is formatted again.
std::string Formatted(const std::string& Xml) {
  const test::TTemporaryFolder folder;
  const std::string file = folder.File("in.xml");
  test::WriteFileBytes(file, Xml);
  std::string texts[2];
  for (std::string& text : texts) {
    test::ExampleOutput("velxml", {file, file});
    text = test::ReadFileBytes(file);
    std::erase(text, '\r');
  }
  EXPECT_EQ(texts[0], texts[1]);
  return texts[0];
}

// Blanks are indentation among elements alone.
TEST(VelXml, FormatsAndKeepsBlanksOfTexts) {
  const std::pair<const char*, const char*> cases[] = {
      {"<?xml version=\"1.0\"?><a> <b x=\"1\">t</b><c>\n<d/> and <e/> </c>\n<f> x<g/>y </f></a>",
       "<a>\n\t<b x=\"1\">t</b>\n\t<c>\n\t\t<d/> and "
       "<e/>\n\t</c>\n\t<f>\n\t\tx<g/>y\n\t</f>\n</a>"},
      {"<p>see <b>A</b> <i>B</i> now<q> </q></p>",
       "<p>\n\tsee <b>A</b> <i>B</i> now<q> </q>\n</p>"},
      {"<a>\n  <b> <c/> </b>\n  <!-- d -->\n</a>",
       "<a>\n\t<b>\n\t\t<c/>\n\t</b>\n\t<!-- d -->\n</a>"},
      {"<a><b/> <![CDATA[x]]> </a>", "<a>\n\t<b/> <![CDATA[x]]>\n</a>"},
      {"<a> <b xml:space='preserve'> <c xml:space='preserve'> </c>  <d/></b> </a>",
       "<a>\n\t<b xml:space=\"preserve\"> <c xml:space=\"preserve\"> </c>  <d/></b>\n</a>"},
      {"<a xml:space='preserve'> <b/></a>", "<a xml:space=\"preserve\"> <b/></a>"},
  };
  for (const auto& [xml, expected] : cases) {
    const std::string text = Formatted(xml);
    EXPECT_NE(text.find(expected), std::string::npos) << text;
  }
}

TEST(VelXml, BearsDeepNesting) {
  std::string deep = "t";
  for (int i = 0; i < 200; ++i) deep = "<e>" + deep + "</e>";
  const std::string inner =
      "\n" + std::string(199, '\t') + "<e>t</e>\n" + std::string(198, '\t') + "</e>";
  EXPECT_NE(Formatted(deep).find(inner), std::string::npos);
}

TEST(VelXml, RefusesInOneLineAndLeavesTheTargetAlone) {
  const test::TTemporaryFolder folder;
  const std::string good = folder.File("good.xml"), bad = folder.File("bad.xml"),
                    empty = folder.File("empty.xml"), out = folder.File("out.xml");
  test::WriteFileBytes(good, "<a><b/></a>");
  test::WriteFileBytes(bad, "<a>\n<b></a>");
  test::WriteFileBytes(empty, "");
  test::WriteFileBytes(out, "as it was");
  EXPECT_TRUE(test::ExampleRefusal("velxml", {bad, out}).starts_with(bad + " cannot be read: "));
  const TStrings cases[] = {{empty, out},
                            {folder.Path(), out},
                            {folder.File("none"), out},
                            {good},
                            {good, folder.File("no\\such\\folder")}};
  for (const TStrings& arguments : cases) test::ExampleRefusal("velxml", arguments);
  EXPECT_EQ(test::ReadFileBytes(out), "as it was");
}

}  // namespace
}  // namespace velox
