// The in-house XML document model.
//
// Documents are parsed with expat into our own small tree: elements with their attributes in
// document order, text nodes and CDATA sections. Adjacent character data forms one text node
// (expat hands it over in pieces and splits it at entity and character references), and each
// CDATA section is its own node, so that code reading the tree sees text exactly as written.
// Names are kept as written, prefixes included ("kivm:param"); namespace declarations are
// ordinary attributes. Comments and processing instructions are dropped. Each parsed element
// remembers the line and column of its start tag, so that code reading a configuration can tell
// an operator where a value it found questionable was written.
//
// Parsing is safe on hostile input: a document type declaration may not declare entities, no
// external entity is ever loaded, only the predefined and character references expand, and
// elements nest at most kMaxDepth deep. Every failure raises XmlException naming the source
// (file name or "<string>"), the line and the column.
//
// A document and its nodes are immutable once parsed and may be read from many threads.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "zq/webkeel/exception.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/string.h"

namespace kiv {

class XmlElement;

class XmlException : public Exception {
public:
    // text: what went wrong; source: the file name or "<string>"; line and column from 1,
    // 0 when they do not apply (a missing attribute, a file that cannot be read).
    XmlException(const String& text, const String& source = String(), unsigned nLine = 0,
                 unsigned nColumn = 0);
    const String& getText() const noexcept { return m_strText; }
    const String& getSource() const noexcept { return m_strSource; }
    unsigned getXmlLine() const noexcept { return m_nXmlLine; }
    unsigned getXmlColumn() const noexcept { return m_nXmlColumn; }
    ZQ_EXCEPTION_COMMON(XmlException)

private:
    String m_strText;
    String m_strSource;
    unsigned m_nXmlLine;
    unsigned m_nXmlColumn;
};

class XmlNode : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    enum NodeType { kTypeElement = 1, kTypeText = 3, kTypeCDataSection = 5 };

    NodeType getNodeType() const noexcept { return m_nType; }
    NodeType getType() const noexcept { return m_nType; }
    // The text of a text or CDATA node; empty for an element.
    const String& getNodeValue() const noexcept { return m_strValue; }
    const XmlElement* getParent() const noexcept { return m_pParent; }
    const XmlNode* getNextSibling() const noexcept { return m_pNextSibling; }
    // This node as an element, or null when it is not one.
    const XmlElement* asElement() const noexcept;

protected:
    XmlNode(NodeType nType, String strValue) : m_nType(nType), m_strValue(std::move(strValue)) {}

private:
    friend class XmlElement;
    NodeType m_nType;
    String m_strValue;
    const XmlElement* m_pParent = nullptr;
    const XmlNode* m_pNextSibling = nullptr;
};

class XmlText : public XmlNode {
public:
    XmlText(NodeType nType, String strText) : XmlNode(nType, std::move(strText)) {}
};

class XmlElement : public XmlNode {
public:
    using Attribute = std::pair<String, String>;

    explicit XmlElement(String strName);

    const String& getName() const noexcept { return m_strName; }
    // The line (from 1) of the element's start tag in the parsed text; 0 for an element built
    // in code. Lines count the text the parser was given: a document that was serialised and
    // parsed again reports the lines of the new text.
    unsigned getLine() const noexcept { return m_nLine; }
    void setLine(unsigned nLine) noexcept { m_nLine = nLine; }
    // The column (from 1, in bytes of the UTF-8 text) of the "<" of the start tag; 0 for an
    // element built in code.
    unsigned getColumn() const noexcept { return m_nColumn; }
    void setColumn(unsigned nColumn) noexcept { m_nColumn = nColumn; }

    // Children in document order; elements, text and CDATA nodes.
    const std::vector<Handle<XmlNode>>& getChildNodes() const noexcept { return m_vecChildren; }
    const XmlNode* getFirstChild() const noexcept;
    const XmlElement* getFirstChildElement() const noexcept;
    const XmlElement* getNextSiblingElement() const noexcept;

    const std::vector<Attribute>& getAttributes() const noexcept { return m_vecAttributes; }
    bool hasAttribute(std::wstring_view name) const noexcept;
    // Null when absent.
    const String* findAttribute(std::wstring_view name) const noexcept;
    // The value of an attribute. A missing attribute gives an empty string, unless bRequired,
    // in which case XmlException names the element and the attribute.
    String getAttributeValue(std::wstring_view name, bool bRequired = false) const;
    // The same without a copy: a reference to the stored value (or to an empty string).
    const String& unchecked_getAttributeValue(std::wstring_view name, bool bRequired = false) const;

    // Elements below this one by a slash-separated path of child element names
    // ("Writers/Writer"), each step matching names exactly. An empty path selects this
    // element. selectSingleElement returns the first match in document order or null.
    const XmlElement* selectSingleElement(std::wstring_view path) const;
    std::vector<const XmlElement*> selectElements(std::wstring_view path) const;

    // The concatenation of every text and CDATA node below this element, in document order.
    String getInnerText() const;

    // This element as XML text (no declaration); text is escaped as character data, CDATA
    // sections are kept as CDATA. Parsing the result gives back an equal tree.
    String toXmlString() const;

    // Building (used by the parser and by code that makes documents programmatically).
    void setAttribute(String name, String value);
    XmlElement& appendElement(String name);
    void appendText(String text, NodeType nType = kTypeText);

private:
    void appendChild(Handle<XmlNode> hChild);

    String m_strName;
    unsigned m_nLine = 0;
    unsigned m_nColumn = 0;
    std::vector<Attribute> m_vecAttributes;
    std::vector<Handle<XmlNode>> m_vecChildren;
};

class XmlDocument {
public:
    static constexpr unsigned kMaxDepth = 256;

    XmlDocument() = default;

    // Loads a file. The encoding is decided by the byte-order mark: UTF-8, UTF-16 LE or BE;
    // without one, by the XML declaration (UTF-8 when it names none).
    static XmlDocument loadFromFile(const NString& path);
    // Parses UTF-8 text; sourceName is what errors name ("<string>" by default).
    static XmlDocument parseString(std::string_view utf8, const String& sourceName = String());
    // Parses wide text (converted to UTF-8 first).
    static XmlDocument parseString(const String& text, const String& sourceName = String());

    const XmlElement* getDocumentElement() const noexcept { return m_hRoot.get(); }
    const Handle<XmlElement>& getDocumentElementHandle() const noexcept { return m_hRoot; }
    bool isEmpty() const noexcept { return m_hRoot.isNull(); }

private:
    Handle<XmlElement> m_hRoot;
};

}  // namespace kiv
