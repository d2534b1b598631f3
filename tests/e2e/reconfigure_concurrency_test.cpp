// Reconfiguration under load: four threads log numbered messages while another thread switches
// between two valid documents a hundred times, and tries twenty invalid ones in between. Both
// valid documents keep the same file ring, so every switch hands the ring from the old writer
// to its replacement. Every message must be in the ring's files exactly once, and after each
// invalid document the writers and thresholds in force must be the ones before it.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

constexpr int kLoggers = 4;
constexpr int kMinMessagesPerLogger = 2000;
constexpr int kReconfigurations = 100;
constexpr int kInvalidEvery = 5;  // 20 invalid documents

std::string validDocument(bool bSecond) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Logging>\n"
        "<WriterClassGroups><WriterClassGroup name=\"Ring\">0</WriterClassGroup>"
        "<WriterClassGroup name=\"Extra\">1</WriterClassGroup></WriterClassGroups>\n"
        "<Filters><FilterRecord writerClassGroup=\"Ring\" path=\"load\" error=\"32\"/>";
    xml += bSecond ? "<FilterRecord writerClassGroup=\"Extra\" path=\"load\" error=\"20\"/>"
                   : "<FilterRecord writerClassGroup=\"Extra\" path=\"load.*\" error=\"10\"/>";
    xml +=
        "</Filters>\n<Writers>\n"
        "<Writer name=\"ring\" implementation=\"FileLogWriter\" writerClassId=\"0\" "
        "fmtName=\"Line\" dir=\"{%dir%}/ring\" filePrefix=\"load\" maxFileSizeKb=\"16\" "
        "filesN=\"1000\" autoFlush=\"";
    xml += bSecond ? "no" : "yes";
    xml += "\"/>\n";
    if (bSecond) {
        xml +=
            "<Writer name=\"extra\" implementation=\"FileLogWriter\" writerClassId=\"1\" "
            "fmtName=\"Line\" dir=\"{%dir%}/extra\" filePrefix=\"extra\"/>\n";
    }
    xml +=
        "</Writers>\n<Formats><Format name=\"Line\"><MessageText/><LineBreak/></Format>"
        "</Formats>\n</Logging>\n";
    return xml;
}

const char* const kInvalidDocuments[] = {
    "<Logging><Writers><Writer name=\"x\" implementation=\"Nowhere\" writerClassId=\"0\"/>"
    "</Writers></Logging>",
    "<Logging><Writers><Writer name=\"x\" implementation=\"FileLogWriter\" writerClassId=\"12\" "
    "dir=\"{%dir%}/never\"/></Writers></Logging>",
    "<Logging><WriterClassGroups><WriterClassGroup name=\"G\">0</WriterClassGroup>"
    "<WriterClassGroup name=\"G\">1</WriterClassGroup></WriterClassGroups></Logging>",
    "<Logging><Writers><Writer name=\"ring\" implementation=\"FileLogWriter\" "
    "writerClassId=\"0\" fmtName=\"Missing\" dir=\"{%dir%}/ring\" filePrefix=\"load\"/>"
    "</Writers></Logging>",
    "<Logging><Writers></Logging>",
};

// The writers in force and the thresholds of the sources the documents name.
struct Snapshot {
    std::vector<const LogWriter*> vecWriters;
    std::vector<LogLevels> vecLevels;

    static Snapshot take(const std::vector<const LogSource*>& vecSources) {
        Snapshot snapshot;
        std::vector<Handle<LogWriter>> vecHandles;
        AtomicEntity<int> version(0);
        logger_details::LogWritersMan::getLogWritersMan().getWriters(vecHandles, version);
        for (const Handle<LogWriter>& hWriter : vecHandles) {
            snapshot.vecWriters.push_back(hWriter.get());
        }
        for (const LogSource* pSource : vecSources) {
            for (int nId = 0; nId < 10; ++nId) {
                snapshot.vecLevels.push_back(pSource->getLogFilter().getLogLevels(nId));
            }
        }
        return snapshot;
    }
    bool operator==(const Snapshot&) const = default;
};

std::vector<std::string> linesOfRing(const std::string& dir) {
    std::vector<std::string> vecLines;
    if (!std::filesystem::exists(dir)) {
        return vecLines;
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string bytes = test::readFile(entry.path().string());
        if (bytes.rfind("\xEF\xBB\xBF", 0) == 0) {
            bytes.erase(0, 3);
        }
        std::istringstream in(bytes);
        for (std::string line; std::getline(in, line);) {
            vecLines.push_back(line);
        }
    }
    return vecLines;
}

TEST(ReconfigureUnderLoad, NoMessageIsLostAndInvalidDocumentsChangeNothing) {
    const test::TempDir temp;
    const std::string strFirst = temp.write("first.xml", validDocument(false));
    const std::string strSecond = temp.write("second.xml", validDocument(true));
    std::vector<std::string> vecInvalid;
    for (const char* pszInvalid : kInvalidDocuments) {
        vecInvalid.push_back(
            temp.write("invalid" + std::to_string(vecInvalid.size()) + ".xml", pszInvalid));
    }
    const LogSourceHandle load(String(L"load"));
    const LogSourceHandle sub(String(L"load.sub"));
    const std::vector<const LogSource*> vecSources{load.get(), sub.get()};
    ReplacementMap map;
    map[String(L"dir")] = fromUtf8(temp.path());
    ASSERT_TRUE(XmlLogConfiguration::reconfigure(fromUtf8(strFirst), &map).m_bApplied);

    std::atomic<bool> bReconfiguring{true};
    std::vector<int> vecCounts(kLoggers, 0);
    std::vector<std::thread> vecLoggers;
    for (int nLogger = 0; nLogger < kLoggers; ++nLogger) {
        vecLoggers.emplace_back([&, nLogger] {
            TmLogger& logger = TmLogger::getLogger();
            const LogSource* pSource = nLogger % 2 == 0 ? load.get() : sub.get();
            int i = 0;
            for (; i < kMinMessagesPerLogger || bReconfiguring.load(); ++i) {
                const std::string text = "t" + std::to_string(nLogger) + " m" + std::to_string(i);
                logger.logMessage(kSevError, GDString(widen(text)), pSource);
            }
            vecCounts[nLogger] = i;
        });
    }

    int nInvalidTried = 0;
    int nInvalidHeld = 0;
    int nValidApplied = 0;
    for (int n = 0; n < kReconfigurations; ++n) {
        if (n % kInvalidEvery == 0) {
            const Snapshot before = Snapshot::take(vecSources);
            const ConfigurationReport report = XmlLogConfiguration::reconfigure(
                fromUtf8(vecInvalid[nInvalidTried % vecInvalid.size()]), &map);
            ++nInvalidTried;
            EXPECT_FALSE(report.m_bApplied);
            EXPECT_FALSE(report.m_vecProblems.empty());
            if (Snapshot::take(vecSources) == before) {
                ++nInvalidHeld;
            }
        }
        const ConfigurationReport report =
            XmlLogConfiguration::reconfigure(fromUtf8(n % 2 == 0 ? strSecond : strFirst), &map);
        if (report.m_bApplied) {
            ++nValidApplied;
        }
    }
    bReconfiguring = false;
    for (std::thread& thread : vecLoggers) {
        thread.join();
    }
    // Retires (and flushes) the last writers.
    XmlLogConfiguration::configAll(
        *XmlDocument::parseString(std::string_view("<Logging/>")).getDocumentElement(), nullptr);

    EXPECT_EQ(nValidApplied, kReconfigurations);
    EXPECT_EQ(nInvalidTried, kReconfigurations / kInvalidEvery);
    EXPECT_EQ(nInvalidHeld, nInvalidTried);

    // Every message passes writer 0 in both documents: each must be in the ring exactly once.
    std::map<std::string, int> mapSeen;
    for (const std::string& line : linesOfRing(temp.file("ring"))) {
        ++mapSeen[line];
    }
    std::size_t nExpected = 0;
    int nMissing = 0;
    int nTwice = 0;
    for (int nLogger = 0; nLogger < kLoggers; ++nLogger) {
        for (int i = 0; i < vecCounts[nLogger]; ++i) {
            const auto it = mapSeen.find("t" + std::to_string(nLogger) + " m" + std::to_string(i));
            if (it == mapSeen.end()) {
                ++nMissing;
            } else if (it->second != 1) {
                ++nTwice;
            }
            ++nExpected;
        }
    }
    EXPECT_EQ(nMissing, 0);
    EXPECT_EQ(nTwice, 0);
    EXPECT_EQ(mapSeen.size(), nExpected);
    // The second document's extra writer wrote only real messages, each at most once.
    std::set<std::string> setExtra;
    for (const std::string& line : linesOfRing(temp.file("extra"))) {
        EXPECT_TRUE(mapSeen.count(line) == 1) << line;
        EXPECT_TRUE(setExtra.insert(line).second) << line;
    }
    EXPECT_FALSE(std::filesystem::exists(temp.file("never")));
}

}  // namespace
}  // namespace kiv
