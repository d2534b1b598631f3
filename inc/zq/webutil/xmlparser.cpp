// The XML parser under the document model: expat's events build an XmlDocument's tree.
//
// XmlDocument's loading entry points live here, beside the only code that talks to expat, so
// the model (xmldocument.cpp) knows nothing of the parser. Input is untrusted: entity
// declarations and external entities are refused, nesting is limited to
// XmlDocument::kMaxDepth, and expat's amplification limits back that up.
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
            // expat counts columns from 0.
            pElement->setColumn(
                static_cast<unsigned>(XML_GetCurrentColumnNumber(builder.m_parser)) + 1);
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
