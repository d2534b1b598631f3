#include "weblogger/internal/filelogwriter.h"

#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "weblogger/internal/filewriterattributes.h"
#include "weblogger/internal/livefilewriters.h"
#include "weblogger/internal/ringresume.h"
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
const String kAttrFileMode(L"fileMode");
const String kRotateByTimeWord(L"time");
const String kDefaultPrefix(L"kiv");
const String kExtension(L"log");
const unsigned char kByteOrderMark[] = {0xEF, 0xBB, 0xBF};

}  // namespace

FileLogWriter::FileLogWriter(const String& name, short id, WriterType type,
                             const Handle<const WriterFilter>& filter)
    : LogWriter(name, id, type, filter) {
    logger_details::LiveFileWriters::add(this);
}

FileLogWriter::~FileLogWriter() {
    // First: a crash or a fork that has this writer pinned is done with it when this returns.
    logger_details::LiveFileWriters::remove(this);
    releaseRing();
}

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
    const std::uint32_t nSeconds = logger_details::intervalSeconds(
        pElemConfig->unchecked_getAttributeValue(kAttrRotationIntervalHours.view()),
        kDefaultRotationIntervalSeconds);
    const String& strFilesN = pElemConfig->unchecked_getAttributeValue(kAttrFilesN.view());
    const unsigned long long nFilesN =
        strFilesN.empty() ? kDefaultNumberOfFiles : logger_details::parseFilesN(strFilesN);
    const String& strPrefix = pElemConfig->unchecked_getAttributeValue(kAttrFilePrefix.view());
    const bool bAutoFlush = !logger_details::isAutoFlushOff(
        pElemConfig->unchecked_getAttributeValue(kAttrAutoFlush.view()));

    if (nFilesN == 0) {
        // A ring of no files cannot hold a message (the index would be taken modulo 0).
        reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNInvalid)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(strFilesN)));
        setIsEnabled(false);
        return false;
    }
    if (nFilesN > kMaxNumberOfFiles) {
        reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNTooLarge)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDUInteger64(kMaxNumberOfFiles))
                                .setInsert(3, GDString(strFilesN)));
        setIsEnabled(false);
        return false;
    }
    const String& strFileMode = pElemConfig->unchecked_getAttributeValue(kAttrFileMode.view());
    const long nFileMode =
        strFileMode.empty() ? kDefaultFileMode : logger_details::parseFileMode(strFileMode);
    if (nFileMode < 0) {
        reportLoggerProblem(ParamMessage(kmsgLogConfigFileModeInvalid)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(strFileMode)));
        setIsEnabled(false);
        return false;
    }
    m_nFileMode = static_cast<unsigned>(nFileMode);
    m_nDirectoryMode = logger_details::directoryModeFor(m_nFileMode);

    m_pMessageWriter = MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>::compile(pFormat);

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
    if (filesN == 0 || filesN > kMaxNumberOfFiles) {
        // Callers that set the ring up directly get the check the configuration gets.
        if (filesN == 0) {
            reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNInvalid)
                                    .setInsert(1, GDString(getName()))
                                    .setInsert(2, GDUInteger64(filesN)));
        } else {
            reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNTooLarge)
                                    .setInsert(1, GDString(getName()))
                                    .setInsert(2, GDUInteger64(kMaxNumberOfFiles))
                                    .setInsert(3, GDUInteger64(filesN)));
        }
        setIsEnabled(false);
        return false;
    }
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
    m_bOpenFailed = false;
    m_bRetrySameSlot = false;
    m_bOutageReported = false;
    m_nDroppedMessages = 0;
    FileSystemUtils::createDirectoryHierarchy(dir, kOnErrorThrow, m_nDirectoryMode);
    if (!claimRing()) {
        setIsEnabled(false);
        return false;
    }
    bool bResult = false;
    try {
        bResult = m_bAwaitingHandOver || openFile();
    } catch (...) {
        releaseRing();
        throw;
    }
    if (!bResult) {
        releaseRing();
    }
    setIsEnabled(bResult);
    m_bAutoFlush = autoFlush;
    return bResult;
}

bool FileLogWriter::isFileAtRotationTime() const noexcept {
    if (!m_CurFile.isOpen()) {
        return true;
    }
    const std::time_t now = clock::wallClockSeconds();
    return now - m_timeCurFileUsageBegan >= static_cast<std::time_t>(m_iRotationIntervalSeconds);
}

void FileLogWriter::setFilePath(std::uint32_t i) {
    const std::uint32_t nIndex = i % m_iNumberOfFiles;
    m_iCurFile = nIndex;
    m_tCurFilePath.assignIndexed(m_strFileDirectory, m_strFilePrefix, nIndex, kExtension);
    m_strCurFileNative.clear();
    appendUtf8(m_strCurFileNative, m_tCurFilePath.getFullPath().view());
}

void FileLogWriter::createFile() {
    m_CurFile.openFresh(m_tCurFilePath.getFullPath(), m_nFileMode, kByteOrderMark,
                        sizeof(kByteOrderMark));
}

void FileLogWriter::startFreshFile() {
    // A slot that holds a link (or a FIFO, a device...) is never followed nor truncated: the
    // ring goes on with the next slot. A few tries are enough to get past what was planted;
    // a ring made of nothing else stops here with the error.
    constexpr std::uint32_t kMaxSlotsSkipped = 16;
    const std::uint32_t nTries = std::min(m_iNumberOfFiles, kMaxSlotsSkipped);
    for (std::uint32_t nTry = 1;; ++nTry) {
        try {
            try {
                createFile();
            } catch (const FileException& failure) {
                if (failure.getErrno() != ENOENT) {
                    throw;
                }
                // The directory went away since the last check.
                FileSystemUtils::createDirectoryHierarchy(m_strFileDirectory.getPath(),
                                                          kOnErrorThrow, m_nDirectoryMode);
                createFile();
            }
            return;
        } catch (const FileException& failure) {
            if ((failure.getErrno() != ELOOP && failure.getErrno() != EINVAL) || nTry >= nTries) {
                throw;
            }
            reportLoggerProblem(ParamMessage(kmsgLogWriterFileNotRegular)
                                    .setInsert(1, GDString(getName()))
                                    .setInsert(2, GDString(m_tCurFilePath.getFullPath())));
            setFilePath(m_iCurFile + 1);
        }
    }
}

// The choice among the files found is chooseRingFileToResume's. Links and anything but regular
// files are reported and never resumed. One pass over the directory: the cost follows the files
// present, not the size of the ring.
long FileLogWriter::findNewestFile() {
    const NString strPrefix = toUtf8(m_strFilePrefix.view());
    const std::string_view prefix(strPrefix.data(), strPrefix.size());
    std::vector<logger_details::RingFile> vecFiles;
    FileSystemUtils::scanDirectory(
        m_strFileDirectory.getPath(), [&](std::string_view name, const FileStats& stats) {
            const long long nIndex = logger_details::ringIndexOf(name, prefix, m_iNumberOfFiles);
            if (nIndex < 0) {
                return;
            }
            if (!stats.bIsRegular) {
                setFilePath(static_cast<std::uint32_t>(nIndex));
                reportLoggerProblem(ParamMessage(kmsgLogWriterFileNotRegular)
                                        .setInsert(1, GDString(getName()))
                                        .setInsert(2, GDString(m_tCurFilePath.getFullPath())));
                return;
            }
            vecFiles.push_back(logger_details::RingFile{static_cast<std::uint32_t>(nIndex),
                                                        stats.tModified, stats.nModifiedNanoseconds,
                                                        stats.nSize});
        });
    return logger_details::chooseRingFileToResume(std::move(vecFiles), m_iNumberOfFiles,
                                                  m_eRotationType == kRotateBySize, m_lFileSizeMax);
}

bool FileLogWriter::openNextFile() {
    if (m_CurFile.isOpen()) {
        try {
            m_CurFile.close();
        } catch (const FileException&) {
            // What could not be written is counted by the file; the ring moves on regardless.
        }
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
            m_CurFile.openAppend(m_tCurFilePath.getFullPath());
        } else {
            setFilePath(0);
            startFreshFile();
        }
    } else {
        setFilePath(m_bRetrySameSlot ? m_iCurFile : m_iCurFile + 1);
        startFreshFile();
    }
    m_bRetrySameSlot = false;
    m_timeCurFileUsageBegan = clock::wallClockSeconds();
    return m_CurFile.isOpen();
}

void FileLogWriter::logMessage(const LogSeverity& severity, const GDValue& message,
                               const LoggerState& state, const FileLocation* pLocation) {
    // Rendered before the lock: see "Locking" in filelogwriter.h.
    RecordBuffer& record = logger_details::RenderScratch::forThisThread().record;
    record.clear();
    if (!m_pMessageWriter.isNull()) {
        m_pMessageWriter->msg_log(severity, message, state, pLocation, &record);
    }
    // The second the line was stamped with; read before the lock where the renderer gave none:
    // the lock covers what other threads touch, and the clock is not that.
    const std::time_t tNow = record.getSecond() != RecordBuffer::kNoSecond
                                 ? record.getSecond()
                                 : clock::wallClockSeconds();
    // Destroyed after the guard: a full buffer handed off under the lock is written after it.
    LogFile::DeferredWrite deferred(m_CurFile);
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    if (tNow != m_tLastCheck) {
        m_tLastCheck = tNow;
        checkFile();
    }
    if (m_bOpenFailed) {
        // No file until the next check has one created.
        ++m_nDroppedMessages;
        return;
    }
    try {
        if (!openFile()) {
            setIsEnabled(false);
            return;
        }
    } catch (const FileException& failure) {
        ++m_nDroppedMessages;
        noteOpenFailure(failure);
        return;
    }
    try {
        if (m_bAutoFlush) {
            m_CurFile.writeRecordAndFlush(record.data(), record.size());
        } else {
            m_CurFile.write(record.data(), record.size());
            m_CurFile.endRecord();
        }
        deferred.takeOver();
    } catch (const FileException&) {
        // The file kept or counted the message; it is stalled now and says why.
        m_CurFile.discardRecord();
    } catch (...) {
        m_CurFile.discardRecord();
        reportWriteState();
        throw;
    }
    reportWriteState();
}

void FileLogWriter::flush() noexcept {
    LockGuard<WriterSynchro> guard(getWriterSynchro());
    try {
        // Asked for explicitly, and rarely: a stalled file gets one more try now.
        if (m_CurFile.retryWrite()) {
            m_CurFile.flush();
        }
    } catch (const FileException&) {
        // Stalled: tried again with the next check.
    }
    reportWriteState();
}

void FileLogWriter::close() noexcept {
    LockGuard<WriterSynchro> guard(getWriterSynchro());
    // Under the lock, so that no message is between its check of the flag and its write.
    setIsEnabled(false);
    try {
        // Closing gives a stalled file one more try.
        m_CurFile.close();
    } catch (const FileException&) {
        // The file counted what it could not write; it is closed all the same.
    }
    reportWriteState();
}

void FileLogWriter::noteOpenFailure(const FileException& failure) noexcept {
    m_bOpenFailed = true;
    m_bRetrySameSlot = m_iCurFile != kNoFile;
    if (!m_bOutageReported) {
        m_bOutageReported = true;
        reportLoggerProblem(ParamMessage(kmsgLogWriterWriteStopped)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(m_tCurFilePath.getFullPath()))
                                .setInsert(3, failure.getMsg()));
    }
}

void FileLogWriter::reportWriteChange() noexcept {
    if (m_CurFile.isStalled()) {
        if (!m_bOutageReported) {
            m_bOutageReported = true;
            reportLoggerProblem(
                ParamMessage(kmsgLogWriterWriteStopped)
                    .setInsert(1, GDString(getName()))
                    .setInsert(2, GDString(m_tCurFilePath.getFullPath()))
                    .setInsert(3, GDString(systemErrorText(m_CurFile.getStallErrno()))));
        }
        return;
    }
    if (m_bOutageReported && !m_bOpenFailed && m_CurFile.isOpen()) {
        m_bOutageReported = false;
        const std::uint64_t nDropped = m_nDroppedMessages + m_CurFile.takeDroppedRecords();
        m_nDroppedMessages = 0;
        reportLoggerProblem(ParamMessage(kmsgLogWriterWriteResumed)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(m_tCurFilePath.getFullPath()))
                                .setInsert(3, GDUInteger64(nDropped)));
    }
}

bool FileLogWriter::hasFileVanished() const noexcept {
    FileStats opened;
    if (!FileSystemUtils::getOpenFileStats(m_CurFile.getFile().getDescriptor(), opened)) {
        return false;
    }
    if (opened.nLinks == 0) {
        return true;
    }
    // Renamed away or replaced: the name leads elsewhere now (or nowhere).
    FileStats named;
    return !FileSystemUtils::getNativeFileStats(m_strCurFileNative.c_str(), named,
                                                FileSystemUtils::kDontResolveLinks) ||
           named.nDevice != opened.nDevice || named.nInode != opened.nInode;
}

void FileLogWriter::checkFile() noexcept {
    if (m_CurFile.isStalled()) {
        m_CurFile.retryWrite();
    }
    if (m_bOpenFailed) {
        // Let this message try to create the file again.
        m_bOpenFailed = false;
        return;
    }
    if (m_CurFile.isOpen() && hasFileVanished()) {
        reportLoggerProblem(ParamMessage(kmsgLogWriterFileVanished)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(m_tCurFilePath.getFullPath())));
        // What was not written yet goes to the new file rather than after a vanished name.
        m_CurFile.detach();
        FileSystemUtils::createDirectoryHierarchy(m_strFileDirectory.getPath(), kOnErrorReturn,
                                                  m_nDirectoryMode);
    }
}

String FileLogWriter::prefixWithPart(const String& configuredPrefix, const String& part) {
    return (configuredPrefix.empty() ? kDefaultPrefix : configuredPrefix) + L"-" + part + L"-";
}

void FileLogWriter::appendFilePrefix(const String& part) {
    m_strFilePrefix = prefixWithPart(m_strFilePrefix, part);
    m_iCurFile = kNoFile;
    try {
        m_CurFile.close();
    } catch (const FileException&) {
        // Counted by the file; the new ring starts regardless.
    }
    if (!m_strRingKey.empty() && !claimRing()) {
        releaseRing();
        setIsEnabled(false);
    }
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
