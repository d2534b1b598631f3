// Reconfiguring thresholds while other threads log and create sources.
//
// One thread applies two filter configurations alternately, read from their XML each time as
// the configuration loader does; logging threads meanwhile decide messages against the very
// filters being rewritten, and one more thread keeps adding sources to the tree. When the
// applier is done, every source must hold exactly the last configuration's thresholds.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmlconfigreader.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;

constexpr int kSubtrees = 8;

class CountingWriter : public LogWriter {
public:
    explicit CountingWriter(short id) : LogWriter(String(L"counting"), id, WT_GLOBAL, nullptr) {}
    bool initialize(const XmlElement*, const XmlElement*) override { return true; }
    void logMessage(const LogSeverity&, const GDValue&, const TmLogger::LoggerState&,
                    const TmLogger::FileLocation*) override {
        m_nMessages.fetch_add(1, std::memory_order_relaxed);
    }
    long messages() const { return m_nMessages.load(std::memory_order_relaxed); }

private:
    std::atomic<long> m_nMessages{0};
};

const char* const kConfigA = R"(<Logging>
    <WriterClassGroups><WriterClassGroup name="One">1</WriterClassGroup></WriterClassGroups>
    <Filters>
        <FilterRecord writerClassGroup="One" path="fcc" error="10"/>
        <FilterRecord writerClassGroup="One" path="fcc.w?" warning="3"/>
    </Filters></Logging>)";

const char* const kConfigB = R"(<Logging>
    <WriterClassGroups>
        <WriterClassGroup name="One">1</WriterClassGroup>
        <WriterClassGroup name="Two">2</WriterClassGroup>
    </WriterClassGroups>
    <Filters>
        <FilterRecord writerClassGroup="One" path="fcc" error="20" trace="5"/>
        <FilterRecord writerClassGroup="Two" path="fcc.w3" error="7"/>
        <FilterRecord writerClassGroup="One" path="fcc.*.sub" information="9"/>
    </Filters></Logging>)";

void applyDocument(const XmlDocument& document) {
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *document.getDocumentElement());
    LogSourcesMan::getLogSourcesMan().applyConfig(cfg);
}

bool startsWith(const std::wstring& text, const std::wstring& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The thresholds configuration B gives a source, worked out by hand from its records.
LogLevels expectedUnderB(const std::wstring& path, int nId) {
    LogLevels levels(0, 0, 0, 0, 0);
    if (path != L"fcc" && !startsWith(path, L"fcc.")) {
        return levels;
    }
    if (nId == 1) {
        levels = LogLevels(0, 20, 0, 0, 5);
        // fcc.<one segment>.sub is matched by the pattern; nothing deeper exists below it.
        const std::size_t nSecondDot = path.find(L'.', 4);
        if (nSecondDot != std::wstring::npos && path.substr(nSecondDot) == L".sub") {
            levels.set(LogSeverity::SV_INFORMATION, 9);
        }
    } else if (nId == 2 && (path == L"fcc.w3" || startsWith(path, L"fcc.w3."))) {
        levels.set(LogSeverity::SV_ERROR, 7);
    }
    return levels;
}

TEST(FilterConfigConcurrencyTest, LastApplicationWinsWhileThreadsLogAndAddSources) {
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    std::vector<const LogSource*> vecLogged;
    for (int i = 0; i < kSubtrees; ++i) {
        const std::wstring base = L"fcc.w" + std::to_wstring(i);
        vecLogged.push_back(sources.getLogSource(nullptr, ZQWString(base.c_str())));
        vecLogged.push_back(sources.getLogSource(nullptr, ZQWString((base + L".sub").c_str())));
    }
    LogWritersMan& writers = LogWritersMan::getLogWritersMan();
    writers.clearWriters();
    Handle<CountingWriter> hWriterOne(new CountingWriter(1));
    Handle<CountingWriter> hWriterTwo(new CountingWriter(2));
    writers.versionIncrement();

    const XmlDocument configA = XmlDocument::parseString(std::string_view(kConfigA));
    const XmlDocument configB = XmlDocument::parseString(std::string_view(kConfigB));
    applyDocument(configB);

    std::atomic<bool> bStopLogging{false};
    std::atomic<bool> bStopCreating{false};
    std::atomic<long> nLogged{0};
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < 3; ++t) {
        vecThreads.emplace_back([&, t] {
            TmLogger& logger = TmLogger::getLogger();
            std::size_t i = static_cast<std::size_t>(t);
            while (!bStopLogging.load()) {
                logger.pushSource(*vecLogged[i % vecLogged.size()]);
                logger.logMessage(kSevError, GDString(L"error"));
                logger.logMessage(kSevWarningCritical, GDString(L"warning"));
                logger.logMessage(kSevInfoCritical, GDString(L"information"));
                logger.popSource();
                nLogged.fetch_add(3, std::memory_order_relaxed);
                ++i;
            }
        });
    }
    std::thread creator([&] {
        for (int n = 0; !bStopCreating.load(); ++n) {
            const std::wstring name = L"fcc.new.n" + std::to_wstring(n % 500);
            sources.getLogSource(nullptr, ZQWString(name.c_str()));
        }
    });

    constexpr int kRounds = 60;
    for (int nRound = 0; nRound < kRounds; ++nRound) {
        applyDocument(nRound % 2 == 0 ? configA : configB);
    }
    // No source is added after the last application, which happens while threads still log.
    bStopCreating = true;
    creator.join();
    applyDocument(configA);
    applyDocument(configB);
    bStopLogging = true;
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_GT(nLogged.load(), 0);

    std::vector<ZQWString> vecNames;
    sources.getAllLogSourceNames(vecNames);
    std::size_t nChecked = 0;
    for (const ZQWString& name : vecNames) {
        const LogFilter& filter = sources.findLogSource(name)->getLogFilter();
        const std::wstring path(name.view());
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            ASSERT_EQ(filter.getLogLevels(nId), expectedUnderB(path, nId))
                << toUtf8(name.view()).c_str() << " writer " << nId;
        }
        ++nChecked;
    }
    EXPECT_GE(nChecked, static_cast<std::size_t>(2 * kSubtrees + 1));

    // The thresholds are what log calls now decide by: error 16 passes 20 for writer 1 only,
    // except below fcc.w3 where writer 2 has 7.
    const long nOneBefore = hWriterOne->messages();
    const long nTwoBefore = hWriterTwo->messages();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*sources.findLogSource(ZQWString(L"fcc.w0.sub")));
    logger.logMessage(kSevError, GDString(L"after"));
    logger.logMessage(kSevErrorCritical, GDString(L"after"));
    logger.popSource();
    EXPECT_EQ(hWriterOne->messages() - nOneBefore, 2);
    EXPECT_EQ(hWriterTwo->messages() - nTwoBefore, 0);
    logger.pushSource(*sources.findLogSource(ZQWString(L"fcc.w3.sub")));
    logger.logMessage(kSevErrorCritical, GDString(L"after"));
    logger.popSource();
    EXPECT_EQ(hWriterTwo->messages() - nTwoBefore, 0);
    logger.pushSource(*sources.findLogSource(ZQWString(L"fcc.w3")));
    logger.logMessage(kSevErrorFatal, GDString(L"after"));
    logger.popSource();
    EXPECT_EQ(hWriterTwo->messages() - nTwoBefore, 1);

    writers.clearWriters();
    writers.versionIncrement();
}

}  // namespace
}  // namespace kiv
