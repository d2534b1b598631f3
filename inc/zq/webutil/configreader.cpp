#include "zq/webutil/configreader.h"

#include <atomic>
#include <utility>

namespace kiv {
namespace {

std::atomic<const ConfigReader*> g_pGlobalReader{nullptr};

bool isSpace(wchar_t c) noexcept {
    return c == L' ' || c == L'\t' || c == L'\n' || c == L'\r' || c == L'\v' || c == L'\f';
}

String trim(const String& text) {
    std::size_t nBegin = 0;
    std::size_t nEnd = text.size();
    while (nBegin < nEnd && isSpace(text[nBegin])) {
        ++nBegin;
    }
    while (nEnd > nBegin && isSpace(text[nEnd - 1])) {
        --nEnd;
    }
    return text.substr(nBegin, nEnd - nBegin);
}

// The first nEnd segments joined again, in the form selectSingleElement takes.
String joinSegments(const std::vector<String>& vecSegments, std::size_t nEnd) {
    String strPath;
    for (std::size_t i = 0; i < nEnd; ++i) {
        if (i != 0) {
            strPath += L'/';
        }
        strPath += vecSegments[i];
    }
    return strPath;
}

}  // namespace

PathFilter::PathFilter(String path) : m_strPath(std::move(path)) {
    std::size_t nStart = 0;
    while (nStart <= m_strPath.size()) {
        std::size_t nEnd = m_strPath.find(L'/', nStart);
        if (nEnd == String::npos) {
            nEnd = m_strPath.size();
        }
        if (nEnd > nStart) {
            m_vecSegments.push_back(m_strPath.substr(nStart, nEnd - nStart));
        }
        nStart = nEnd + 1;
    }
}

ConfigReader::ConfigReader(XmlDocument document) : m_document(std::move(document)) {}

ConfigReader ConfigReader::loadFromFile(const NString& path) {
    return ConfigReader(XmlDocument::loadFromFile(path));
}

ConfigReader ConfigReader::parseString(std::string_view utf8) {
    return ConfigReader(XmlDocument::parseString(utf8));
}

const XmlElement* ConfigReader::getElement(std::wstring_view path) const {
    const XmlElement* pRoot = getRootElement();
    return pRoot != nullptr ? pRoot->selectSingleElement(path) : nullptr;
}

const XmlElement* ConfigReader::getElement(const PathFilter& path) const {
    return getElement(path.getPath().view());
}

bool ConfigReader::findValue(const PathFilter& path, String& strValue) const {
    const std::vector<String>& vecSegments = path.getSegments();
    if (!vecSegments.empty() && vecSegments.back()[0] == L'@') {
        const XmlElement* pElement =
            getElement(joinSegments(vecSegments, vecSegments.size() - 1).view());
        if (pElement == nullptr) {
            return false;
        }
        const String* pValue = pElement->findAttribute(vecSegments.back().view().substr(1));
        if (pValue == nullptr) {
            return false;
        }
        strValue = trim(*pValue);
        return true;
    }
    const XmlElement* pElement = getElement(path);
    if (pElement == nullptr) {
        return false;
    }
    strValue = trim(pElement->getInnerText());
    return true;
}

String ConfigReader::getString(std::wstring_view path, const String& strDefault) const {
    String strValue;
    return findValue(PathFilter(String(path)), strValue) ? strValue : strDefault;
}

bool ConfigReader::getBoolean(std::wstring_view path, bool bDefault) const {
    String strValue;
    if (!findValue(PathFilter(String(path)), strValue)) {
        return bDefault;
    }
    for (const wchar_t* pszWord : {L"true", L"yes", L"on", L"1"}) {
        if (strValue.equalsNoCase(pszWord)) {
            return true;
        }
    }
    for (const wchar_t* pszWord : {L"false", L"no", L"off", L"0"}) {
        if (strValue.equalsNoCase(pszWord)) {
            return false;
        }
    }
    return bDefault;
}

const ConfigReader* ConfigReader::getGlobal() noexcept {
    return g_pGlobalReader.load(std::memory_order_acquire);
}

void ConfigReader::setGlobal(const ConfigReader* pReader) noexcept {
    g_pGlobalReader.store(pReader, std::memory_order_release);
}

}  // namespace kiv
