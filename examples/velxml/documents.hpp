#pragma once

#include <memory>
#include <string>

#include "velox/foundation/velSysUtils.hpp"
#include "velox/system/velXMLUtils.hpp"

/// XML documents from files and into files, by the DOM of the system.
namespace documents {

template <class T>
using TReference = std::unique_ptr<T, velox::TInterfaceRelease>;

/// What a member function of the DOM returns through its pointer; null when that is nothing.
template <class T, class Interface>
TReference<T> Ask(Interface& Object, HRESULT (WINAPI Interface::*Member)(T**)) {
  T* found = nullptr;
  velox::OleCheck((Object.*Member)(&found));
  return TReference<T>(found);
}

/// A text for the DOM, or one of its.
using TBstr = std::unique_ptr<OLECHAR, decltype(&::SysFreeString)>;

TBstr NewBstr(const wchar_t* Text);

/// An empty document. The calling thread must have COM.
velox::TXMLDocumentReference NewDocument();

/// Reads the file into the document, all its blanks included; what the file refers to is not
/// fetched. Raises Exception, which tells the line and the fault, for what is not XML.
void Load(IXMLDOMDocument& Document, const std::string& FileName);

/// Makes the document's text the file's content.
void Save(IXMLDOMDocument& Document, const std::string& FileName);

}  // namespace documents
