#include "weblogger/internal/filelogwriter.h"

#include <cmath>
#include <cwchar>
#include <memory>

#include "weblogger/loggermessages.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/transcode.h"

namespace kiv {

// Defined with the file writer for the host's own use; no operation of the writer makes links.
const ExternalMessage kmsgSymbolicLogLinkNotCreated(
    L"kmsgSymbolicLogLinkNotCreated", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgSymbolicLogLinkNotCreated\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT>Error creating log symbolic link file - '<kivm:param insert=\"1\"/>'</TEXT>"
    "</WebMessage>");

namespace {

const String kAttrDir(L"dir");
const String kAttrRotateBy(L"rotateBy");
const String kAttrMaxFileSizeKb(L"maxFileSizeKb");
const String kAttrRotationIntervalHours(L"rotationIntervalHours");
const String kAttrFilesN(L"filesN");
const String kAttrFilePrefix(L"filePrefix");
const String kAttrAutoFlush(L"autoFlush");
const String kRotateByTimeWord(L"time");
const String kDefaultPrefix(L"kiv");
const String kExtension(L"log");
const unsigned char kByteOrderMark[] = {0xEF, 0xBB, 0xBF};

bool isAutoFlushOff(const String& value) {
    for (const wchar_t* pszWord : {L"no", L"n", L"false", L"0"}) {
        if (value.compareNoCase(pszWord) == 0) {
            return true;
        }
    }
    return false;
}

// Hours to seconds, rounded; anything outside (0, 2^32 - 1) seconds gives the default.
std::uint32_t intervalSeconds(const String& hours) {
    if (hours.empty()) {
        return FileLogWriter::kDefaultRotationIntervalSeconds;
    }
    const double dSeconds = std::floor(std::wcstod(hours.c_str(), nullptr) * 3600.0 + 0.5);
    if (dSeconds > 0 && dSeconds < 4294967295.0) {
        return static_cast<std::uint32_t>(dSeconds);
    }
    return FileLogWriter::kDefaultRotationIntervalSeconds;
}

}  // namespace

FileLogWriter::FileLogWriter(const String& name, short id, WriterType type,
                             const Handle<const WriterFilter>& filter)
    : LogWriter(name, id, type, filter) {}

FileLogWriter::~FileLogWriter() = default;

bool FileLogWriter::initialize(const XmlElement* pElemConfig, const XmlElement* pFormat) {
    ZQ_ASSERT(pElemConfig != 0);
    if (pElemConfig == nullptr) {
        return false;
    }
    const String strDir = pElemConfig->getAttributeValue(kAttrDir.view(), true);
    const bool bByTime =
        pElemConfig->unchecked_getAttributeValue(kAttrRotateBy.view()).equals(kRotateByTimeWord);
    const String& strMaxKb = pElemConfig->unchecked_getAttributeValue(kAttrMaxFileSizeKb.view());
    const std::uint64_t nSizeBytes =
        strMaxKb.empty()
            ? 0x100000
            : static_cast<std::uint64_t>(std::wcstoul(strMaxKb.c_str(), nullptr, 10)) << 10;
    const std::uint32_t nSeconds = intervalSeconds(
        pElemConfig->unchecked_getAttributeValue(kAttrRotationIntervalHours.view()));
    const String& strFilesN = pElemConfig->unchecked_getAttributeValue(kAttrFilesN.view());
    const unsigned long nFilesN =
        strFilesN.empty() ? kDefaultNumberOfFiles : std::wcstoul(strFilesN.c_str(), nullptr, 10);
    const String& strPrefix = pElemConfig->unchecked_getAttributeValue(kAttrFilePrefix.view());
    const bool bAutoFlush =
        !isAutoFlushOff(pElemConfig->unchecked_getAttributeValue(kAttrAutoFlush.view()));

    if (nFilesN == 0) {
        // A ring of no files cannot hold a message (the index would be taken modulo 0).
        reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNInvalid)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(strFilesN)));
        setIsEnabled(false);
        return false;
    }

    m_pMessageWriter = MessageWriterFactory<LogFile, Utf8InPlaceAdaptor>::compile(pFormat);

    return bByTime ? initializeByTime(strDir, strPrefix, static_cast<unsigned>(nFilesN), nSeconds,
                                      bAutoFlush)
                   : initializeBySize(strDir, strPrefix, static_cast<unsigned>(nFilesN),
                                      static_cast<unsigned long>(nSizeBytes), bAutoFlush);
}

bool FileLogWriter::initializeByTime(const String& dir, const String& prefix, unsigned filesN,
                                     unsigned intervalSeconds, bool autoFlush) {
    return initializeRing(kRotateByTime, dir, prefix, filesN, intervalSeconds, autoFlush);
}

bool FileLogWriter::initializeBySize(const String& dir, const String& prefix, unsigned filesN,
                                     unsigned long maxBytes, bool autoFlush) {
    return initializeRing(kRotateBySize, dir, prefix, filesN, maxBytes, autoFlush);
}

bool FileLogWriter::initializeRing(ERotationType eType, const String& dir, const String& prefix,
                                   unsigned filesN, std::uint64_t nLimit, bool autoFlush) {
    LockGuard<WriterSynchro> guard(getWriterSynchro());
    m_strFileDirectory = DirectoryPath(dir);
    m_strFilePrefix = prefix.empty() ? kDefaultPrefix : prefix;
    m_eRotationType = eType;
    m_iNumberOfFiles = filesN;
    m_iCurFile = kNoFile;
    if (eType == kRotateByTime) {
        m_iRotationIntervalSeconds = static_cast<std::uint32_t>(nLimit);
    } else {
        m_lFileSizeMax = nLimit;
    }
    FileSystemUtils::createDirectoryHierarchy(dir, kOnErrorThrow);
    const bool bResult = openFile();
    setIsEnabled(bResult);
    m_bAutoFlush = autoFlush;
    return bResult;
}

bool FileLogWriter::isFileAtRotationPoint() {
    if (!m_CurFile.isOpen()) {
        return true;
    }
    if (m_eRotationType == kRotateBySize) {
        // The size the file handle has written: bytes still in the buffer do not count yet.
        // The handle keeps it up to date, so the test costs no system call per message.
        const long long nSize = m_CurFile.getFile().getKnownSize();
        return static_cast<std::uint64_t>(nSize) >= m_lFileSizeMax;
    }
    const std::time_t now = clock::wallClockSeconds();
    return now - m_timeCurFileUsageBegan >= static_cast<std::time_t>(m_iRotationIntervalSeconds);
}

void FileLogWriter::setFilePath(std::uint32_t i) {
    const std::uint32_t nIndex = i % m_iNumberOfFiles;
    m_iCurFile = nIndex;
    m_tCurFilePath =
        FilePath(m_strFileDirectory, FilePrefix(m_strFilePrefix).withIndex(nIndex), kExtension);
}

void FileLogWriter::createFile() {
    m_CurFile.openTruncate(m_tCurFilePath.getFullPath());
    m_CurFile.write(kByteOrderMark, sizeof(kByteOrderMark));
    m_CurFile.close();
}

long FileLogWriter::findNewestFile() {
    bool bAnyExists = false;
    std::uint32_t nBest = 0;
    std::time_t tBest = 0;
    long nBestNanoseconds = 0;
    for (std::uint32_t i = 0; i < m_iNumberOfFiles; ++i) {
        setFilePath(i);
        FileStats stats;
        if (!FileSystemUtils::getFileStats(m_tCurFilePath, stats) || !stats.bExists) {
            continue;
        }
        bAnyExists = true;
        // Strictly newer wins, so among equal times the lowest index stays; the sub-second
        // part tells apart files rotated within one second.
        if (stats.tModified > tBest ||
            (stats.tModified == tBest && stats.nModifiedNanoseconds > nBestNanoseconds)) {
            nBest = i;
            tBest = stats.tModified;
            nBestNanoseconds = stats.nModifiedNanoseconds;
        }
    }
    return bAnyExists ? static_cast<long>(nBest) : -1;
}

bool FileLogWriter::openFile() {
    if (!isFileAtRotationPoint()) {
        return true;
    }
    if (m_CurFile.isOpen()) {
        m_CurFile.close();
    }
    if (m_iCurFile == kNoFile) {
        const long nNewest = findNewestFile();
        if (nNewest >= 0) {
            setFilePath(static_cast<std::uint32_t>(nNewest));
            FileStats fstat;
            // The reported text is the condition exactly as written here.
            // clang-format off
            ZQ_ASSERT(FileSystemUtils::getFileStats(getFilePath(), fstat, FileSystemUtils::kResolveLinks, kOnErrorReturn));
            // clang-format on
        } else {
            setFilePath(0);
            createFile();
        }
    } else {
        setFilePath(m_iCurFile + 1);
        createFile();
    }
    m_timeCurFileUsageBegan = clock::wallClockSeconds();
    m_CurFile.openAppend(m_tCurFilePath.getFullPath());
    return m_CurFile.isOpen();
}

void FileLogWriter::logMessage(const LogSeverity& severity, const GDValue& message,
                               const LoggerState& state, const FileLocation* pLocation) {
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    try {
        if (!openFile()) {
            setIsEnabled(false);
            return;
        }
        m_pMessageWriter->msg_log(severity, message, state, pLocation, &m_CurFile);
        if (m_bAutoFlush) {
            m_CurFile.flush();
        }
    } catch (const FileException& failure) {
        disableAfterFailure(failure);
        throw;
    }
}

void FileLogWriter::disableAfterFailure(const Exception& failure) {
    setIsEnabled(false);
    reportLoggerProblem(ParamMessage(kmsgLogWriterFileFailure)
                            .setInsert(1, GDString(getName()))
                            .setInsert(2, GDString(m_tCurFilePath.getFullPath()))
                            .setInsert(3, failure.getMsg()));
}

void FileLogWriter::appendFilePrefix(const String& part) {
    m_strFilePrefix = m_strFilePrefix + L"-" + part + L"-";
    m_iCurFile = kNoFile;
    m_CurFile.close();
}

NString FileLogWriter::getFilePathN() const {
    return toUtf8(m_tCurFilePath.getFullPath().view());
}

// The file writer's factory, registered when the library loads; the flag keeps this unit from
// being dropped by the linker.
const bool bXXFileLogWriterDummy = [] {
    logger_details::LogWritersMan::getLogWritersMan().addLogWritersFactory(
        new logger_details::LogWritersFactoryImpl<FileLogWriter>(String(L"FileLogWriter")));
    return true;
}();

}  // namespace kiv
