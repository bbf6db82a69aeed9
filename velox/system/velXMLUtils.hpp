#pragma once

#include <memory>
#include <string>

#include "velox/containers/velIntfArray.hpp"
#include "velox/runtime/velCompiler.hpp"
#include "velox/runtime/velWindowsServices.hpp"

/// Makes XML readable: one element a line, indented with tabs.
///
/// The documents are those of MSXML's DOM. What is inserted are text nodes in the tree itself, so
/// that the next save, by whatever means, writes the lines. Every line ends in CR LF, a level is
/// one tab:
///
///     <order><item>nut</item><item/></order>      <order>
///                                                 	<item>nut</item>
///                                                 	<item/>
///                                                 </order>
///
/// An element that holds nothing but text, or nothing, stays on its line. Where text stands beside
/// other children, the text is left as it is and only the edges get their lines: blanks at the
/// beginning and at the end are taken for indentation. So formatting what is formatted
/// changes nothing. Attributes are not touched.
///
/// Blanks between elements count as text, too: a document that was loaded with its white space
/// (preserveWhiteSpace) keeps those, and one loaded without has lost those of its texts.
///
/// Comments, processing instructions and CDATA sections count as children that are no text: a CDATA
/// section alone in its element gets a line of its own, and with it the element's text gets blanks
/// at its ends. The children of an entity reference are formatted as an element's are; where the
/// DOM keeps them from being changed, it refuses that.
///
/// Whoever makes the document initialises COM. A failing call of COM raises EOleSysError with its
/// code; what was inserted up to then stays. The depth of the tree is limited by memory alone, not
/// by the stack; but each line repeats its indentation, so the size of the text grows with the
/// square of the depth.
///
/// Threads: those on which the document may be used, one at a time.
namespace velox {

/// A counted reference to a document, given back when it goes.
using TXMLDocumentReference = std::unique_ptr<IXMLDOMDocument, TInterfaceRelease>;

/// The document to which the node belongs; the node itself when it is one.
VELOX_API TXMLDocumentReference XMLGetNodeDocument(IXMLDOMNode& Node);

/// Formats what is below the node. Indent is how the line of the node itself is indented: as many
/// tabs as it has elements around it, none for the document's element. The node is not the document
/// itself, in which the DOM accepts no text.
VELOX_API void XMLFormatNode(IXMLDOMNode& Node, const std::string& Indent);

/// Normalises the document's element (which joins texts that stand side by side), then formats it.
/// Nothing happens to a document without an element.
VELOX_API void XMLFormatDocument(IXMLDOMDocument& Document);

}  // namespace velox
