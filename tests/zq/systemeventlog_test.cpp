#include "zq/webutil/systemeventlog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "support/alloc_counter.h"
#include "support/syslog_sink.h"
#include "support/temp_dir.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"

extern char* program_invocation_short_name;

namespace kiv {
namespace {

using test::parseSyslog;
using test::SyslogMessage;
using test::SyslogSink;
using test::TempDir;

// 2023-11-14T22:13:20Z
std::time_t frozenClock() noexcept {
    return 1700000000;
}

std::string hostName() {
    char arrName[256] = {};
    ::gethostname(arrName, sizeof(arrName) - 1);
    return arrName;
}

class SystemEventLogTest : public ::testing::Test {
protected:
    SystemEventLogTest() : m_sink(m_dir.file("log.sock")) { m_log.setSocketPath(m_sink.path()); }

    SyslogMessage reportAndReceive(const GDValue& text, SystemEventLog::EventType type,
                                   std::wstring_view source = {}) {
        EXPECT_TRUE(m_log.reportAnEvent(text, type, source).bSent);
        const std::optional<std::string> datagram = m_sink.receive();
        EXPECT_TRUE(datagram.has_value());
        return parseSyslog(datagram.value_or(std::string()));
    }

    TempDir m_dir;
    SyslogSink m_sink;
    SystemEventLog m_log;
};

TEST_F(SystemEventLogTest, SendsOneRfc5424MessageWithEveryHeaderField) {
    ASSERT_TRUE(m_sink.isBound());
    const clock::ScopedWallClock frozen(&frozenClock);
    const SyslogMessage message =
        reportAndReceive(GDString(L"disk almost full"), SystemEventLog::kError, L"kiv.http");
    ASSERT_TRUE(message.bValid);
    EXPECT_EQ(message.nPriority, 1 * 8 + 3);  // user.err
    EXPECT_EQ(message.nVersion, 1);
    EXPECT_EQ(message.timestamp, "2023-11-14T22:13:20Z");
    EXPECT_EQ(message.host, hostName());
    EXPECT_EQ(message.appName, program_invocation_short_name);
    EXPECT_EQ(message.procId, std::to_string(::getpid()));
    EXPECT_EQ(message.msgId, "-");
    EXPECT_EQ(message.structuredData, "[weblogger@32473 source=\"kiv.http\"]");
    EXPECT_EQ(message.text, "disk almost full");
    EXPECT_EQ(m_log.getSentCount(), 1u);
    EXPECT_EQ(m_log.getDroppedCount(), 0u);
}

TEST_F(SystemEventLogTest, EventTypesMapToSyslogSeverities) {
    const struct {
        SystemEventLog::EventType type;
        int nSeverity;
    } kCases[] = {
        {SystemEventLog::kError, 3},        {SystemEventLog::kWarning, 4},
        {SystemEventLog::kInformation, 6},  {SystemEventLog::kAuditSuccess, 5},
        {SystemEventLog::kAuditFailure, 4}, {static_cast<SystemEventLog::EventType>(9), 3}};
    for (const auto& c : kCases) {
        EXPECT_EQ(SystemEventLog::severityOf(c.type), c.nSeverity);
        const SyslogMessage message = reportAndReceive(GDString(L"x"), c.type);
        EXPECT_EQ(message.severity(), c.nSeverity) << "event type " << c.type;
        EXPECT_EQ(message.facility(), SystemEventLog::kDefaultFacility);
    }
}

TEST_F(SystemEventLogTest, FacilityIsPerInstanceAndNamedOrNumbered) {
    EXPECT_EQ(SystemEventLog::facilityFromName(L"local0"), 16);
    EXPECT_EQ(SystemEventLog::facilityFromName(L"LOCAL7"), 23);
    EXPECT_EQ(SystemEventLog::facilityFromName(L"daemon"), 3);
    EXPECT_EQ(SystemEventLog::facilityFromName(L"19"), 19);
    EXPECT_EQ(SystemEventLog::facilityFromName(L"24"), -1);
    EXPECT_EQ(SystemEventLog::facilityFromName(L"local8"), -1);
    EXPECT_EQ(SystemEventLog::facilityFromName(L""), -1);
    EXPECT_FALSE(m_log.setFacility(24));
    EXPECT_FALSE(m_log.setFacility(-1));
    EXPECT_TRUE(m_log.setFacility(16));

    // A second instance keeps its own settings.
    SystemEventLog other;
    other.setSocketPath(m_sink.path());
    other.setAppName("other");
    EXPECT_EQ(reportAndReceive(GDString(L"a"), SystemEventLog::kInformation).nPriority, 16 * 8 + 6);
    EXPECT_TRUE(other.reportAnEvent(GDString(L"b"), SystemEventLog::kInformation).bSent);
    const SyslogMessage fromOther = parseSyslog(m_sink.receive().value_or(""));
    EXPECT_EQ(fromOther.nPriority, 1 * 8 + 6);
    EXPECT_EQ(fromOther.appName, "other");
    EXPECT_EQ(m_log.getAppName().std(), program_invocation_short_name);
}

TEST_F(SystemEventLogTest, AppNameKeepsToWhatTheHeaderAllows) {
    m_log.setAppName("web server");
    EXPECT_EQ(reportAndReceive(GDString(L"x"), SystemEventLog::kError).appName, "web_server");
    m_log.setAppName(std::string(60, 'a'));
    EXPECT_EQ(reportAndReceive(GDString(L"x"), SystemEventLog::kError).appName,
              std::string(48, 'a'));
    m_log.setAppName("");
    EXPECT_EQ(reportAndReceive(GDString(L"x"), SystemEventLog::kError).appName, "-");
}

TEST_F(SystemEventLogTest, SourceIsEscapedInTheStructuredDataAndAbsentAsNil) {
    EXPECT_EQ(
        reportAndReceive(GDString(L"x"), SystemEventLog::kError, L"a\"b\\c]d\u00FC").structuredData,
        "[weblogger@32473 source=\"a\\\"b\\\\c\\]d\xC3\xBC\"]");
    const SyslogMessage message = reportAndReceive(GDString(L"y z"), SystemEventLog::kError);
    EXPECT_EQ(message.structuredData, "-");
    EXPECT_EQ(message.text, "y z");
}

TEST_F(SystemEventLogTest, TextIsUtf8WithoutByteOrderMarkAndAnyValueIsRendered) {
    EXPECT_EQ(
        reportAndReceive(GDString(L"gr\u00FC\u00DF \u20AC \U0001F600"), SystemEventLog::kWarning)
            .text,
        "gr\xC3\xBC\xC3\x9F \xE2\x82\xAC \xF0\x9F\x98\x80");
    EXPECT_EQ(reportAndReceive(GDUInteger64(42), SystemEventLog::kWarning).text, "42");
    const wchar_t arrText[] = L"referred";
    EXPECT_EQ(reportAndReceive(GDStringRef(arrText), SystemEventLog::kWarning).text, "referred");
}

TEST_F(SystemEventLogTest, LongTextIsCutAtACharacterBoundaryToFitTheDatagram) {
    // 100 KB of text: the datagram stays within the limit and the text is a prefix of it.
    String strText;
    for (int i = 0; i < 100 * 1024 / 2; ++i) {
        strText.append(i % 2 == 0 ? L"a" : L"\u00FC");
    }
    const SystemEventLog::Result result =
        m_log.reportAnEvent(GDString(strText), SystemEventLog::kError, L"kiv");
    EXPECT_TRUE(result.bSent);
    EXPECT_TRUE(result.bTruncated);
    const std::string datagram = m_sink.receive().value_or("");
    EXPECT_LE(datagram.size(), SystemEventLog::kDefaultMaxDatagramBytes);
    EXPECT_GT(datagram.size(), SystemEventLog::kDefaultMaxDatagramBytes - 4);
    const SyslogMessage message = parseSyslog(datagram);
    ASSERT_TRUE(message.bValid);
    const std::string expected = toUtf8(strText.view()).std();
    EXPECT_EQ(expected.compare(0, message.text.size(), message.text), 0);
    // Whole characters only: the text converts back without a replacement character.
    EXPECT_EQ(fromUtf8(message.text).view().find(L'\uFFFD'), std::wstring_view::npos);
    EXPECT_EQ(m_log.getTruncatedCount(), 1u);
    EXPECT_EQ(m_log.getDroppedCount(), 0u);
}

TEST_F(SystemEventLogTest, LargestDatagramIsPerInstanceWithAFloor) {
    m_log.setMaxDatagramBytes(100);
    EXPECT_EQ(m_log.getMaxDatagramBytes(), SystemEventLog::kMinDatagramBytes);
    m_log.setMaxDatagramBytes(64 * 1024);
    const String strText(50000, L'x');
    EXPECT_EQ(reportAndReceive(GDString(strText), SystemEventLog::kError).text,
              std::string(50000, 'x'));
    EXPECT_EQ(m_log.getTruncatedCount(), 0u);
}

TEST_F(SystemEventLogTest, DatagramTheSocketRefusesIsDroppedNotCrashed) {
    // Three megabytes in one datagram is more than a Unix socket sends.
    m_log.setMaxDatagramBytes(4 * 1024 * 1024);
    const String strText(3 * 1024 * 1024, L'x');
    const SystemEventLog::Result result =
        m_log.reportAnEvent(GDString(strText), SystemEventLog::kError);
    EXPECT_FALSE(result.bSent);
    EXPECT_EQ(result.nError, EMSGSIZE);
    EXPECT_EQ(m_log.getDroppedCount(), 1u);
    // The connection is still good for the next message.
    EXPECT_EQ(reportAndReceive(GDString(L"after"), SystemEventLog::kError).text, "after");
}

TEST_F(SystemEventLogTest, WithoutDaemonMessagesAreDroppedAndTheFirstDropIsFlagged) {
    m_sink.close();
    const SystemEventLog::Result first =
        m_log.reportAnEvent(GDString(L"1"), SystemEventLog::kError);
    EXPECT_FALSE(first.bSent);
    EXPECT_TRUE(first.bFirstDrop);
    EXPECT_EQ(first.nError, ENOENT);
    const SystemEventLog::Result second =
        m_log.reportAnEvent(GDString(L"2"), SystemEventLog::kError);
    EXPECT_FALSE(second.bSent);
    EXPECT_FALSE(second.bFirstDrop);
    EXPECT_EQ(m_log.getDroppedCount(), 2u);
    EXPECT_EQ(m_log.getSentCount(), 0u);

    // The daemon starts: the next message reaches it.
    SyslogSink started(m_sink.path());
    ASSERT_TRUE(started.isBound());
    EXPECT_TRUE(m_log.reportAnEvent(GDString(L"3"), SystemEventLog::kError).bSent);
    EXPECT_EQ(parseSyslog(started.receive().value_or("")).text, "3");
    EXPECT_EQ(m_log.getDroppedCount(), 2u);
}

TEST_F(SystemEventLogTest, RestartedDaemonIsFoundAgainWithoutLosingAMessage) {
    EXPECT_EQ(reportAndReceive(GDString(L"before"), SystemEventLog::kError).text, "before");
    m_sink.close();
    SyslogSink restarted(m_sink.path());
    ASSERT_TRUE(restarted.isBound());
    EXPECT_TRUE(m_log.reportAnEvent(GDString(L"after"), SystemEventLog::kError).bSent);
    EXPECT_EQ(parseSyslog(restarted.receive().value_or("")).text, "after");
    EXPECT_EQ(m_log.getDroppedCount(), 0u);
}

TEST_F(SystemEventLogTest, FullDaemonQueueDropsWithoutBlocking) {
    // Nobody reads: the daemon's queue fills and further messages are dropped at once.
    const String strText(1000, L'q');
    int nSent = 0;
    std::chrono::steady_clock::duration longest{};
    for (int i = 0; i < 5000 && m_log.getDroppedCount() < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        nSent += m_log.reportAnEvent(GDString(strText), SystemEventLog::kError).bSent;
        longest = std::max(longest, std::chrono::steady_clock::now() - start);
    }
    EXPECT_EQ(m_log.getDroppedCount(), 3u);
    EXPECT_EQ(m_log.getSentCount(), static_cast<std::uint64_t>(nSent));
    EXPECT_LT(longest, std::chrono::milliseconds(100));
    // Once the daemon catches up, messages get through again.
    for (int i = 0; i < nSent; ++i) {
        ASSERT_TRUE(m_sink.receive().has_value());
    }
    EXPECT_EQ(reportAndReceive(GDString(L"caught up"), SystemEventLog::kError).text, "caught up");
}

TEST_F(SystemEventLogTest, SocketPathTooLongIsRefused) {
    AssertionCapture capture;
    m_log.setSocketPath(std::string(200, 'p'));
    EXPECT_TRUE(capture.contains("path fits a Unix socket address"));
    EXPECT_EQ(m_log.getSocketPath().std(), m_sink.path());
}

TEST_F(SystemEventLogTest, ShortStringMessageAllocatesNothing) {
    EXPECT_EQ(reportAndReceive(GDString(L"warm"), SystemEventLog::kError).text, "warm");
    const wchar_t arrText[] = L"a typical message of a web server, well under two kilobytes";
    const GDStringRef text(arrText);
    test::AllocationScope scope;
    for (int i = 0; i < 10; ++i) {
        m_log.reportAnEvent(text, SystemEventLog::kInformation, L"kiv.http.request");
    }
    EXPECT_EQ(scope.count(), 0u);
}

}  // namespace
}  // namespace kiv
