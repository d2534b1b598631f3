// A stand-in for the system log daemon: a Unix datagram socket bound at a path in the test's
// own directory, from which a test reads what was sent and parses it as an RFC 5424 message.
// The system log socket is outside the library, so this is the one double the system-log tests
// use; the real daemon is exercised by the end-to-end test. Header-only.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace kiv::test {

class SyslogSink {
public:
    explicit SyslogSink(std::string path) : m_strPath(std::move(path)) {
        ::unlink(m_strPath.c_str());
        m_hSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_strPath.c_str(), sizeof(address.sun_path) - 1);
        m_bBound = m_hSocket >= 0 && ::bind(m_hSocket, reinterpret_cast<const sockaddr*>(&address),
                                            sizeof(address)) == 0;
    }
    ~SyslogSink() { close(); }
    SyslogSink(const SyslogSink&) = delete;
    SyslogSink& operator=(const SyslogSink&) = delete;

    bool isBound() const { return m_bBound; }
    const std::string& path() const { return m_strPath; }

    // The next datagram, waiting at most nTimeoutMs for it.
    std::optional<std::string> receive(int nTimeoutMs = 2000) {
        pollfd entry{m_hSocket, POLLIN, 0};
        if (m_hSocket < 0 || ::poll(&entry, 1, nTimeoutMs) != 1) {
            return std::nullopt;
        }
        const ssize_t n = ::recv(m_hSocket, m_vecBuffer.data(), m_vecBuffer.size(), 0);
        if (n < 0) {
            return std::nullopt;
        }
        return std::string(m_vecBuffer.data(), static_cast<std::size_t>(n));
    }

    // The daemon goes away: its socket is closed and its path removed.
    void close() {
        if (m_hSocket >= 0) {
            ::close(m_hSocket);
            ::unlink(m_strPath.c_str());
            m_hSocket = -1;
        }
    }

private:
    std::string m_strPath;
    int m_hSocket = -1;
    bool m_bBound = false;
    std::vector<char> m_vecBuffer = std::vector<char>(1024 * 1024);
};

// The fields of one RFC 5424 message; bValid is false when the text is not one.
struct SyslogMessage {
    bool bValid = false;
    int nPriority = -1;
    int nVersion = -1;
    std::string timestamp;
    std::string host;
    std::string appName;
    std::string procId;
    std::string msgId;
    std::string structuredData;
    std::string text;

    int facility() const { return nPriority / 8; }
    int severity() const { return nPriority % 8; }
};

inline SyslogMessage parseSyslog(const std::string& datagram) {
    SyslogMessage message;
    std::size_t nPos = 0;
    if (datagram.empty() || datagram[0] != '<') {
        return message;
    }
    const std::size_t nClose = datagram.find('>');
    if (nClose == std::string::npos) {
        return message;
    }
    message.nPriority = std::stoi(datagram.substr(1, nClose - 1));
    nPos = nClose + 1;
    const auto field = [&](std::string& out) {
        const std::size_t nSpace = datagram.find(' ', nPos);
        if (nSpace == std::string::npos) {
            return false;
        }
        out = datagram.substr(nPos, nSpace - nPos);
        nPos = nSpace + 1;
        return true;
    };
    std::string version;
    if (!field(version) || !field(message.timestamp) || !field(message.host) ||
        !field(message.appName) || !field(message.procId) || !field(message.msgId)) {
        return message;
    }
    message.nVersion = std::stoi(version);
    if (datagram.compare(nPos, 2, "- ") == 0) {
        message.structuredData = "-";
        nPos += 2;
    } else {
        // Elements in brackets; inside a quoted value a backslash escapes the next character.
        const std::size_t nStart = nPos;
        bool bQuoted = false;
        while (nPos < datagram.size()) {
            const char c = datagram[nPos];
            if (bQuoted && c == '\\') {
                nPos += 2;
                continue;
            }
            if (c == '"') {
                bQuoted = !bQuoted;
            } else if (!bQuoted && c == ']' &&
                       (nPos + 1 == datagram.size() || datagram[nPos + 1] != '[')) {
                ++nPos;
                break;
            }
            ++nPos;
        }
        message.structuredData = datagram.substr(nStart, nPos - nStart);
        if (nPos < datagram.size()) {
            if (datagram[nPos] != ' ') {
                return message;
            }
            ++nPos;
        }
    }
    message.text = datagram.substr(nPos < datagram.size() ? nPos : datagram.size());
    message.bValid = true;
    return message;
}

}  // namespace kiv::test
