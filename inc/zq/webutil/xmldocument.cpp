#include "zq/webutil/xmldocument.h"

// The billion-laughs limits are declared only when XML_DTD is defined, while the installed
// library is always built with DTD support.
#ifndef XML_DTD
#define XML_DTD
#endif
#include <expat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

// No entity is ever declared, so nothing legitimate amplifies; these only back up the
// rejection of entity declarations should expat expand something on its own.
constexpr float kMaxAmplification = 10.0f;
constexpr unsigned long long kAmplificationThreshold = 1024ULL * 1024ULL;

// XML_Parse takes an int length, so larger inputs go in pieces.
constexpr std::size_t kMaxChunk = 1U << 30;

const String& emptyString() noexcept {
    static const String s_strEmpty;
    return s_strEmpty;
}

String formatXmlMessage(const String& text, const String& source, unsigned nLine,
                        unsigned nColumn) {
    if (source.empty()) {
        return text;
    }
    String strMessage = source;
    if (nLine != 0) {
        strMessage += L':';
        strMessage += widen(std::to_string(nLine));
        strMessage += L':';
        strMessage += widen(std::to_string(nColumn));
    }
    strMessage += L": ";
    strMessage += text;
    return strMessage;
}

std::vector<std::wstring_view> splitPath(std::wstring_view path) {
    std::vector<std::wstring_view> vecSegments;
    std::size_t nStart = 0;
    while (nStart <= path.size()) {
        std::size_t nEnd = path.find(L'/', nStart);
        if (nEnd == std::wstring_view::npos) {
            nEnd = path.size();
        }
        if (nEnd > nStart) {
            vecSegments.push_back(path.substr(nStart, nEnd - nStart));
        }
        nStart = nEnd + 1;
    }
    return vecSegments;
}

const XmlElement* findFirst(const XmlElement& element,
                            const std::vector<std::wstring_view>& vecSegments, std::size_t nIndex) {
    if (nIndex == vecSegments.size()) {
        return &element;
    }
    for (const XmlElement* pChild = element.getFirstChildElement(); pChild != nullptr;
         pChild = pChild->getNextSiblingElement()) {
        if (pChild->getName().view() == vecSegments[nIndex]) {
            if (const XmlElement* pFound = findFirst(*pChild, vecSegments, nIndex + 1)) {
                return pFound;
            }
        }
    }
    return nullptr;
}

void appendInnerText(const XmlElement& element, String& out) {
    for (const Handle<XmlNode>& hChild : element.getChildNodes()) {
        if (const XmlElement* pChild = hChild->asElement()) {
            appendInnerText(*pChild, out);
        } else {
            out += hChild->getNodeValue();
        }
    }
}

void appendEscaped(String& out, const String& text, bool bAttribute) {
    for (wchar_t c : text) {
        switch (c) {
            case L'&':
                out += L"&amp;";
                break;
            case L'<':
                out += L"&lt;";
                break;
            case L'>':
                out += L"&gt;";
                break;
            case L'"':
                out += bAttribute ? L"&quot;" : L"\"";
                break;
            // A parser turns a literal CR (and, in attributes, tab and LF) into something
            // else, so they go out as references to come back as they are.
            case L'\r':
                out += L"&#13;";
                break;
            case L'\t':
                out += bAttribute ? L"&#9;" : L"\t";
                break;
            case L'\n':
                out += bAttribute ? L"&#10;" : L"\n";
                break;
            default:
                out += c;
                break;
        }
    }
}

void appendCData(String& out, const String& text) {
    // "]]>" would end the section early: it is split across two sections.
    out += L"<![CDATA[";
    std::size_t nStart = 0;
    for (std::size_t nPos = text.find(L"]]>"); nPos != String::npos;
         nPos = text.find(L"]]>", nStart)) {
        out.append(text.data() + nStart, nPos + 2 - nStart);
        out += L"]]><![CDATA[";
        nStart = nPos + 2;
    }
    out.append(text.data() + nStart, text.size() - nStart);
    out += L"]]>";
}

void appendXml(const XmlElement& element, String& out) {
    out += L'<';
    out += element.getName();
    for (const XmlElement::Attribute& attribute : element.getAttributes()) {
        out += L' ';
        out += attribute.first;
        out += L"=\"";
        appendEscaped(out, attribute.second, true);
        out += L'"';
    }
    if (element.getChildNodes().empty()) {
        out += L"/>";
        return;
    }
    out += L'>';
    for (const Handle<XmlNode>& hChild : element.getChildNodes()) {
        if (const XmlElement* pChild = hChild->asElement()) {
            appendXml(*pChild, out);
        } else if (hChild->getNodeType() == XmlNode::kTypeCDataSection) {
            appendCData(out, hChild->getNodeValue());
        } else {
            appendEscaped(out, hChild->getNodeValue(), false);
        }
    }
    out += L"</";
    out += element.getName();
    out += L'>';
}

// Receives expat's events and builds the tree. Nothing may be thrown through expat's C
// frames, so every handler catches and stops the parser; the parse rethrows afterwards.
class TreeBuilder {
public:
    TreeBuilder(XML_Parser parser, String source)
        : m_parser(parser), m_strSource(std::move(source)) {
        XML_SetUserData(parser, this);
        XML_SetElementHandler(parser, &TreeBuilder::onStartElement, &TreeBuilder::onEndElement);
        XML_SetCharacterDataHandler(parser, &TreeBuilder::onCharacterData);
        XML_SetCdataSectionHandler(parser, &TreeBuilder::onStartCData, &TreeBuilder::onEndCData);
        XML_SetEntityDeclHandler(parser, &TreeBuilder::onEntityDecl);
        XML_SetSkippedEntityHandler(parser, &TreeBuilder::onSkippedEntity);
        XML_SetExternalEntityRefHandler(parser, &TreeBuilder::onExternalEntityRef);
        XML_SetParamEntityParsing(parser, XML_PARAM_ENTITY_PARSING_NEVER);
        XML_SetBillionLaughsAttackProtectionMaximumAmplification(parser, kMaxAmplification);
        XML_SetBillionLaughsAttackProtectionActivationThreshold(parser, kAmplificationThreshold);
    }

    Handle<XmlElement> parse(std::string_view bytes) {
        std::size_t nOffset = 0;
        do {
            const std::size_t nChunk = std::min(bytes.size() - nOffset, kMaxChunk);
            const bool bFinal = nOffset + nChunk == bytes.size();
            const XML_Status status = XML_Parse(m_parser, bytes.data() + nOffset,
                                                static_cast<int>(nChunk), bFinal ? 1 : 0);
            nOffset += nChunk;
            if (status != XML_STATUS_OK) {
                throwFailure();
            }
        } while (nOffset < bytes.size());
        ZQ_ASSERT(!m_hRoot.isNull());
        if (m_hRoot.isNull()) {
            ZQ_THROW(XmlException(L"no element found", m_strSource, 1, 1));
        }
        return m_hRoot;
    }

private:
    [[noreturn]] void throwFailure() {
        if (m_pException) {
            std::rethrow_exception(m_pException);
        }
        if (!m_bFailed) {
            m_strError = fromUtf8(XML_ErrorString(XML_GetErrorCode(m_parser)));
            recordPosition();
        }
        ZQ_THROW(XmlException(m_strError, m_strSource, m_nErrorLine, m_nErrorColumn));
    }

    void recordPosition() noexcept {
        m_nErrorLine = static_cast<unsigned>(XML_GetCurrentLineNumber(m_parser));
        m_nErrorColumn = static_cast<unsigned>(XML_GetCurrentColumnNumber(m_parser)) + 1;
    }

    void fail(const String& text) {
        if (m_bFailed) {
            return;
        }
        m_bFailed = true;
        m_strError = text;
        recordPosition();
        XML_StopParser(m_parser, XML_FALSE);
    }

    // Runs one event handler. Once parsing has failed, the events expat still delivers are
    // ignored.
    template <class F>
    static void dispatch(void* pUserData, F&& f) noexcept {
        TreeBuilder& builder = *static_cast<TreeBuilder*>(pUserData);
        if (builder.m_bFailed) {
            return;
        }
        try {
            f(builder);
        } catch (...) {
            builder.m_pException = std::current_exception();
            builder.m_bFailed = true;
            XML_StopParser(builder.m_parser, XML_FALSE);
        }
    }

    void flushText() {
        if (!m_strPendingText.empty() && !m_vecOpen.empty()) {
            m_vecOpen.back()->appendText(fromUtf8(m_strPendingText), XmlNode::kTypeText);
        }
        m_strPendingText.clear();
    }

    static void XMLCALL onStartElement(void* pUserData, const XML_Char* pszName,
                                       const XML_Char** ppAttributes) {
        dispatch(pUserData, [&](TreeBuilder& builder) {
            builder.flushText();
            if (builder.m_vecOpen.size() >= XmlDocument::kMaxDepth) {
                builder.fail(L"elements nested deeper than " +
                             widen(std::to_string(XmlDocument::kMaxDepth)));
                return;
            }
            XmlElement* pElement;
            if (builder.m_vecOpen.empty()) {
                builder.m_hRoot = ZQ_NEW XmlElement(fromUtf8(pszName));
                pElement = builder.m_hRoot.get();
            } else {
                pElement = &builder.m_vecOpen.back()->appendElement(fromUtf8(pszName));
            }
            pElement->setLine(static_cast<unsigned>(XML_GetCurrentLineNumber(builder.m_parser)));
            for (std::size_t i = 0; ppAttributes[i] != nullptr; i += 2) {
                pElement->setAttribute(fromUtf8(ppAttributes[i]), fromUtf8(ppAttributes[i + 1]));
            }
            builder.m_vecOpen.push_back(pElement);
        });
    }

    static void XMLCALL onEndElement(void* pUserData, const XML_Char*) {
        dispatch(pUserData, [](TreeBuilder& builder) {
            builder.flushText();
            if (!builder.m_vecOpen.empty()) {
                builder.m_vecOpen.pop_back();
            }
        });
    }

    static void XMLCALL onCharacterData(void* pUserData, const XML_Char* p, int nLen) {
        dispatch(pUserData, [&](TreeBuilder& builder) {
            builder.m_strPendingText.append(p, static_cast<std::size_t>(nLen));
        });
    }

    static void XMLCALL onStartCData(void* pUserData) {
        dispatch(pUserData, [](TreeBuilder& builder) { builder.flushText(); });
    }

    static void XMLCALL onEndCData(void* pUserData) {
        dispatch(pUserData, [](TreeBuilder& builder) {
            if (!builder.m_vecOpen.empty()) {
                builder.m_vecOpen.back()->appendText(fromUtf8(builder.m_strPendingText),
                                                     XmlNode::kTypeCDataSection);
            }
            builder.m_strPendingText.clear();
        });
    }

    static void XMLCALL onEntityDecl(void* pUserData, const XML_Char*, int, const XML_Char*, int,
                                     const XML_Char*, const XML_Char*, const XML_Char*,
                                     const XML_Char*) {
        dispatch(pUserData, [](TreeBuilder& builder) {
            builder.fail(L"entity declarations are not allowed");
        });
    }

    static void XMLCALL onSkippedEntity(void* pUserData, const XML_Char* pszName, int) {
        dispatch(pUserData, [&](TreeBuilder& builder) {
            builder.fail(L"undefined entity '" + fromUtf8(pszName) + L"'");
        });
    }

    static int XMLCALL onExternalEntityRef(XML_Parser parser, const XML_Char*, const XML_Char*,
                                           const XML_Char*, const XML_Char*) {
        dispatch(XML_GetUserData(parser),
                 [](TreeBuilder& builder) { builder.fail(L"external entities are not loaded"); });
        return XML_STATUS_ERROR;
    }

    XML_Parser m_parser;
    String m_strSource;
    Handle<XmlElement> m_hRoot;
    std::vector<XmlElement*> m_vecOpen;
    // Character data as expat delivers it, in pieces, until the node it belongs to is complete.
    std::string m_strPendingText;
    bool m_bFailed = false;
    String m_strError;
    unsigned m_nErrorLine = 0;
    unsigned m_nErrorColumn = 0;
    std::exception_ptr m_pException;
};

// pszEncoding overrides whatever the document declares; null lets the document decide.
Handle<XmlElement> parseBytes(std::string_view bytes, const char* pszEncoding,
                              const String& source) {
    std::unique_ptr<std::remove_pointer_t<XML_Parser>, decltype(&XML_ParserFree)> parser(
        XML_ParserCreate(pszEncoding), &XML_ParserFree);
    if (!parser) {
        throw OutOfMemoryError();
    }
    TreeBuilder builder(parser.get(), source);
    return builder.parse(bytes);
}

std::string readFileBytes(const NString& path, const String& source) {
    std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen(path.c_str(), "rb"),
                                                            &std::fclose);
    if (!file) {
        const int nError = errno;
        ZQ_THROW(XmlException(
            L"cannot open the file: " + fromUtf8(std::generic_category().message(nError)), source));
    }
    std::string strBytes;
    char arrBuffer[65536];
    for (;;) {
        const std::size_t nRead = std::fread(arrBuffer, 1, sizeof(arrBuffer), file.get());
        strBytes.append(arrBuffer, nRead);
        if (nRead < sizeof(arrBuffer)) {
            break;
        }
    }
    if (std::ferror(file.get())) {
        const int nError = errno;
        ZQ_THROW(XmlException(
            L"cannot read the file: " + fromUtf8(std::generic_category().message(nError)), source));
    }
    return strBytes;
}

}  // namespace

XmlException::XmlException(const String& text, const String& source, unsigned nLine,
                           unsigned nColumn)
    : Exception(GDString(formatXmlMessage(text, source, nLine, nColumn))),
      m_strText(text),
      m_strSource(source),
      m_nXmlLine(nLine),
      m_nXmlColumn(nColumn) {}

const XmlElement* XmlNode::asElement() const noexcept {
    return m_nType == kTypeElement ? static_cast<const XmlElement*>(this) : nullptr;
}

XmlElement::XmlElement(String strName)
    : XmlNode(kTypeElement, String()), m_strName(std::move(strName)) {}

const XmlNode* XmlElement::getFirstChild() const noexcept {
    return m_vecChildren.empty() ? nullptr : m_vecChildren.front().get();
}

const XmlElement* XmlElement::getFirstChildElement() const noexcept {
    for (const Handle<XmlNode>& hChild : m_vecChildren) {
        if (const XmlElement* pElement = hChild->asElement()) {
            return pElement;
        }
    }
    return nullptr;
}

const XmlElement* XmlElement::getNextSiblingElement() const noexcept {
    for (const XmlNode* pNode = getNextSibling(); pNode != nullptr;
         pNode = pNode->getNextSibling()) {
        if (const XmlElement* pElement = pNode->asElement()) {
            return pElement;
        }
    }
    return nullptr;
}

bool XmlElement::hasAttribute(std::wstring_view name) const noexcept {
    return findAttribute(name) != nullptr;
}

const String* XmlElement::findAttribute(std::wstring_view name) const noexcept {
    for (const Attribute& attribute : m_vecAttributes) {
        if (attribute.first.view() == name) {
            return &attribute.second;
        }
    }
    return nullptr;
}

String XmlElement::getAttributeValue(std::wstring_view name, bool bRequired) const {
    return unchecked_getAttributeValue(name, bRequired);
}

const String& XmlElement::unchecked_getAttributeValue(std::wstring_view name,
                                                      bool bRequired) const {
    if (const String* pValue = findAttribute(name)) {
        return *pValue;
    }
    if (bRequired) {
        ZQ_THROW(XmlException(L"Required attribute '" + String(name) +
                              L"' is missing in element '" + m_strName + L"'"));
    }
    return emptyString();
}

const XmlElement* XmlElement::selectSingleElement(std::wstring_view path) const {
    return findFirst(*this, splitPath(path), 0);
}

std::vector<const XmlElement*> XmlElement::selectElements(std::wstring_view path) const {
    // Step by step, each level in document order: the children of earlier matches come
    // before those of later ones, so the result stays in document order.
    std::vector<const XmlElement*> vecCurrent{this};
    for (std::wstring_view segment : splitPath(path)) {
        std::vector<const XmlElement*> vecNext;
        for (const XmlElement* pElement : vecCurrent) {
            for (const XmlElement* pChild = pElement->getFirstChildElement(); pChild != nullptr;
                 pChild = pChild->getNextSiblingElement()) {
                if (pChild->getName().view() == segment) {
                    vecNext.push_back(pChild);
                }
            }
        }
        vecCurrent.swap(vecNext);
        if (vecCurrent.empty()) {
            break;
        }
    }
    return vecCurrent;
}

String XmlElement::getInnerText() const {
    String strText;
    appendInnerText(*this, strText);
    return strText;
}

String XmlElement::toXmlString() const {
    String strXml;
    appendXml(*this, strXml);
    return strXml;
}

void XmlElement::setAttribute(String name, String value) {
    for (Attribute& attribute : m_vecAttributes) {
        if (attribute.first == name) {
            attribute.second = std::move(value);
            return;
        }
    }
    m_vecAttributes.emplace_back(std::move(name), std::move(value));
}

XmlElement& XmlElement::appendElement(String name) {
    XmlElement* pElement = ZQ_NEW XmlElement(std::move(name));
    appendChild(Handle<XmlNode>(pElement));
    return *pElement;
}

void XmlElement::appendText(String text, NodeType nType) {
    ZQ_ASSERT(nType == kTypeText || nType == kTypeCDataSection);
    if (nType != kTypeCDataSection) {
        // Text written next to text reads back as one node, so it is kept as one node; empty
        // text would read back as nothing at all.
        if (text.empty()) {
            return;
        }
        if (!m_vecChildren.empty() && m_vecChildren.back()->getNodeType() == kTypeText) {
            m_vecChildren.back()->m_strValue += text;
            return;
        }
        nType = kTypeText;
    }
    appendChild(Handle<XmlNode>(ZQ_NEW XmlText(nType, std::move(text))));
}

void XmlElement::appendChild(Handle<XmlNode> hChild) {
    hChild->m_pParent = this;
    if (!m_vecChildren.empty()) {
        m_vecChildren.back()->m_pNextSibling = hChild.get();
    }
    m_vecChildren.push_back(std::move(hChild));
}

XmlDocument XmlDocument::loadFromFile(const NString& path) {
    const String source = fromUtf8(path.view());
    const std::string strBytes = readFileBytes(path, source);
    const std::string_view bytes(strBytes);
    XmlDocument document;
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") {
        document.m_hRoot = parseBytes(bytes.substr(3), "UTF-8", source);
    } else if (bytes.size() >= 2 && bytes.substr(0, 2) == "\xFF\xFE") {
        // Expat skips the mark itself; naming the encoding makes it win over a declaration
        // that says otherwise.
        document.m_hRoot = parseBytes(bytes, "UTF-16LE", source);
    } else if (bytes.size() >= 2 && bytes.substr(0, 2) == "\xFE\xFF") {
        document.m_hRoot = parseBytes(bytes, "UTF-16BE", source);
    } else {
        document.m_hRoot = parseBytes(bytes, nullptr, source);
    }
    return document;
}

XmlDocument XmlDocument::parseString(std::string_view utf8, const String& sourceName) {
    XmlDocument document;
    document.m_hRoot =
        parseBytes(utf8, "UTF-8", sourceName.empty() ? String(L"<string>") : sourceName);
    return document;
}

XmlDocument XmlDocument::parseString(const String& text, const String& sourceName) {
    const NString utf8 = toUtf8(text.view());
    return parseString(utf8.view(), sourceName);
}

}  // namespace kiv
