#include "zq/webutil/xmldocument.h"

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

}  // namespace kiv
