// Writes an XML file again with one element a line, indented with tabs.
//
//     velxml IN OUT

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "examples/support/whole_file.hpp"
#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velComThread.hpp"
#include "velox/system/velXMLUtils.hpp"

namespace {

using namespace velox;

constexpr const char* Usage =
    "usage: velxml IN OUT\n"
    "Writes the XML document in the file IN to the file OUT, formatted: one element a line,\n"
    "indented with tabs. In an element that holds elements and no text, blanks are taken for\n"
    "indentation and are replaced; beside text they stay, but for its ends. An element with\n"
    "xml:space=\"preserve\" stays as it is. OUT may be IN.\n";

template <class T>
using TReference = std::unique_ptr<T, TInterfaceRelease>;

/// What a member function of the DOM returns through its pointer; null when that is nothing.
template <class T, class Interface>
TReference<T> Ask(Interface& Object, HRESULT (WINAPI Interface::*Member)(T**)) {
  T* found = nullptr;
  OleCheck((Object.*Member)(&found));
  return TReference<T>(found);
}

/// A text for the DOM, or one of its.
using TBstr = std::unique_ptr<OLECHAR, decltype(&::SysFreeString)>;

TBstr NewBstr(const wchar_t* Text) {
  TBstr made(::SysAllocString(Text), &::SysFreeString);
  if (made == nullptr) throw EOutOfMemory();
  return made;
}

std::string NarrowOf(BSTR Text) {
  const int length = static_cast<int>(::SysStringLen(Text));
  std::string narrow(size_t{2} * ::SysStringLen(Text), '\0');  // a character has two bytes at most
  narrow.resize(static_cast<size_t>(::WideCharToMultiByte(
      CP_ACP, 0, Text, length, narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr)));
  return narrow;
}

TXMLDocumentReference NewDocument() {
  void* document = nullptr;
  OleCheck(::CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                              &document));
  return TXMLDocumentReference(static_cast<IXMLDOMDocument*>(document));
}

/// Tells where the document has its fault, and which.
[[noreturn]] void RefuseDocument(IXMLDOMDocument& Document, const std::string& FileName) {
  const auto error = Ask(Document, &IXMLDOMDocument::get_parseError);
  LONG line = 0, column = 0;
  BSTR reason = nullptr;
  error->get_line(&line);
  error->get_linepos(&column);
  error->get_reason(&reason);
  std::string text = NarrowOf(reason);
  ::SysFreeString(reason);
  text.resize(text.find_last_not_of("\r\n ") + 1);  // npos + 1 is 0
  for (char& c : text) {
    if (c == '\r' || c == '\n') c = ' ';
  }
  const std::string place =
      line > 0 ? Format("line %ld, column %ld: ", line, column) : std::string();
  throw Exception(FileName + " cannot be read: " + place + text);
}

void Load(IXMLDOMDocument& Document, const std::string& FileName) {
  const std::vector<uint8_t> bytes = example::ReadWholeFile(FileName);
  OleCheck(Document.put_async(VARIANT_FALSE));
  OleCheck(Document.put_preserveWhiteSpace(VARIANT_TRUE));  // some of it belongs to texts
  // What the document refers to is not fetched.
  OleCheck(Document.put_resolveExternals(VARIANT_FALSE));
  OleCheck(Document.put_validateOnParse(VARIANT_FALSE));
  VARIANT source{};
  source.vt = VT_ARRAY | VT_UI1;
  source.parray = ::SafeArrayCreateVector(VT_UI1, 0, static_cast<ULONG>(bytes.size()));
  if (source.parray == nullptr) throw EOutOfMemory();
  if (!bytes.empty()) std::memcpy(source.parray->pvData, bytes.data(), bytes.size());
  VARIANT_BOOL loaded = VARIANT_FALSE;
  const HRESULT result = Document.load(source, &loaded);
  ::VariantClear(&source);
  OleCheck(result);
  if (loaded == VARIANT_FALSE) RefuseDocument(Document, FileName);
}

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

void Save(IXMLDOMDocument& Document, const std::string& FileName) {
  IStream* made = nullptr;
  OleCheck(::CreateStreamOnHGlobal(nullptr, TRUE, &made));
  const TReference<IStream> stream(made);
  VARIANT target{};  // borrows the reference
  target.vt = VT_UNKNOWN;
  target.punkVal = made;
  OleCheck(Document.save(target));
  STATSTG state;
  HGLOBAL memory = nullptr;
  OleCheck(stream->Stat(&state, STATFLAG_NONAME));
  OleCheck(::GetHGlobalFromStream(made, &memory));
  if (state.cbSize.QuadPart > INT32_MAX) throw Exception("the formatted document exceeds 2 GiB");
  const void* const data = ::GlobalLock(memory);
  if (data == nullptr) RaiseLastOSError();
  example::WriteWholeFile(FileName, data, static_cast<int32_t>(state.cbSize.QuadPart));
  ::GlobalUnlock(memory);
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
