#include "zq/webkeel/exception.h"

#include <cxxabi.h>
#include <execinfo.h>

#include <cstdlib>
#include <cstring>

#include "zq/webkeel/handle.h"
#include "zq/webkeel/transcode.h"

namespace kiv {

Exception::Exception(const GDValue& msg, ExceptionSeverity nSeverity)
    : m_msg(msg), m_nSeverity(nSeverity) {}

Exception::Exception(const Exception& other)
    : std::exception(other),
      m_msg(other.m_msg),
      m_strFile(other.m_strFile),
      m_nLine(other.m_nLine),
      m_strStackTrace(other.m_strStackTrace),
      m_nSeverity(other.m_nSeverity) {
    m_vecLinked.reserve(other.m_vecLinked.size());
    for (const auto& pLinked : other.m_vecLinked) {
        m_vecLinked.emplace_back(pLinked->clone());
    }
}

Exception& Exception::operator=(const Exception& other) {
    if (this != &other) {
        Exception copy(other);
        m_msg = std::move(copy.m_msg);
        m_strFile = std::move(copy.m_strFile);
        m_nLine = copy.m_nLine;
        m_strStackTrace = std::move(copy.m_strStackTrace);
        m_nSeverity = copy.m_nSeverity;
        m_vecLinked = std::move(copy.m_vecLinked);
        m_strWhat.clear();
    }
    return *this;
}

Exception::~Exception() = default;

void Exception::setLocation(const char* pszFile, unsigned nLine) {
    m_strFile = pszFile != nullptr ? pszFile : "";
    m_nLine = nLine;
}

void Exception::captureStackTrace() {
    void* arrFrames[64];
    const int nFrames = ::backtrace(arrFrames, 64);
    char** ppSymbols = ::backtrace_symbols(arrFrames, nFrames);
    m_strStackTrace.clear();
    // Frame 0 is this function and frame 1 the pre-throw template: start at the thrower.
    for (int i = 2; i < nFrames; ++i) {
        if (ppSymbols != nullptr) {
            m_strStackTrace.append(fromUtf8(ppSymbols[i]));
        }
        m_strStackTrace.append(L'\n');
    }
    std::free(ppSymbols);
}

void Exception::linkException(const Exception& linked) {
    m_vecLinked.emplace_back(linked.clone());
}

std::vector<const Exception*> Exception::getFlattenedListOfLinkedExceptions() const {
    std::vector<const Exception*> result;
    appendFlattened(result);
    return result;
}

void Exception::appendFlattened(std::vector<const Exception*>& out) const {
    for (const auto& pLinked : m_vecLinked) {
        out.push_back(pLinked.get());
        pLinked->appendFlattened(out);
    }
}

const char* Exception::what() const noexcept {
    try {
        if (m_strWhat.empty() && !m_msg.empty()) {
            StringBufferTemplate<255, wchar_t> buffer;
            m_msg->appendText(buffer);
            m_strWhat = toUtf8(buffer.view()).std();
        }
        return m_strWhat.c_str();
    } catch (...) {
        return "kiv::Exception";
    }
}

StdException::StdException(const std::exception& e)
    : Exception(GDString(readableTypeName(typeid(e)) + L": " + fromUtf8(e.what()))) {}

InvalidHandleException::InvalidHandleException(const String& typeName)
    : Exception(GDString(L"Invalid handle: " + typeName)), m_strTypeName(typeName) {}

String readableTypeName(const std::type_info& type) {
    int nStatus = 0;
    char* pszDemangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &nStatus);
    std::string strName = (nStatus == 0 && pszDemangled != nullptr) ? pszDemangled : type.name();
    std::free(pszDemangled);
    for (const char* pszPrefix : {"kiv::logger_details::", "kiv::logger::", "kiv::"}) {
        const std::size_t nPrefixLen = std::strlen(pszPrefix);
        for (std::size_t nPos = strName.find(pszPrefix); nPos != std::string::npos;
             nPos = strName.find(pszPrefix, nPos)) {
            strName.erase(nPos, nPrefixLen);
        }
    }
    return fromUtf8(strName);
}

void throwInvalidHandle(const std::type_info& type) {
    ZQ_THROW(InvalidHandleException(readableTypeName(type)));
}

}  // namespace kiv
