#include "velox/system/velXMLUtils.hpp"

#include <gtest/gtest.h>

#include "examples/velxml/documents.hpp"
#include "tests/support/support.hpp"
#include "velox/runtime/velComThread.hpp"
#include "velox/runtime/velException.hpp"

namespace velox {
namespace {

using documents::Ask;
using documents::NewBstr;
using documents::TReference;

std::wstring TakeText(BSTR Text) {
  const documents::TBstr owned(Text, &::SysFreeString);
  return std::wstring(Text, ::SysStringLen(Text));
}

TXMLDocumentReference LoadDocument(const wchar_t* Xml) {
  TXMLDocumentReference document = documents::NewDocument();
  OleCheck(document->put_preserveWhiteSpace(VARIANT_TRUE));
  VARIANT_BOOL loaded = VARIANT_FALSE;
  OleCheck(document->loadXML(NewBstr(Xml).get(), &loaded));
  if (loaded == VARIANT_FALSE) throw Exception("the document cannot be read");
  return document;
}

template <class Interface>
std::wstring AskText(Interface& Object, HRESULT (WINAPI Interface::*Member)(BSTR*)) {
  BSTR found = nullptr;
  OleCheck((Object.*Member)(&found));
  return TakeText(found);
}

TReference<IXMLDOMElement> Root(IXMLDOMDocument& Document) {
  return Ask(Document, &IXMLDOMDocument::get_documentElement);
}

TReference<IXMLDOMNode> FirstChild(IXMLDOMNode& Node) {
  return Ask(Node, &IXMLDOMNode::get_firstChild);
}

TReference<IXMLDOMNode> NextSibling(IXMLDOMNode& Node) {
  return Ask(Node, &IXMLDOMNode::get_nextSibling);
}

TReference<IXMLDOMText> NewText(IXMLDOMDocument& Document, const wchar_t* Text) {
  IXMLDOMText* made = nullptr;
  OleCheck(Document.createTextNode(NewBstr(Text).get(), &made));
  return TReference<IXMLDOMText>(made);
}

std::wstring ValueOf(IXMLDOMNode& Node) {
  VARIANT value{};
  OleCheck(Node.get_nodeValue(&value));
  return TakeText(value.bstrVal);
}

/// The attributes of an element, each as in a document.
std::wstring AttributesOf(IXMLDOMNode& Element) {
  const auto map = Ask(Element, &IXMLDOMNode::get_attributes);
  std::wstring text;
  while (const auto attribute = Ask(*map, &IXMLDOMNamedNodeMap::nextNode)) {
    text +=
        L" " + AskText(*attribute, &IXMLDOMNode::get_nodeName) + L"='" + ValueOf(*attribute) + L"'";
  }
  return text;
}

/// What the DOM keeps of the line feeds in a text, each of which stands for CR LF: some drop the
/// carriage return.
std::wstring Lines(std::wstring Text) {
  const std::wstring line = ValueOf(*NewText(*documents::NewDocument(), L"\r\n"));
  for (size_t i = 0; (i = Text.find(L'\n', i)) != std::wstring::npos; i += line.size())
    Text.replace(i, 1, line);
  return Text;
}

/// The node and what is below it, as the tree has it: a saved text may hold lines that the writer
/// added.
std::wstring TreeText(IXMLDOMNode& Node) {
  DOMNodeType type;
  OleCheck(Node.get_nodeType(&type));
  const std::wstring name = AskText(Node, &IXMLDOMNode::get_nodeName);
  switch (type) {
    case NODE_TEXT:
      return ValueOf(Node);
    case NODE_ELEMENT: {
      std::wstring text = L"<" + name + AttributesOf(Node) + L">";
      for (auto child = FirstChild(Node); child != nullptr; child = NextSibling(*child))
        text += TreeText(*child);
      return text + L"</>";
    }
    case NODE_ENTITY_REFERENCE:
      return L"[&" + name + L"]";
    default:
      return L"[" + name + L" " + ValueOf(Node) + L"]";
  }
}

class XMLFormat : public ::testing::Test {
 private:
  TComThread Com_;
};

TEST_F(XMLFormat, BreaksLines) {
  const struct {
    const wchar_t* Xml;
    const wchar_t* Expected;
  } cases[] = {
      {L"<a/>", L"<a></>"},
      {L"<a> text </a>", L"<a> text </>"},
      {L"<a x=' 1 '><b/></a>", L"<a x=' 1 '>\n\t<b></>\n</>"},
      {L"<a><b>t</b><c><d/><d/></c></a>",
       L"<a>\n\t<b>t</>\n\t<c>\n\t\t<d></>\n\t\t<d></>\n\t</>\n</>"},
      // Text and other children: the edges alone.
      {L"<a> \t&#13;\n x <b/> y \t\n</a>", L"<a>\n\tx <b></> y\n</>"},
      {L"<a>x<b/></a>", L"<a>\n\tx<b></>\n</>"},
      {L"<a><b/> <c/>y </a>", L"<a>\n\t<b></> <c></>y\n</>"},
      {L"<a> <b/></a>", L"<a>\n\t<b></>\n</>"},
      {L"<a>x<b> <c/></b>y</a>", L"<a>\n\tx<b>\n\t\t<c></>\n\t</>y\n</>"},
      {L"<a> 1 &lt; 2 &amp;amp; <b/></a>", L"<a>\n\t1 < 2 &amp; <b></>\n</>"},
      // What is no text.
      {L"<a><!-- c --><?p d?></a>", L"<a>\n\t[#comment  c ]\n\t[p d]\n</>"},
      {L"<a><![CDATA[ x ]]></a>", L"<a>\n\t[#cdata-section  x ]\n</>"},
      {L"<a>t<![CDATA[ x ]]></a>", L"<a>\n\tt[#cdata-section  x ]\n</>"},
      {L"<a><b/><!-- c -->t</a>", L"<a>\n\t<b></>[#comment  c ]t\n</>"},
  };
  for (const auto& each : cases) {
    const TXMLDocumentReference document = LoadDocument(each.Xml);
    const auto root = Root(*document);
    for (int pass = 0; pass < 2; ++pass) {  // what is formatted stays as it is
      XMLFormatNode(*root, "");
      EXPECT_EQ(TreeText(*root), Lines(each.Expected)) << pass;
    }
    // Nor do saving and loading make a difference.
    const TXMLDocumentReference again =
        LoadDocument(AskText<IXMLDOMNode>(*root, &IXMLDOMNode::get_xml).c_str());
    const auto loaded = Root(*again);
    XMLFormatNode(*loaded, "");
    std::wstring lines = TreeText(*loaded);
    std::erase(lines, L'\r');  // which loading drops from the lines within
    EXPECT_EQ(lines, each.Expected);
  }
}

// The children of a declared one may be the declaration itself, which stays as it is.
TEST_F(XMLFormat, LeavesDeclarationsOfEntitiesAlone) {
  const TXMLDocumentReference document =
      LoadDocument(L"<!DOCTYPE a [<!ENTITY e \"t\"><!ENTITY f \"<x/>\">]><a><b/>&e;&f;</a>");
  const auto declarations = [&] {
    const std::wstring text = AskText<IXMLDOMNode>(*document, &IXMLDOMNode::get_xml);
    return text.substr(0, text.find(L"]>"));
  };
  const std::wstring declared = declarations();
  EXPECT_NE(declared.find(L"ENTITY f"), std::wstring::npos);
  const auto root = Root(*document);
  for (int pass = 0; pass < 2; ++pass) {
    XMLFormatNode(*root, "");
    EXPECT_EQ(TreeText(*root), Lines(L"<a>\n\t<b></>\n\t[&e]\n\t[&f]\n</>")) << pass;
    EXPECT_EQ(declarations(), declared);
  }
}

TEST_F(XMLFormat, StartsAtTheGivenIndentation) {
  const TXMLDocumentReference document = LoadDocument(L"<a><b><c/></b><d/></a>");
  const auto root = Root(*document);
  XMLFormatNode(*FirstChild(*root), "\t");
  EXPECT_EQ(TreeText(*root), Lines(L"<a><b>\n\t\t<c></>\n\t</><d></></>"));
}

// A function that called itself would need more stack than the thread has.
TEST_F(XMLFormat, ReachesTenThousandLevels) {
  constexpr size_t depth = 10'000;
  const TXMLDocumentReference document = documents::NewDocument();
  TReference<IXMLDOMNode> bottom;
  for (size_t i = 0; i < depth; ++i) {
    IXMLDOMElement* made = nullptr;
    OleCheck(document->createElement(NewBstr(L"e").get(), &made));
    TReference<IXMLDOMNode> element(made);
    IXMLDOMNode& parent = bottom == nullptr ? *document : *bottom;
    OleCheck(parent.appendChild(made, nullptr));
    bottom = std::move(element);
  }
  XMLFormatNode(*Root(*document), "");
  EXPECT_EQ(ValueOf(*Ask(*bottom, &IXMLDOMNode::get_previousSibling)),
            Lines(L"\n" + std::wstring(depth - 1, L'\t')));
}

TEST_F(XMLFormat, FindsTheDocument) {
  const TXMLDocumentReference document = LoadDocument(L"<a/>");
  const auto root = Root(*document);
  EXPECT_EQ(XMLGetNodeDocument(*document).get(), document.get());
  const TXMLDocumentReference found = XMLGetNodeDocument(*root);
  OleCheck(found->removeChild(root.get(), nullptr));
  EXPECT_EQ(FirstChild(*document), nullptr);
}

TEST_F(XMLFormat, FormatsDocuments) {
  XMLFormatDocument(*documents::NewDocument());  // nothing there
  const TXMLDocumentReference document = LoadDocument(L"<a><b/></a>");
  const auto root = Root(*document);
  const HRESULT normalized = root->normalize();
  if (FAILED(normalized)) {
    try {
      XMLFormatDocument(*document);
      FAIL() << "formatted without being normalised";
    } catch (const EOleSysError& e) {
      EXPECT_EQ(e.ErrorCode, normalized);
      EXPECT_EQ(TreeText(*root), L"<a><b></></>");
    }
    GTEST_SKIP() << "this system's DOM cannot normalise: " << std::hex << normalized;
  }
  const TXMLDocumentReference parts = LoadDocument(L"<a><b/> x</a>");
  const auto top = Root(*parts);
  OleCheck(top->appendChild(NewText(*parts, L" ").get(), nullptr));
  XMLFormatDocument(*parts);
  EXPECT_EQ(TreeText(*top), Lines(L"<a>\n\t<b></> x\n</>"));
}

TEST(OleCheck, RaisesForFailuresOnly) {
  for (const HRESULT good : {S_OK, S_FALSE}) OleCheck(good);
  const std::string raised = test::MessageOf([] { OleCheck(E_NOTIMPL); });
  EXPECT_TRUE(raised.starts_with("COM Error. Code: 0x80004001. ")) << raised;
}

}  // namespace
}  // namespace velox
