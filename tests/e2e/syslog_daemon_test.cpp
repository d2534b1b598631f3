// The system log writer with a real daemon in the loop: rsyslogd runs as a child of the test, in
// the foreground, with a private configuration, pid file, socket and output files in the test's
// temporary directory (never the machine's /dev/log). A second rsyslogd receives over TCP on
// 127.0.0.1 what the first forwards, as a central log server would. The daemons are killed when
// each test ends, and told to die with the test process should it crash first.
//
// Skipped, saying why, only when rsyslogd is not installed (.ci/run installs it).
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>
#include <barrier>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "support/test_writer.h"
#include "support/writer_config.h"
#include "weblogger/internal/eventlogwriter.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

using logger_details::LogWritersMan;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr short kSyslogWriterId = 7;
constexpr short kOtherWriterId = 8;
const char* const kAppName = "weblogger-e2e";

std::optional<std::string> findRsyslogd() {
    std::vector<std::string> vecDirs = {"/usr/sbin", "/sbin", "/usr/local/sbin"};
    if (const char* pszPath = std::getenv("PATH")) {
        std::istringstream path(pszPath);
        for (std::string dir; std::getline(path, dir, ':');) {
            vecDirs.push_back(dir);
        }
    }
    for (const std::string& dir : vecDirs) {
        const std::string candidate = dir + "/rsyslogd";
        if (::access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return std::nullopt;
}

bool waitFor(const std::function<bool()>& condition, milliseconds timeout) {
    const auto deadline = steady_clock::now() + timeout;
    while (!condition()) {
        if (steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(milliseconds(10));
    }
    return true;
}

std::size_t lineCount(const std::string& path) {
    std::ifstream in(path);
    std::size_t nLines = 0;
    for (std::string line; std::getline(in, line);) {
        ++nLines;
    }
    return nLines;
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

// A TCP port on 127.0.0.1 that nobody listens on right now.
int freePort() {
    const int hSocket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    socklen_t nLength = sizeof(address);
    ::getsockname(hSocket, reinterpret_cast<sockaddr*>(&address), &nLength);
    ::close(hSocket);
    return ntohs(address.sin_port);
}

bool isListening(int nPort) {
    const int hSocket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(nPort));
    const bool bListening =
        ::connect(hSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::close(hSocket);
    return bListening;
}

// Each line the daemons write: severity number, app name, structured data, message.
const char* const kLineTemplate =
    "template(name=\"line\" type=\"string\" "
    "string=\"%syslogseverity% %app-name% %structured-data% %msg%\\n\")\n";

// One rsyslogd child process with its own configuration.
class Rsyslogd {
public:
    Rsyslogd(std::string binary, const test::TempDir& dir, std::string name, std::string config)
        : m_strBinary(std::move(binary)),
          m_strConfig(dir.write(name + ".conf", config)),
          m_strPidFile(dir.file(name + ".pid")),
          m_strConsole(dir.file(name + ".console")) {}
    ~Rsyslogd() { stop(); }
    Rsyslogd(const Rsyslogd&) = delete;
    Rsyslogd& operator=(const Rsyslogd&) = delete;

    bool start() {
        ::unlink(m_strPidFile.c_str());
        const pid_t nParent = ::getpid();
        m_nPid = ::fork();
        if (m_nPid == 0) {
            // Only async-signal-safe calls until exec.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (::getppid() != nParent) {
                ::_exit(127);
            }
            const int hOut = ::open(m_strConsole.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            ::dup2(hOut, 1);
            ::dup2(hOut, 2);
            ::execl(m_strBinary.c_str(), m_strBinary.c_str(), "-n", "-f", m_strConfig.c_str(), "-i",
                    m_strPidFile.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        return m_nPid > 0;
    }

    // SIGTERM, then SIGKILL if it has not gone within two seconds.
    void stop() {
        if (m_nPid <= 0) {
            return;
        }
        ::kill(m_nPid, SIGTERM);
        int nStatus = 0;
        const bool bExited = waitFor([&] { return ::waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid; },
                                     milliseconds(2000));
        if (!bExited) {
            ::kill(m_nPid, SIGKILL);
            ::waitpid(m_nPid, &nStatus, 0);
        }
        m_nPid = -1;
    }

    bool isRunning() const { return m_nPid > 0 && ::kill(m_nPid, 0) == 0; }
    std::string console() const { return test::readFile(m_strConsole); }

private:
    std::string m_strBinary;
    std::string m_strConfig;
    std::string m_strPidFile;
    std::string m_strConsole;
    pid_t m_nPid = -1;
};

struct Line {
    int nSeverity = -1;
    std::string appName;
    std::string structuredData;
    std::string text;
};

// The lines of an output file written by kLineTemplate, by message text.
std::map<std::string, Line> readLines(const std::string& path) {
    std::map<std::string, Line> mapLines;
    std::ifstream in(path);
    for (std::string raw; std::getline(in, raw);) {
        Line line;
        std::istringstream fields(raw);
        fields >> line.nSeverity >> line.appName;
        fields.get();
        if (fields.peek() == '[') {
            std::getline(fields, line.structuredData, ']');
            line.structuredData += ']';
        } else {
            fields >> line.structuredData;
        }
        fields.get();
        std::getline(fields, line.text);
        mapLines[line.text] = line;
    }
    return mapLines;
}

class SyslogDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_strRsyslogd = findRsyslogd().value_or("");
        if (m_strRsyslogd.empty()) {
            GTEST_SKIP() << "rsyslogd is not installed (Debian package rsyslog; .ci/run installs "
                            "it): the system log writer is tested against a real daemon only "
                            "where one exists";
        }
        for (short nId : {kSyslogWriterId, kOtherWriterId}) {
            const_cast<LogSource&>(*m_source).getLogFilter().setLogLevelsForId(
                nId, LogLevels(65534, 65534, 65534, 65534, 65534));
        }
        LogWritersMan::getLogWritersMan().clearWriters();
    }
    void TearDown() override {
        LogWritersMan::getLogWritersMan().clearWriters();
        LogWritersMan::getLogWritersMan().versionIncrement();
    }

    // The local daemon: the private socket in, the output file out, and, with a port, every
    // message forwarded in RFC 5424 over TCP to a central server.
    std::string localConfig(int nForwardPort = 0) const {
        std::string config = "global(workDirectory=\"" + m_dir.path() +
                             "\" maxMessageSize=\"8k\")\n"
                             "module(load=\"imuxsock\" SysSock.Use=\"off\")\n"
                             "input(type=\"imuxsock\" Socket=\"" +
                             socketPath() +
                             "\" UseSpecialParser=\"off\" ParseHostname=\"on\" "
                             "UseSysTimeStamp=\"off\" RateLimit.Interval=\"0\")\n" +
                             kLineTemplate + "if $app-name == \"" + kAppName +
                             "\" then {\n  action(type=\"omfile\" file=\"" + localOutput() +
                             "\" template=\"line\")\n";
        if (nForwardPort != 0) {
            config += "  action(type=\"omfwd\" target=\"127.0.0.1\" port=\"" +
                      std::to_string(nForwardPort) +
                      "\" protocol=\"tcp\" template=\"RSYSLOG_SyslogProtocol23Format\" "
                      "queue.type=\"LinkedList\" action.resumeRetryCount=\"-1\")\n";
        }
        return config + "}\n";
    }
    std::string centralConfig(int nPort) const {
        return "global(workDirectory=\"" + m_dir.path() +
               "\" maxMessageSize=\"8k\")\n"
               "module(load=\"imtcp\")\n"
               "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" +
               std::to_string(nPort) + "\")\n" + kLineTemplate + "if $app-name == \"" + kAppName +
               "\" then action(type=\"omfile\" file=\"" + centralOutput() +
               "\" template=\"line\")\n";
    }

    std::string socketPath() const { return m_dir.file("log.sock"); }
    std::string localOutput() const { return m_dir.file("local.log"); }
    std::string centralOutput() const { return m_dir.file("central.log"); }

    bool startLocal(Rsyslogd& daemon) {
        ::unlink(socketPath().c_str());
        return daemon.start() && waitFor([&] { return exists(socketPath()); }, milliseconds(5000));
    }

    // The system log writer (and, when asked, a recording writer beside it) as global writers.
    EventLogWriter& addSyslogWriter() {
        const test::WriterConfig config(
            "<Writer name='syslog' writerClassId='" + std::to_string(kSyslogWriterId) +
                "' socket='" + socketPath() + "' appName='" + kAppName + "' facility='local0'/>",
            "<Formats><Format name='Default'><MessageText/></Format></Formats>");
        Handle<LogWriter> hWriter = config.create(L"EventLogWriter", LogWriter::WT_GLOBAL);
        EXPECT_FALSE(hWriter.isNull());
        return static_cast<EventLogWriter&>(*hWriter);
    }

    test::TempDir m_dir;
    std::string m_strRsyslogd;
    LogSourceHandle m_source{String(L"e2e.http")};
};

int syslogSeverity(const LogSeverity& severity) {
    return SystemEventLog::severityOf(EventLogWriter::eventTypeOf(severity));
}

TEST_F(SyslogDaemonTest, FourThreadsReachTheDaemonAndThroughItACentralServer) {
    const int nPort = freePort();
    Rsyslogd central(m_strRsyslogd, m_dir, "central", centralConfig(nPort));
    ASSERT_TRUE(central.start());
    ASSERT_TRUE(waitFor([&] { return isListening(nPort); }, milliseconds(5000)))
        << central.console();
    Rsyslogd local(m_strRsyslogd, m_dir, "local", localConfig(nPort));
    ASSERT_TRUE(startLocal(local)) << local.console();

    EventLogWriter& writer = addSyslogWriter();
    LogWritersMan::getLogWritersMan().versionIncrement();

    // The daemon's queue holds net.unix.max_dgram_qlen datagrams (10 by the kernel's default,
    // 512 where systemd sets it); beyond that messages are dropped by design. The threads
    // therefore log in rounds, one message each, and a round ends when the daemon has written
    // it: at most four messages are ever in flight.
    constexpr int kThreads = 4;
    constexpr int kMessagesPerThread = 100;
    const LogSeverity* const arrSeverities[] = {&kSevErrorCorruption, &kSevError, &kSevWarning,
                                                &kSevInfo, &kSevTraceFine};
    std::size_t nRoundsDone = 0;
    bool bRoundTimedOut = false;
    const auto roundDone = [&]() noexcept {
        ++nRoundsDone;
        const std::string path = localOutput();
        const std::size_t nExpected = nRoundsDone * kThreads;
        bRoundTimedOut |=
            !waitFor([&] { return lineCount(path) >= nExpected; }, milliseconds(5000));
    };
    std::barrier rounds(kThreads, roundDone);
    std::vector<std::thread> vecThreads;
    for (int t = 0; t < kThreads; ++t) {
        vecThreads.emplace_back([&, t] {
            TmLogger& logger = TmLogger::getLogger();
            logger.pushSource(*m_source);
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const String text = widen("T" + std::to_string(t) + " S" + std::to_string(i));
                logger.logMessage(*arrSeverities[i % 5], GDString(text));
                rounds.arrive_and_wait();
            }
            logger.popSource();
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_FALSE(bRoundTimedOut);
    const std::size_t nTotal = kThreads * kMessagesPerThread;
    EXPECT_EQ(writer.getSystemEventLog().getDroppedCount(), 0u);
    EXPECT_EQ(writer.getSystemEventLog().getSentCount(), nTotal);

    for (const std::string& output : {localOutput(), centralOutput()}) {
        waitFor([&] { return readLines(output).size() >= nTotal; }, milliseconds(10000));
        const std::map<std::string, Line> mapLines = readLines(output);
        EXPECT_EQ(mapLines.size(), nTotal) << output;
        int nMissing = 0;
        for (int t = 0; t < kThreads; ++t) {
            for (int i = 0; i < kMessagesPerThread; ++i) {
                const auto it = mapLines.find("T" + std::to_string(t) + " S" + std::to_string(i));
                if (it == mapLines.end()) {
                    ++nMissing;
                    continue;
                }
                EXPECT_EQ(it->second.nSeverity, syslogSeverity(*arrSeverities[i % 5]));
                EXPECT_EQ(it->second.appName, kAppName);
                EXPECT_EQ(it->second.structuredData, "[weblogger@32473 source=\"e2e.http\"]");
            }
        }
        EXPECT_EQ(nMissing, 0) << output;
    }
}

TEST_F(SyslogDaemonTest, DaemonStoppedWhileLoggingThenRestarted) {
    Rsyslogd local(m_strRsyslogd, m_dir, "local", localConfig());
    ASSERT_TRUE(startLocal(local)) << local.console();
    EventLogWriter& writer = addSyslogWriter();
    Handle<test::RecordingWriter> hOther(
        new test::RecordingWriter(String(L"other"), kOtherWriterId, LogWriter::WT_GLOBAL, nullptr));
    LogWritersMan::getLogWritersMan().versionIncrement();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*m_source);

    logger.logMessage(kSevError, GDString(L"before the stop"));
    EXPECT_TRUE(waitFor([&] { return readLines(localOutput()).count("before the stop") == 1; },
                        milliseconds(5000)));

    local.stop();
    constexpr int kWhileStopped = 200;
    steady_clock::duration longest{};
    for (int i = 0; i < kWhileStopped; ++i) {
        const auto start = steady_clock::now();
        logger.logMessage(kSevError, GDString(widen("while stopped " + std::to_string(i))));
        longest = std::max(longest, steady_clock::now() - start);
    }
    // One failed send costs microseconds; the bound leaves room for a loaded machine.
    EXPECT_LT(longest, milliseconds(50));
    EXPECT_EQ(writer.getSystemEventLog().getDroppedCount(), static_cast<unsigned>(kWhileStopped));
    EXPECT_EQ(hOther->records().size(), 1u + kWhileStopped);

    ASSERT_TRUE(startLocal(local)) << local.console();
    logger.logMessage(kSevWarning, GDString(L"after the restart"));
    EXPECT_TRUE(waitFor([&] { return readLines(localOutput()).count("after the restart") == 1; },
                        milliseconds(5000)));
    EXPECT_EQ(writer.getSystemEventLog().getDroppedCount(), static_cast<unsigned>(kWhileStopped));
    EXPECT_EQ(readLines(localOutput()).at("after the restart").nSeverity, 4);
    EXPECT_EQ(hOther->records().size(), 2u + kWhileStopped);
    logger.popSource();
}

TEST_F(SyslogDaemonTest, HundredKilobyteMessageArrivesCutToTheDatagramAndLoggingGoesOn) {
    Rsyslogd local(m_strRsyslogd, m_dir, "local", localConfig());
    ASSERT_TRUE(startLocal(local)) << local.console();
    EventLogWriter& writer = addSyslogWriter();
    LogWritersMan::getLogWritersMan().versionIncrement();
    TmLogger& logger = TmLogger::getLogger();
    logger.pushSource(*m_source);

    std::string strBig = "big ";
    while (strBig.size() < 100 * 1024) {
        strBig += "0123456789";
    }
    logger.logMessage(kSevError, GDString(widen(strBig)));
    logger.logMessage(kSevError, GDString(L"next"));
    EXPECT_TRUE(
        waitFor([&] { return readLines(localOutput()).count("next") == 1; }, milliseconds(5000)));
    EXPECT_EQ(writer.getSystemEventLog().getTruncatedCount(), 1u);
    EXPECT_EQ(writer.getSystemEventLog().getDroppedCount(), 0u);
    bool bFound = false;
    for (const auto& [text, line] : readLines(localOutput())) {
        if (text.compare(0, 4, "big ") == 0) {
            bFound = true;
            EXPECT_GT(text.size(), 7000u);
            EXPECT_LT(text.size(), 8192u);
            EXPECT_EQ(strBig.compare(0, text.size(), text), 0);
        }
    }
    EXPECT_TRUE(bFound);
    logger.popSource();
}

}  // namespace
}  // namespace kiv
