#include "weblogger/internal/filewriterattributes.h"

#include <algorithm>
#include <cmath>
#include <cwchar>

namespace kiv::logger_details {

bool isAutoFlushOff(const String& value) {
    for (const wchar_t* pszWord : {L"no", L"n", L"false", L"0"}) {
        if (value.compareNoCase(pszWord) == 0) {
            return true;
        }
    }
    return false;
}

std::uint32_t intervalSeconds(const String& hours, std::uint32_t nDefaultSeconds) {
    if (hours.empty()) {
        return nDefaultSeconds;
    }
    const double dSeconds = std::floor(std::wcstod(hours.c_str(), nullptr) * 3600.0 + 0.5);
    if (dSeconds > 0 && dSeconds < 4294967295.0) {
        return static_cast<std::uint32_t>(dSeconds);
    }
    return nDefaultSeconds;
}

unsigned long long parseFilesN(const String& text) {
    const wchar_t* p = text.c_str();
    while (*p == L' ' || *p == L'\t') {
        ++p;
    }
    unsigned long long nValue = 0;
    const wchar_t* pDigits = p;
    while (*p >= L'0' && *p <= L'9') {
        nValue = std::min<unsigned long long>(nValue * 10 + static_cast<unsigned>(*p - L'0'),
                                              0xFFFFFFFFFFull);
        ++p;
    }
    while (*p == L' ' || *p == L'\t') {
        ++p;
    }
    return p == pDigits || *p != 0 ? 0 : nValue;
}

long parseFileMode(const String& text) {
    if (text.empty() || text.size() > 4) {
        return -1;
    }
    long nMode = 0;
    for (wchar_t c : text.view()) {
        if (c < L'0' || c > L'7') {
            return -1;
        }
        nMode = nMode * 8 + (c - L'0');
    }
    return nMode <= 0777 && (nMode & 0600) == 0600 ? nMode : -1;
}

unsigned directoryModeFor(unsigned nFileMode) {
    return nFileMode | ((nFileMode & 0444) >> 2) | 0700;
}

}  // namespace kiv::logger_details
