#include "documents.hpp"

#include <cstring>
#include <vector>

#include "examples/support/whole_file.hpp"

namespace documents {

using namespace velox;

TBstr NewBstr(const wchar_t* Text) {
  TBstr made(::SysAllocString(Text), &::SysFreeString);
  if (made == nullptr) throw EOutOfMemory();
  return made;
}

TXMLDocumentReference NewDocument() {
  void* document = nullptr;
  OleCheck(::CoCreateInstance(CLSID_DOMDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                              &document));
  return TXMLDocumentReference(static_cast<IXMLDOMDocument*>(document));
}

namespace {

std::string NarrowOf(BSTR Text) {
  const int length = static_cast<int>(::SysStringLen(Text));
  std::string narrow(size_t{2} * ::SysStringLen(Text), '\0');  // a character has two bytes at most
  narrow.resize(static_cast<size_t>(::WideCharToMultiByte(
      CP_ACP, 0, Text, length, narrow.data(), static_cast<int>(narrow.size()), nullptr, nullptr)));
  return narrow;
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

}  // namespace

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

}  // namespace documents
