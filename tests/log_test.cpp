#include "weblogger/log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/alloc_counter.h"
#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "support/writer_config.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using test::RecordingWriter;

constexpr short kRecordingId = 4;
constexpr short kFileId = 5;

// The file writer shows where each message was logged: "file|line|text".
const char* const kLocationFormats =
    "<Formats><Format name='Default'><File/>|<Line/>|<MessageText/><LineBreak/></Format>"
    "</Formats>";

int g_nInsertsEvaluated = 0;

int countedInsert() {
    return ++g_nInsertsEvaluated;
}

class LogMacroTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Every message type passes for both writers except traces, which pass for none.
        for (const short id : {kRecordingId, kFileId}) {
            const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
                id, LogLevels(65534, 65534, 65534, 65534, 0));
        }
        m_hRecording = Handle<RecordingWriter>(new RecordingWriter(
            String(L"recording"), kRecordingId, LogWriter::WT_SINGLE_THREADED, nullptr));
        logger().pushSource(*m_source);
        logger().addLocalWriter(m_hRecording.get());
        g_nInsertsEvaluated = 0;
    }
    void TearDown() override {
        logger().clearLocalWriters();
        logger().popSource();
    }
    static TmLogger& logger() { return TmLogger::getLogger(); }

    void openTraces() {
        for (const short id : {kRecordingId, kFileId}) {
            const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
                id, LogLevels(65534, 65534, 65534, 65534, 65534));
        }
    }

    // A real file writer in a scratch directory, attached to this thread's logger.
    void attachFileWriter(const std::string& attributes = "") {
        m_pFileConfig = std::make_unique<test::WriterConfig>(
            "<Writer name='files' writerClassId='" + std::to_string(kFileId) +
                "' implementation='FileLogWriter' dir='" + m_dir.path() + "' " + attributes + "/>",
            kLocationFormats);
        m_hFile = m_pFileConfig->create(L"FileLogWriter", LogWriter::WT_SINGLE_THREADED);
        ASSERT_FALSE(m_hFile.isNull());
        logger().addLocalWriter(m_hFile.get());
    }

    // The lines the file writer has written, without the byte-order mark.
    std::vector<std::string> fileLines() const {
        std::string strText = test::readFile(m_dir.file("kiv0.log"));
        if (strText.rfind("\xEF\xBB\xBF", 0) == 0) {
            strText.erase(0, 3);
        }
        std::vector<std::string> vecLines;
        std::istringstream in(strText);
        for (std::string strLine; std::getline(in, strLine);) {
            vecLines.push_back(strLine);
        }
        return vecLines;
    }

    // The message text of one line of the file.
    static std::string messageOf(const std::string& strLine) {
        return strLine.substr(strLine.find('|', strLine.find('|') + 1) + 1);
    }
    std::string lastFileMessage() const {
        const std::vector<std::string> vecLines = fileLines();
        return vecLines.empty() ? "(no line)" : messageOf(vecLines.back());
    }

    std::vector<String> recordedTexts() const {
        std::vector<String> vecTexts;
        for (const auto& record : m_hRecording->records()) {
            vecTexts.push_back(record.text);
        }
        return vecTexts;
    }

    LogSourceHandle m_source{String(L"logmacro.request")};
    Handle<RecordingWriter> m_hRecording;
    test::TempDir m_dir;
    std::unique_ptr<test::WriterConfig> m_pFileConfig;
    Handle<LogWriter> m_hFile;
};

// ---------------------------------------------------------------- inserts through a file writer

TEST_F(LogMacroTest, NarrowTextInsertsAreDecodedAsUtf8) {
    attachFileWriter();
    const char* pszUser = "J\xC3\xBCrgen";  // Jürgen
    const char* pszNull = nullptr;
    char arrBuffer[] = "buffer";
    const std::string strPath = "/caf\xC3\xA9/\xE2\x82\xAC";  // /café/€
    const std::string_view view = std::string_view(strPath).substr(1, 5);
    const NString nstrHost("host-1");
    WEBLOG_INFO("%1|%2|%3|%4|%5|%6|[%7]", pszUser, "literal", arrBuffer, strPath, view, nstrHost,
                pszNull);
    EXPECT_EQ(lastFileMessage(),
              "J\xC3\xBCrgen|literal|buffer|/caf\xC3\xA9/\xE2\x82\xAC|caf\xC3\xA9|host-1|[]");
    WEBLOG_INFO("temporary %1", std::string("made for the call"));
    EXPECT_EQ(lastFileMessage(), "temporary made for the call");
    WEBLOG_INFO("bad byte %1", std::string_view("a\xFF"));
    EXPECT_EQ(lastFileMessage(), "bad byte a\xEF\xBF\xBD");
}

TEST_F(LogMacroTest, WideTextInserts) {
    attachFileWriter();
    const wchar_t* pwszUser = L"J\u00FCrgen";
    const wchar_t* pwszNull = nullptr;
    const std::wstring wstrPath = L"/caf\u00E9";
    const String strHost(L"host-\u20AC");
    WEBLOG_INFO("%1|%2|%3|%4|%5|[%6]", pwszUser, L"literal", wstrPath,
                std::wstring_view(wstrPath).substr(1), strHost, pwszNull);
    EXPECT_EQ(lastFileMessage(),
              "J\xC3\xBCrgen|literal|/caf\xC3\xA9|caf\xC3\xA9|host-\xE2\x82\xAC|[]");
}

TEST_F(LogMacroTest, CallsWithTemplatesOfOneLengthEachKeepTheirOwnText) {
    // The file writer keeps compiled templates by address and the literal's fingerprint: calls
    // that take turns, with templates of the same length, each show their own.
    attachFileWriter();
    std::vector<std::string> vecExpected;
    for (int nRound = 0; nRound < 3; ++nRound) {
        WEBLOG_INFO("alpha %1", nRound);
        WEBLOG_INFO("bravo %1", nRound);
        WEBLOG_INFO(L"gamma %1", nRound);
        for (const char* pszName : {"alpha ", "bravo ", "gamma "}) {
            vecExpected.push_back(pszName + std::to_string(nRound));
        }
    }
    std::vector<std::string> vecTexts;
    for (const std::string& strLine : fileLines()) {
        vecTexts.push_back(messageOf(strLine));
    }
    EXPECT_EQ(vecTexts, vecExpected);
}

TEST_F(LogMacroTest, IntegersOfEveryWidthAndSignedness) {
    attachFileWriter();
    const std::int8_t i8 = -8;
    const std::uint8_t u8 = 200;
    const short i16 = -16000;
    const unsigned short u16 = 65535;
    const int i32 = INT_MIN;
    const unsigned u32 = 4000000000u;
    const long long i64 = LLONG_MIN;
    const unsigned long long u64 = ULLONG_MAX;
    WEBLOG_INFO("%1 %2 %3 %4 %5 %6 %7 %8", i8, u8, i16, u16, i32, u32, i64, u64);
    EXPECT_EQ(lastFileMessage(),
              "-8 200 -16000 65535 -2147483648 4000000000 -9223372036854775808 "
              "18446744073709551615");
    const long l = -5;
    const std::size_t n = 7;
    WEBLOG_INFO("%1 %2 %3", l, n, 42);
    EXPECT_EQ(lastFileMessage(), "-5 7 42");
}

TEST_F(LogMacroTest, NumbersAndPointersTravelByValueAndOtherInsertsByReference) {
    using logger_details::InsertParam;
    static_assert(std::is_same_v<InsertParam<std::uint64_t>, std::uint64_t>);
    static_assert(std::is_same_v<InsertParam<double>, double>);
    static_assert(std::is_same_v<InsertParam<const char*>, const char*>);
    static_assert(std::is_same_v<InsertParam<std::string>, const std::string&>);
    static_assert(std::is_same_v<InsertParam<char[3]>, const char(&)[3]>);
    static_assert(std::is_same_v<InsertParam<GDString>, const GDString&>);

    // A loop counter logged by value shows the value of its call; text is still referred to.
    attachFileWriter();
    const std::string strWorker = "w7";
    for (std::uint64_t i = 0; i < 3; ++i) {
        WEBLOG_INFO("request %1 by %2 at %3", i, strWorker, "noon");
    }
    const std::vector<std::string> vecLines = fileLines();
    ASSERT_EQ(vecLines.size(), 3u);
    EXPECT_EQ(messageOf(vecLines[0]), "request 0 by w7 at noon");
    EXPECT_EQ(messageOf(vecLines[2]), "request 2 by w7 at noon");
}

TEST_F(LogMacroTest, FloatingPointNumbersShowTheirShortestExactText) {
    attachFileWriter();
    const long double ld = 2.5L;
    WEBLOG_INFO("%1 %2 %3 %4 %5", 12.5, 0.1f, 1e20, -0.0, ld);
    EXPECT_EQ(lastFileMessage(), "12.5 0.1 1e+20 -0 2.5");
}

TEST_F(LogMacroTest, GenericValuesPassAsTheyAre) {
    attachFileWriter();
    const GDString text(L"owned");
    const GDUInteger64 number(99);
    WEBLOG_INFO("%1 %2 %3", text, number, GDArray().append(GDString(L"a")).append(GDInteger64(-1)));
    EXPECT_EQ(lastFileMessage(), "owned 99 a-1");
}

TEST_F(LogMacroTest, TemplatesNarrowOrWideWithoutInsertsAndWithPercent) {
    attachFileWriter();
    WEBLOG_INFO("gr\xC3\xB6\xC3\x9F %1", 3);  // "größ", escaped as UTF-8 bytes
    EXPECT_EQ(lastFileMessage(), "gr\xC3\xB6\xC3\x9F 3");
    WEBLOG_INFO("größe %1", 4);  // typed as it is
    EXPECT_EQ(lastFileMessage(), "gr\u00F6\u00DFe 4");
    WEBLOG_INFO(L"wide \u20AC %1", "x");
    EXPECT_EQ(lastFileMessage(), "wide \xE2\x82\xAC x");
    WEBLOG_INFO("bad \xFF byte");
    EXPECT_EQ(lastFileMessage(), "bad \xEF\xBF\xBD byte");
    WEBLOG_INFO("100%% done");
    EXPECT_EQ(lastFileMessage(), "100% done");
    WEBLOG_INFO("missing %2 stays visible", 1);
    EXPECT_EQ(lastFileMessage(), "missing %2 stays visible");
}

// ---------------------------------------------------------------- where and whether

TEST_F(LogMacroTest, FileAndLineAreTheCallSite) {
    attachFileWriter();
    const unsigned nFirst = __LINE__ + 1;
    WEBLOG_INFO("first");
    const unsigned nSecond = __LINE__ + 1;
    WEBLOG_TO(logger(), kSevWarning, "second");
    const std::vector<std::string> vecLines = fileLines();
    ASSERT_EQ(vecLines.size(), 2u);
    EXPECT_EQ(vecLines[0], "log_test.cpp|" + std::to_string(nFirst) + "|first");
    EXPECT_EQ(vecLines[1], "log_test.cpp|" + std::to_string(nSecond) + "|second");
}

TEST_F(LogMacroTest, FilteredOutCallEvaluatesNoInsert) {
    WEBLOG_TRACE_FINE("trace %1 %2", countedInsert(), countedInsert());
    WEBLOG(kSevTraceFinest, "trace %1", countedInsert());
    WEBLOG_TO(logger(), kSevInfoMinor, "info minor is a trace %1", countedInsert());
    EXPECT_EQ(g_nInsertsEvaluated, 0);
    EXPECT_TRUE(m_hRecording->records().empty());

    WEBLOG_INFO("accepted %1", countedInsert());
    EXPECT_EQ(g_nInsertsEvaluated, 1);
    ASSERT_EQ(recordedTexts().size(), 1u);
    EXPECT_TRUE(recordedTexts()[0].equals(L"accepted 1"));
}

TEST_F(LogMacroTest, CallWithoutAnyAcceptingWriterEvaluatesNoInsert) {
    logger().clearLocalWriters();
    WEBLOG_ERROR_FATAL("nobody listens %1", countedInsert());
    EXPECT_EQ(g_nInsertsEvaluated, 0);
}

TEST_F(LogMacroTest, LoggerAndSeverityExpressionsAreEvaluatedOnce) {
    int nLoggers = 0;
    int nSeverities = 0;
    const auto loggerOnce = [&]() -> TmLogger& {
        ++nLoggers;
        return logger();
    };
    const auto severityOnce = [&]() -> const LogSeverity& {
        ++nSeverities;
        return kSevWarning;
    };
    WEBLOG_TO(loggerOnce(), severityOnce(), "once %1", 1);
    EXPECT_EQ(nLoggers, 1);
    EXPECT_EQ(nSeverities, 1);
    ASSERT_EQ(m_hRecording->records().size(), 1u);
    EXPECT_EQ(m_hRecording->records()[0].severity.getType(), LogSeverity::SV_WARNING);
}

TEST_F(LogMacroTest, OneStatementUnderAnIfWithoutBraces) {
    const bool bLog = false;
    if (bLog)
        WEBLOG_INFO("not logged");
    else
        WEBLOG_INFO("logged from the else");
    ASSERT_EQ(recordedTexts().size(), 1u);
    EXPECT_TRUE(recordedTexts()[0].equals(L"logged from the else"));
}

TEST_F(LogMacroTest, EachSeverityMacroLogsAtItsSeverity) {
    openTraces();
    WEBLOG_ERROR_CORRUPTION("m");
    WEBLOG_ERROR_FATAL("m");
    WEBLOG_ERROR_UNKNOWN("m");
    WEBLOG_ERROR_CRITICAL("m");
    WEBLOG_ERROR("m");
    WEBLOG_ERROR_USER("m");
    WEBLOG_ERROR_MINOR("m");
    WEBLOG_WARNING_CRITICAL("m");
    WEBLOG_WARNING("m");
    WEBLOG_WARNING_MINOR("m");
    WEBLOG_SECURITY_FATAL("m");
    WEBLOG_SECURITY_CRITICAL("m");
    WEBLOG_SECURITY("m");
    WEBLOG_SECURITY_MINOR("m");
    WEBLOG_INFO_CRITICAL("m");
    WEBLOG_INFO("m");
    WEBLOG_INFO_MINOR("m");
    WEBLOG_TRACE_FINE("m");
    WEBLOG_TRACE_FINER("m");
    WEBLOG_TRACE_FINEST("m");
    const LogSeverity* arrExpected[] = {
        &kSevErrorCorruption, &kSevErrorFatal,    &kSevErrorUnknown,  &kSevErrorCritical,
        &kSevError,           &kSevErrorUser,     &kSevErrorMinor,    &kSevWarningCritical,
        &kSevWarning,         &kSevWarningMinor,  &kSevSecurityFatal, &kSevSecurityCritical,
        &kSevSecurity,        &kSevSecurityMinor, &kSevInfoCritical,  &kSevInfo,
        &kSevInfoMinor,       &kSevTraceFine,     &kSevTraceFiner,    &kSevTraceFinest};
    const auto records = m_hRecording->records();
    ASSERT_EQ(records.size(), std::size(arrExpected));
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].severity.getType(), arrExpected[i]->getType()) << i;
        EXPECT_EQ(records[i].severity.getImportance(), arrExpected[i]->getImportance()) << i;
        EXPECT_TRUE(records[i].source.equals(L"logmacro.request")) << i;
    }
}

// ---------------------------------------------------------------- the heap

TEST_F(LogMacroTest, AcceptedCallAllocatesNothingInSteadyState) {
    logger().clearLocalWriters();  // the recording writer keeps copies; the file writer does not
    attachFileWriter("autoFlush='no'");
    const std::string strUser = "J\xC3\xBCrgen";
    const String strHost(L"host-1");
    const auto logOne = [&](int i) {
        WEBLOG_INFO("request %1 for %2 on %3 took %4 ms (%5, %6, %7)", i, strUser, strHost,
                    12.5 + i, "literal", std::string_view(strUser), static_cast<std::uint8_t>(i));
    };
    logOne(0);  // the writer's first message opens its buffer
    const test::AllocationScope scope;
    for (int i = 1; i <= 100; ++i) {
        logOne(i);
    }
    const std::size_t nAllocations = scope.count();
    EXPECT_EQ(nAllocations, 0u);
    logger().clearLocalWriters();
    m_hFile = Handle<LogWriter>();  // the last release closes the file and flushes it
    const std::vector<std::string> vecLines = fileLines();
    ASSERT_EQ(vecLines.size(), 101u);
    EXPECT_EQ(
        messageOf(vecLines.back()),
        "request 100 for J\xC3\xBCrgen on host-1 took 112.5 ms (literal, J\xC3\xBCrgen, 100)");
}

}  // namespace
}  // namespace kiv
