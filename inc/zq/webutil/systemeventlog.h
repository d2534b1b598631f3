// The system log client: each reported event becomes one RFC 5424 message, sent as one datagram
// on the system log daemon's Unix socket ("/dev/log" unless the host names another).
//
// Everything about the connection is per instance (socket path, application name, facility,
// largest datagram, the socket itself and the counters), so two writers with different
// settings never disturb each other. Reporting never blocks and never fails its caller: sends
// are non-blocking, and a message that cannot be sent (no daemon, its queue full, a datagram
// the socket refuses) is counted as dropped and reported nowhere else; the caller learns of the
// first drop of the instance from the result, so that it can say so once in its own words.
// When the daemon has gone away, the next report connects afresh and sends once more, which is
// how a restarted daemon (a new socket at the same path) is found again.
//
// What a message carries: PRI from the facility and the event type (see severityOf), version 1,
// the wall clock's second in UTC, this machine's host name, the application name (by default
// the process's short name), the process id, no MSGID, the event's source as structured data
// [weblogger@32473 source="..."] (32473 is the enterprise number reserved for examples: the
// element is ours, not a registered one) or "-" without a source, and the text as UTF-8
// without a byte-order mark (MSG-ANY: daemons then keep the text as it is, where a BOM would
// end up in every line of the log). A message longer than the largest datagram (8 KB by
// default, the size rsyslog accepts unless told otherwise) is cut at a character boundary so
// that it fits; it is counted as truncated.
//
// Locking: m_cs guards the settings and the socket descriptor. A report holds it while it
// builds its datagram on its own stack and sends it (plus, when the daemon has gone away, one
// reconnection and one more send), so concurrent reports from several threads each go out
// whole. The counters are atomics, read without the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/string.h"

namespace kiv {

class SystemEventLog {
public:
    // A fixed underlying type: a code from outside the enumeration stays a value of it.
    enum EventType : int {
        kError = 0,
        kWarning = 1,
        kInformation = 2,
        kAuditSuccess = 3,
        kAuditFailure = 4
    };

    static constexpr const char* kDefaultSocketPath = "/dev/log";
    // LOG_USER, what syslog(3) uses when a program names no facility.
    static constexpr int kDefaultFacility = 1;
    static constexpr int kMaxFacility = 23;
    static constexpr std::size_t kDefaultMaxDatagramBytes = 8192;
    // Every RFC 5424 receiver accepts this much; a smaller limit would leave no room for text.
    static constexpr std::size_t kMinDatagramBytes = 480;
    // The structured-data element that carries the source.
    static constexpr const char* kStructuredDataId = "weblogger@32473";

    // What one report did.
    struct Result {
        bool bSent = false;
        // The text was cut to fit the largest datagram (and then sent).
        bool bTruncated = false;
        // This was the first message the instance dropped.
        bool bFirstDrop = false;
        // Why the message was dropped (an errno value), 0 when it was sent.
        int nError = 0;
    };

    SystemEventLog();
    // Closes the socket.
    ~SystemEventLog();
    SystemEventLog(const SystemEventLog&) = delete;
    SystemEventLog& operator=(const SystemEventLog&) = delete;

    // The settings take effect from the next report. A path too long for a Unix socket address
    // fails the assertion "path fits a Unix socket address" and leaves the path as it was.
    void setSocketPath(std::string_view path);
    // Characters that RFC 5424 does not allow in an application name (anything but printable
    // ASCII without space) become '_'; the name is cut to 48 characters; empty gives "-".
    void setAppName(std::string_view name);
    // False (and nothing changed) outside 0..23.
    bool setFacility(int nFacility) noexcept;
    // Raised to kMinDatagramBytes when smaller.
    void setMaxDatagramBytes(std::size_t nBytes) noexcept;

    NString getSocketPath() const;
    NString getAppName() const;
    int getFacility() const noexcept;
    std::size_t getMaxDatagramBytes() const noexcept;

    // The facility code of a syslog facility name ("user", "daemon", "local0".."local7", ...,
    // case-insensitive) or of its number; -1 when it is neither.
    static int facilityFromName(std::wstring_view name) noexcept;

    // The syslog severity of an event type: error -> 3 (err), warning -> 4 (warning),
    // information -> 6 (info), audit success -> 5 (notice), audit failure -> 4 (warning). A
    // value outside the enumeration is taken as an error: a report nobody can classify is not
    // quietly filed among the routine ones.
    static int severityOf(EventType type) noexcept;

    // Records one event with the text of the value and the type; source (may be empty) goes
    // into the structured data. Never blocks, never throws.
    Result reportAnEvent(const GDValue& text, EventType type,
                         std::wstring_view source = {}) noexcept;

    std::uint64_t getSentCount() const noexcept { return m_nSent.load(std::memory_order_relaxed); }
    std::uint64_t getDroppedCount() const noexcept {
        return m_nDropped.load(std::memory_order_relaxed);
    }
    std::uint64_t getTruncatedCount() const noexcept {
        return m_nTruncated.load(std::memory_order_relaxed);
    }

private:
    Result report(std::wstring_view text, EventType type, std::wstring_view source);
    // Sends the datagram of nParts pieces; errno-style error or 0. Called under m_cs.
    int sendLocked(const void* pParts, int nParts);
    int connectLocked();
    void closeLocked() noexcept;

    mutable CriticalSection m_cs;
    NString m_strSocketPath;
    NString m_strAppName;
    NString m_strHostName;
    int m_nFacility;
    std::size_t m_nMaxDatagramBytes;
    int m_hSocket;

    std::atomic<std::uint64_t> m_nSent{0};
    std::atomic<std::uint64_t> m_nDropped{0};
    std::atomic<std::uint64_t> m_nTruncated{0};
};

}  // namespace kiv
