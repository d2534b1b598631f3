// Feeds arbitrary bytes to the client library's traceparent parser (qamContextUnwrap) and checks
// what it accepts: lower-case hex ids of the right length, never all zeros, and a context whose
// wrapped form parses again to the same trace.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "webctm.h"

namespace {

bool isId(const char* psz, std::size_t n) {
    if (psz == nullptr || std::strlen(psz) != n) {
        return false;
    }
    bool bAllZero = true;
    for (std::size_t i = 0; i < n; ++i) {
        const char c = psz[i];
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) {
            return false;
        }
        bAllZero = bAllZero && c == '0';
    }
    return !bAllZero;
}

const bool g_bInitialised = qamMeasInitModel() != 0;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    if (!g_bInitialised || nSize == 0) {
        return 0;
    }
    // The first byte chooses the flag; the rest is the header value, cut at a NUL as C text is.
    const bool bKeepSpan = (pData[0] & 1) != 0;
    const std::string strValue(reinterpret_cast<const char*>(pData + 1), nSize - 1);
    void* pContext = qamContextUnwrap(strValue.c_str(), bKeepSpan);
    if (pContext == nullptr) {
        return 0;
    }
    const std::string strTraceId = qamContextGetECID(pContext);
    if (!isId(strTraceId.c_str(), 32) || !isId(qamContextGetRID(pContext), 16) ||
        strValue.compare(3, 32, strTraceId) != 0 || strValue.compare(0, 2, "ff") == 0) {
        std::abort();
    }
    qamysLocalFree(pContext);

    char* pszWrapped = qamContextWrap();
    if (pszWrapped == nullptr || std::strlen(pszWrapped) != 55) {
        std::abort();
    }
    void* pAgain = qamContextUnwrap(pszWrapped, true);
    if (pAgain == nullptr || strTraceId != qamContextGetECID(pAgain)) {
        std::abort();
    }
    qamysLocalFree(pAgain);
    qamysLocalFree(pszWrapped);
    qamContextClear();
    return 0;
}
