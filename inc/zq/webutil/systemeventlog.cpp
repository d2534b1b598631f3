#include "zq/webutil/systemeventlog.h"

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>
#include <memory>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/encoding.h"
#include "zq/webkeel/stringbuffer.h"

// The process's short name, set by the C library before main.
extern char* program_invocation_short_name;

namespace kiv {
namespace {

constexpr std::size_t kMaxAppNameChars = 48;
constexpr std::size_t kMaxHostNameChars = 255;
// The source is a dotted name; a longer one is cut so that the header stays bounded.
constexpr std::size_t kMaxSourceBytes = 256;
// Room for everything of the header but the source: PRI, version, time stamp, host, app name,
// process id, the structured-data element's frame.
constexpr std::size_t kHeaderBytes = 64 + kMaxHostNameChars + kMaxAppNameChars;
// A message body up to this size is built on the stack; a longer one takes the heap.
constexpr std::size_t kStackBodyBytes = 2048;
// Bursts wait in the kernel on the sender's side as long as the daemon keeps up: make that
// allowance generous (the kernel caps it at net.core.wmem_max).
constexpr int kSendBufferBytes = 1 << 20;

const struct {
    const wchar_t* pwszName;
    int nCode;
} kFacilities[] = {{L"kern", 0},    {L"user", 1},    {L"mail", 2},      {L"daemon", 3},
                   {L"auth", 4},    {L"syslog", 5},  {L"lpr", 6},       {L"news", 7},
                   {L"uucp", 8},    {L"cron", 9},    {L"authpriv", 10}, {L"ftp", 11},
                   {L"local0", 16}, {L"local1", 17}, {L"local2", 18},   {L"local3", 19},
                   {L"local4", 20}, {L"local5", 21}, {L"local6", 22},   {L"local7", 23}};

bool isPrintUsAscii(char c) noexcept {
    return c >= 33 && c <= 126;
}

// RFC 5424 header fields allow printable ASCII without spaces only.
NString headerField(std::string_view text, std::size_t nMaxChars) {
    std::string out(text.substr(0, nMaxChars));
    for (char& c : out) {
        if (!isPrintUsAscii(c)) {
            c = '_';
        }
    }
    return out.empty() ? NString("-") : NString(std::move(out));
}

NString machineHostName() {
    char arrName[kMaxHostNameChars + 1] = {};
    if (::gethostname(arrName, kMaxHostNameChars) != 0) {
        return NString("-");
    }
    return headerField(arrName, kMaxHostNameChars);
}

// Fixed-capacity byte output on memory the caller owns; what does not fit is left out.
class ByteOut {
public:
    ByteOut(char* p, std::size_t nCapacity) noexcept : m_p(p), m_nCapacity(nCapacity) {}

    std::size_t size() const noexcept { return m_nSize; }
    std::size_t room() const noexcept { return m_nCapacity - m_nSize; }
    char* end() noexcept { return m_p + m_nSize; }
    void advance(std::size_t n) noexcept { m_nSize += n; }

    void put(char c) noexcept {
        if (m_nSize < m_nCapacity) {
            m_p[m_nSize++] = c;
        }
    }
    void put(std::string_view text) noexcept {
        const std::size_t n = text.size() < room() ? text.size() : room();
        std::memcpy(m_p + m_nSize, text.data(), n);
        m_nSize += n;
    }
    void putNumber(unsigned long long n, int nMinDigits = 1) noexcept {
        char arrDigits[24];
        int nCount = 0;
        do {
            arrDigits[nCount++] = static_cast<char>('0' + n % 10);
            n /= 10;
        } while (n != 0 || nCount < nMinDigits);
        while (nCount > 0) {
            put(arrDigits[--nCount]);
        }
    }
    // UTF-8 of text, whole characters only, with '"', '\' and ']' escaped as a structured-data
    // parameter value needs; stops at nMaxBytes.
    void putParamValue(std::wstring_view text, std::size_t nMaxBytes) noexcept {
        const std::size_t nLimit = m_nSize + (nMaxBytes < room() ? nMaxBytes : room());
        for (const wchar_t c : text) {
            char arrSequence[5];
            std::size_t n = 0;
            if (c == L'"' || c == L'\\' || c == L']') {
                arrSequence[n++] = '\\';
            }
            n += encodeUtf8(c, arrSequence + n);
            if (m_nSize + n > nLimit) {
                return;
            }
            std::memcpy(m_p + m_nSize, arrSequence, n);
            m_nSize += n;
        }
    }

private:
    char* m_p;
    std::size_t m_nCapacity;
    std::size_t m_nSize = 0;
};

// The text of a value without copying it when it is a string; anything else is rendered.
class TextOf : private GDValueVisitor {
public:
    explicit TextOf(const GDValue& value) {
        value.accept(*this);
        if (!m_bFound) {
            value.appendText(m_rendered);
            m_text = m_rendered.view();
        }
    }
    std::wstring_view view() const noexcept { return m_text; }

private:
    void visitString(std::wstring_view text) override {
        m_text = text;
        m_bFound = true;
    }
    void visitReference(const GDValue* pTarget) override {
        if (pTarget != nullptr) {
            pTarget->accept(*this);
        } else {
            m_bFound = true;
        }
    }

    std::wstring_view m_text;
    bool m_bFound = false;
    StringBufferTemplate<255, wchar_t> m_rendered;
};

bool isPeerGone(int nError) noexcept {
    return nError == ECONNREFUSED || nError == ENOTCONN || nError == ENOENT ||
           nError == ECONNRESET || nError == EPIPE || nError == EDESTADDRREQ;
}

}  // namespace

SystemEventLog::SystemEventLog()
    : m_cs(0, "SystemEventLog"),
      m_strSocketPath(kDefaultSocketPath),
      m_strAppName(
          headerField(program_invocation_short_name != nullptr ? program_invocation_short_name : "",
                      kMaxAppNameChars)),
      m_strHostName(machineHostName()),
      m_nFacility(kDefaultFacility),
      m_nMaxDatagramBytes(kDefaultMaxDatagramBytes),
      m_hSocket(-1) {}

SystemEventLog::~SystemEventLog() {
    closeLocked();
}

void SystemEventLog::setSocketPath(std::string_view path) {
    ZQ_ASSERT_TEXT(path.size() < sizeof(sockaddr_un::sun_path), "path fits a Unix socket address");
    if (path.size() >= sizeof(sockaddr_un::sun_path)) {
        return;
    }
    LockGuard<CriticalSection> lock(m_cs);
    m_strSocketPath = NString(path);
    closeLocked();
}

void SystemEventLog::setAppName(std::string_view name) {
    NString strName = headerField(name, kMaxAppNameChars);
    LockGuard<CriticalSection> lock(m_cs);
    m_strAppName = std::move(strName);
}

bool SystemEventLog::setFacility(int nFacility) noexcept {
    if (nFacility < 0 || nFacility > kMaxFacility) {
        return false;
    }
    LockGuard<CriticalSection> lock(m_cs);
    m_nFacility = nFacility;
    return true;
}

void SystemEventLog::setMaxDatagramBytes(std::size_t nBytes) noexcept {
    LockGuard<CriticalSection> lock(m_cs);
    m_nMaxDatagramBytes = nBytes < kMinDatagramBytes ? kMinDatagramBytes : nBytes;
}

NString SystemEventLog::getSocketPath() const {
    LockGuard<CriticalSection> lock(m_cs);
    return m_strSocketPath;
}

NString SystemEventLog::getAppName() const {
    LockGuard<CriticalSection> lock(m_cs);
    return m_strAppName;
}

int SystemEventLog::getFacility() const noexcept {
    LockGuard<CriticalSection> lock(m_cs);
    return m_nFacility;
}

std::size_t SystemEventLog::getMaxDatagramBytes() const noexcept {
    LockGuard<CriticalSection> lock(m_cs);
    return m_nMaxDatagramBytes;
}

int SystemEventLog::facilityFromName(std::wstring_view name) noexcept {
    for (const auto& facility : kFacilities) {
        const std::wstring_view known(facility.pwszName);
        if (known.size() != name.size()) {
            continue;
        }
        bool bSame = true;
        for (std::size_t i = 0; i < name.size() && bSame; ++i) {
            bSame = std::towlower(static_cast<wint_t>(name[i])) == static_cast<wint_t>(known[i]);
        }
        if (bSame) {
            return facility.nCode;
        }
    }
    if (name.empty() || name.size() > 2) {
        return -1;
    }
    int nCode = 0;
    for (const wchar_t c : name) {
        if (c < L'0' || c > L'9') {
            return -1;
        }
        nCode = nCode * 10 + (c - L'0');
    }
    return nCode <= kMaxFacility ? nCode : -1;
}

int SystemEventLog::severityOf(EventType type) noexcept {
    switch (type) {
        case kError:
            return 3;
        case kWarning:
        case kAuditFailure:
            return 4;
        case kAuditSuccess:
            return 5;
        case kInformation:
            return 6;
    }
    return 3;
}

SystemEventLog::Result SystemEventLog::reportAnEvent(const GDValue& text, EventType type,
                                                     std::wstring_view source) noexcept {
    try {
        const TextOf textOf(text);
        return report(textOf.view(), type, source);
    } catch (...) {
        // Out of memory while rendering a value that is not a string, or for a long body.
        Result result;
        result.nError = ENOMEM;
        result.bFirstDrop = m_nDropped.fetch_add(1, std::memory_order_relaxed) == 0;
        return result;
    }
}

SystemEventLog::Result SystemEventLog::report(std::wstring_view text, EventType type,
                                              std::wstring_view source) {
    Result result;
    LockGuard<CriticalSection> lock(m_cs);

    char arrHeader[kHeaderBytes + 2 * kMaxSourceBytes];
    ByteOut header(arrHeader, sizeof(arrHeader));
    header.put('<');
    header.putNumber(static_cast<unsigned>(m_nFacility * 8 + severityOf(type)));
    header.put(">1 ");
    const std::time_t now = clock::wallClockSeconds();
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    header.putNumber(static_cast<unsigned>(utc.tm_year + 1900), 4);
    header.put('-');
    header.putNumber(static_cast<unsigned>(utc.tm_mon + 1), 2);
    header.put('-');
    header.putNumber(static_cast<unsigned>(utc.tm_mday), 2);
    header.put('T');
    header.putNumber(static_cast<unsigned>(utc.tm_hour), 2);
    header.put(':');
    header.putNumber(static_cast<unsigned>(utc.tm_min), 2);
    header.put(':');
    header.putNumber(static_cast<unsigned>(utc.tm_sec), 2);
    header.put("Z ");
    header.put(m_strHostName.view());
    header.put(' ');
    header.put(m_strAppName.view());
    header.put(' ');
    header.putNumber(static_cast<unsigned long long>(::getpid()));
    header.put(" - ");
    if (source.empty()) {
        header.put('-');
    } else {
        header.put('[');
        header.put(kStructuredDataId);
        header.put(" source=\"");
        header.putParamValue(source, kMaxSourceBytes);
        header.put("\"]");
    }
    header.put(' ');

    // The body: whole characters up to what the datagram has room for.
    const std::size_t nBodyRoom =
        m_nMaxDatagramBytes > header.size() ? m_nMaxDatagramBytes - header.size() : 0;
    char arrBody[kStackBodyBytes];
    std::unique_ptr<char[]> pHeapBody;
    std::size_t nBody = 0;
    std::size_t nConsumed = 0;
    const bool bWhole = T2NEncodingUTF8<wchar_t>::encode(
        text.data(), text.size(), arrBody,
        nBodyRoom < kStackBodyBytes ? nBodyRoom : kStackBodyBytes, nBody, nConsumed);
    char* pBody = arrBody;
    bool bTruncated = !bWhole;
    if (!bWhole && nBodyRoom > kStackBodyBytes) {
        pHeapBody.reset(new char[nBodyRoom]);
        std::memcpy(pHeapBody.get(), arrBody, nBody);
        std::size_t nMore = 0;
        std::size_t nMoreConsumed = 0;
        bTruncated = !T2NEncodingUTF8<wchar_t>::encode(
            text.data() + nConsumed, text.size() - nConsumed, pHeapBody.get() + nBody,
            nBodyRoom - nBody, nMore, nMoreConsumed);
        nBody += nMore;
        pBody = pHeapBody.get();
    }

    iovec arrParts[2];
    arrParts[0].iov_base = arrHeader;
    arrParts[0].iov_len = header.size();
    arrParts[1].iov_base = pBody;
    arrParts[1].iov_len = nBody;
    const int nError = sendLocked(arrParts, 2);
    if (nError == 0) {
        result.bSent = true;
        result.bTruncated = bTruncated;
        m_nSent.fetch_add(1, std::memory_order_relaxed);
        if (bTruncated) {
            m_nTruncated.fetch_add(1, std::memory_order_relaxed);
        }
    } else {
        result.nError = nError;
        result.bFirstDrop = m_nDropped.fetch_add(1, std::memory_order_relaxed) == 0;
    }
    return result;
}

int SystemEventLog::sendLocked(const void* pParts, int nParts) {
    msghdr message{};
    message.msg_iov = static_cast<iovec*>(const_cast<void*>(pParts));
    message.msg_iovlen = static_cast<std::size_t>(nParts);
    // At most one send on the socket we have, and, when the daemon turned out to be gone, one
    // on a fresh connection: a restarted daemon has a new socket at the same path.
    for (int nAttempt = 0; nAttempt < 2; ++nAttempt) {
        const bool bFresh = m_hSocket < 0;
        if (bFresh) {
            const int nError = connectLocked();
            if (nError != 0) {
                return nError;
            }
        }
        if (::sendmsg(m_hSocket, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return 0;
        }
        const int nError = errno;
        if (!isPeerGone(nError)) {
            // A full queue or a datagram too large: the connection itself is sound.
            return nError;
        }
        closeLocked();
        if (bFresh) {
            return nError;
        }
    }
    return ENOTCONN;
}

int SystemEventLog::connectLocked() {
    const int hSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (hSocket < 0) {
        return errno;
    }
    const int nSendBuffer = kSendBufferBytes;
    // Best effort: the default allowance works too, it only absorbs shorter bursts.
    (void)::setsockopt(hSocket, SOL_SOCKET, SO_SNDBUF, &nSendBuffer, sizeof(nSendBuffer));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_strSocketPath.c_str(), m_strSocketPath.size());
    if (::connect(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        const int nError = errno;
        ::close(hSocket);
        return nError;
    }
    m_hSocket = hSocket;
    return 0;
}

void SystemEventLog::closeLocked() noexcept {
    if (m_hSocket >= 0) {
        ::close(m_hSocket);
        m_hSocket = -1;
    }
}

}  // namespace kiv
