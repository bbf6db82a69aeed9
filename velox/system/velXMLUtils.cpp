#include "velox/system/velXMLUtils.hpp"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velSystemLibrary.hpp"

namespace velox {
namespace {

using TNode = std::unique_ptr<IXMLDOMNode, TInterfaceRelease>;

const TSystemFunction<decltype(&::SysAllocStringLen)> AllocateString("oleaut32.dll",
                                                                     "SysAllocStringLen");
const TSystemFunction<decltype(&::SysStringLen)> StringLength("oleaut32.dll", "SysStringLen");
const TSystemFunction<decltype(&::VariantClear)> ClearVariant("oleaut32.dll", "VariantClear");

constexpr std::wstring_view LineBreak = L"\r\n";
constexpr std::wstring_view Blanks = L" \t\r\n";  // XML's white space

/// A VARIANT that owns a text, or has none.
class TText {
 public:
  TText() = default;
  explicit TText(std::wstring_view Text) {
    Value_.bstrVal = AllocateString(Text.data(), static_cast<UINT>(Text.size()));
    if (Value_.bstrVal == nullptr) throw EOutOfMemory();
    Value_.vt = VT_BSTR;
  }
  ~TText() { ClearVariant(&Value_); }
  TText(const TText&) = delete;
  TText& operator=(const TText&) = delete;

  VARIANT* Receive() { return &Value_; }
  BSTR GetString() const { return Value_.bstrVal; }
  /// Empty for a value that is no text.
  std::wstring_view View() const {
    if (Value_.vt != VT_BSTR) return {};
    return {Value_.bstrVal, StringLength(Value_.bstrVal)};
  }

 private:
  VARIANT Value_{};
};

/// What a member function of the DOM returns through its pointer; null when that is nothing.
template <class T, class Interface>
std::unique_ptr<T, TInterfaceRelease> Ask(Interface& Object,
                                          HRESULT (WINAPI Interface::*Member)(T**)) {
  T* found = nullptr;
  OleCheck((Object.*Member)(&found));
  return std::unique_ptr<T, TInterfaceRelease>(found);
}

DOMNodeType TypeOf(IXMLDOMNode& Node) {
  DOMNodeType type = NODE_INVALID;
  OleCheck(Node.get_nodeType(&type));
  return type;
}

bool IsText(IXMLDOMNode& Node) { return TypeOf(Node) == NODE_TEXT; }

std::unique_ptr<IXMLDOMText, TInterfaceRelease> NewText(IXMLDOMDocument& Document,
                                                        std::wstring_view Text) {
  const TText value(Text);
  IXMLDOMText* made = nullptr;
  OleCheck(Document.createTextNode(value.GetString(), &made));
  return std::unique_ptr<IXMLDOMText, TInterfaceRelease>(made);
}

void InsertText(IXMLDOMDocument& Document, IXMLDOMNode& Parent, IXMLDOMNode& Before,
                std::wstring_view Text) {
  VARIANT before{};  // borrows the reference
  before.vt = VT_UNKNOWN;
  before.punkVal = &Before;
  OleCheck(Parent.insertBefore(NewText(Document, Text).get(), before, nullptr));
}

void AppendText(IXMLDOMDocument& Document, IXMLDOMNode& Parent, std::wstring_view Text) {
  OleCheck(Parent.appendChild(NewText(Document, Text).get(), nullptr));
}

/// Each child gets a line, and so does the end of the node.
void BreakLines(IXMLDOMDocument& Document, IXMLDOMNode& Node, const std::wstring& Line) {
  const std::wstring childLine = Line + L'\t';
  for (TNode child = Ask(Node, &IXMLDOMNode::get_firstChild); child != nullptr;
       child = Ask(*child, &IXMLDOMNode::get_nextSibling)) {
    InsertText(Document, Node, *child, childLine);
  }
  AppendText(Document, Node, Line);
}

/// Replaces the blanks at one end of a text by a line break. The text's own interface is asked for:
/// as a node's value, some DOMs would write the carriage return as a character reference.
void SetEdge(IXMLDOMNode& Node, std::wstring_view Before, std::wstring_view After) {
  void* found = nullptr;
  OleCheck(Node.QueryInterface(IID_IXMLDOMText, &found));
  const std::unique_ptr<IXMLDOMText, TInterfaceRelease> text(static_cast<IXMLDOMText*>(found));
  TText old;
  OleCheck(Node.get_nodeValue(old.Receive()));
  std::wstring_view kept = old.View();
  if (!Before.empty()) kept.remove_prefix(std::min(kept.find_first_not_of(Blanks), kept.size()));
  if (!After.empty()) kept = kept.substr(0, kept.find_last_not_of(Blanks) + 1);  // npos + 1 is 0
  const std::wstring changed = std::wstring(Before).append(kept).append(After);
  if (changed != old.View()) OleCheck(text->put_data(TText(changed).GetString()));
}

/// Text beside other children: only the first and the last line are ours.
void BreakEdges(IXMLDOMDocument& Document, IXMLDOMNode& Node, const std::wstring& Line) {
  const TNode first = Ask(Node, &IXMLDOMNode::get_firstChild);
  if (IsText(*first)) {
    SetEdge(*first, Line + L'\t', {});
  } else {
    InsertText(Document, Node, *first, Line + L'\t');
  }
  const TNode last = Ask(Node, &IXMLDOMNode::get_lastChild);
  if (IsText(*last)) {
    SetEdge(*last, {}, Line);
  } else {
    AppendText(Document, Node, Line);
  }
}

/// A node whose children are being walked.
struct TLevel {
  TLevel(IXMLDOMNode& ANode, TNode AReference)
      : Node(&ANode),
        Reference(std::move(AReference)),
        Next(Ask(ANode, &IXMLDOMNode::get_firstChild)) {}

  IXMLDOMNode* Node;
  TNode Reference;  // keeps the node, unless the caller does
  TNode Next;       // the child to look at
  bool HasText = false;
  bool HasOther = false;
};

/// Formats a node whose children were walked, and are formatted themselves.
void BreakLevel(IXMLDOMDocument& Document, const TLevel& Level, const std::wstring& Line) {
  if (!Level.HasOther) return;
  if (Level.HasText) {
    BreakEdges(Document, *Level.Node, Line);
  } else {
    BreakLines(Document, *Level.Node, Line);
  }
}

std::wstring WideOf(const std::string& Text) {
  const int size = static_cast<int>(Text.size());
  std::wstring wide(Text.size(), L'\0');  // a byte makes one character at most
  wide.resize(
      static_cast<size_t>(::MultiByteToWideChar(CP_ACP, 0, Text.data(), size, wide.data(), size)));
  return wide;
}

}  // namespace

TXMLDocumentReference XMLGetNodeDocument(IXMLDOMNode& Node) {
  if (TypeOf(Node) != NODE_DOCUMENT) return Ask(Node, &IXMLDOMNode::get_ownerDocument);
  void* document = nullptr;
  OleCheck(Node.QueryInterface(IID_IXMLDOMDocument, &document));
  return TXMLDocumentReference(static_cast<IXMLDOMDocument*>(document));
}

void XMLFormatNode(IXMLDOMNode& Node, const std::string& Indent) {
  const TXMLDocumentReference document = XMLGetNodeDocument(Node);
  std::wstring line = std::wstring(LineBreak) + WideOf(Indent);
  // A stack of our own: documents may be deeper than the thread's stack bears.
  std::vector<TLevel> levels;
  levels.emplace_back(Node, nullptr);
  while (true) {
    TLevel& level = levels.back();
    if (level.Next == nullptr) {
      BreakLevel(*document, level, line);
      levels.pop_back();
      if (levels.empty()) return;
      line.pop_back();
      continue;
    }
    TNode child = std::move(level.Next);
    level.Next = Ask(*child, &IXMLDOMNode::get_nextSibling);
    const DOMNodeType type = TypeOf(*child);
    (type == NODE_TEXT ? level.HasText : level.HasOther) = true;
    if (type != NODE_ELEMENT && type != NODE_ENTITY_REFERENCE) continue;
    IXMLDOMNode& node = *child;
    levels.emplace_back(node, std::move(child));
    line += L'\t';
  }
}

void XMLFormatDocument(IXMLDOMDocument& Document) {
  const auto element = Ask(Document, &IXMLDOMDocument::get_documentElement);
  if (element == nullptr) return;
  OleCheck(element->normalize());
  XMLFormatNode(*element, {});
}

}  // namespace velox
