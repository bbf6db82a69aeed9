// Writes an XML file again with one element a line, indented with tabs.
//
//     velxml IN OUT

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "documents.hpp"
#include "velox/runtime/velComThread.hpp"

namespace {

using namespace documents;
using namespace velox;

constexpr const char* Usage =
    "usage: velxml IN OUT\n"
    "Writes the XML document in the file IN to the file OUT, formatted: one element a line,\n"
    "indented with tabs. In an element that holds elements and no text, blanks are taken for\n"
    "indentation and are replaced; beside text they stay, but for its ends. An element with\n"
    "xml:space=\"preserve\" stays as it is. OUT may be IN.\n";

/// All elements of the document, the outer ones first.
std::vector<TReference<IXMLDOMNode>> ElementsOf(IXMLDOMDocument& Document) {
  IXMLDOMNodeList* found = nullptr;
  OleCheck(Document.getElementsByTagName(NewBstr(L"*").get(), &found));
  const TReference<IXMLDOMNodeList> list(found);
  std::vector<TReference<IXMLDOMNode>> elements;
  while (auto element = Ask(*list, &IXMLDOMNodeList::nextNode))
    elements.push_back(std::move(element));
  return elements;
}

bool IsBlank(IXMLDOMNode& Text) {
  BSTR found = nullptr;
  OleCheck(Text.get_text(&found));
  const TBstr text(found, &::SysFreeString);
  return std::wstring_view(found, ::SysStringLen(found)).find_first_not_of(L" \t\r\n") ==
         std::wstring_view::npos;
}

/// Removes the blanks of an element that holds other nodes and no text.
void DropIndentation(IXMLDOMNode& Element) {
  std::vector<TReference<IXMLDOMNode>> blanks;
  bool hasOther = false;
  for (auto child = Ask(Element, &IXMLDOMNode::get_firstChild); child != nullptr;) {
    auto next = Ask(*child, &IXMLDOMNode::get_nextSibling);
    DOMNodeType type = NODE_INVALID;
    OleCheck(child->get_nodeType(&type));
    if (type == NODE_CDATA_SECTION || type == NODE_ENTITY_REFERENCE) return;  // text, too
    if (type != NODE_TEXT) {
      hasOther = true;
    } else if (IsBlank(*child)) {
      blanks.push_back(std::move(child));
    } else {
      return;
    }
    child = std::move(next);
  }
  if (!hasOther) return;
  for (const auto& blank : blanks) OleCheck(Element.removeChild(blank.get(), nullptr));
}

bool IsPreserved(IXMLDOMNode& Node) {
  const auto attributes = Ask(Node, &IXMLDOMNode::get_attributes);
  IXMLDOMNode* found = nullptr;
  OleCheck(attributes->getNamedItem(NewBstr(L"xml:space").get(), &found));
  if (found == nullptr) return false;
  const TReference<IXMLDOMNode> space(found);
  BSTR value = nullptr;
  OleCheck(space->get_text(&value));
  const TBstr text(value, &::SysFreeString);
  return value != nullptr && std::wstring_view(value) == L"preserve";
}

void Replace(IXMLDOMNode& Old, IXMLDOMNode& New) {
  OleCheck(Ask(Old, &IXMLDOMNode::get_parentNode)->replaceChild(&New, &Old, nullptr));
}

/// Formats the document's element, in which no two texts stand side by side.
void FormatElement(IXMLDOMDocument& Document) {
  try {
    XMLFormatDocument(Document);
  } catch (const EOleSysError& e) {
    if (e.ErrorCode != E_NOTIMPL) throw;
    // The DOM of Wine cannot normalise, which is to join such texts.
    XMLFormatNode(*Ask(Document, &IXMLDOMDocument::get_documentElement), "");
  }
}

void FormatWhole(IXMLDOMDocument& Document) {
  if (IsPreserved(*Ask(Document, &IXMLDOMDocument::get_documentElement))) return;
  // While the rest is formatted, an empty element stands for each that stays as it is.
  std::vector<std::pair<TReference<IXMLDOMNode>, TReference<IXMLDOMNode>>> preserved;
  for (auto& element : ElementsOf(Document)) {
    if (!IsPreserved(*element)) continue;
    IXMLDOMElement* made = nullptr;
    OleCheck(Document.createElement(NewBstr(L"preserved").get(), &made));
    TReference<IXMLDOMNode> standIn(made);
    Replace(*element, *standIn);
    preserved.emplace_back(std::move(element), std::move(standIn));
  }
  for (const auto& element : ElementsOf(Document)) DropIndentation(*element);
  FormatElement(Document);
  for (const auto& [element, standIn] : preserved) Replace(*standIn, *element);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) return std::fputs(Usage, stdout) < 0;
  if (argc != 3) {
    std::fputs("velxml: usage: velxml IN OUT\n", stderr);
    return 1;
  }
  const TComThread com;
  const TXMLDocumentReference document = NewDocument();
  Load(*document, argv[1]);
  FormatWhole(*document);
  Save(*document, argv[2]);
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "velxml: %s\n", e.what());
  return 1;
}
