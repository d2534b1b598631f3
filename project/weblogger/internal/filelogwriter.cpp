#include "weblogger/internal/filelogwriter.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cwchar>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

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

// "filesN" as written: decimal digits only, optionally surrounded by blanks. 0 for anything
// else, which the caller refuses; values past the bound are kept past it (saturating), so that
// they are refused as too large rather than wrapped into range.
unsigned long long parseFilesN(const String& text) {
    const wchar_t* p = text.c_str();
    while (*p == L' ' || *p == L'\t') {
        ++p;
    }
    unsigned long long nValue = 0;
    const wchar_t* pDigits = p;
    while (*p >= L'0' && *p <= L'9') {
        nValue = std::min<unsigned long long>(nValue * 10 + static_cast<unsigned>(*p - L'0'),
                                              0xFFFFFFFFFFull);
        ++p;
    }
    while (*p == L' ' || *p == L'\t') {
        ++p;
    }
    return p == pDigits || *p != 0 ? 0 : nValue;
}

// "fileMode": octal permission bits that let the owner read and write (a ring the writer could
// not open again after a restart is no ring); -1 for anything else.
long parseFileMode(const String& text) {
    if (text.empty() || text.size() > 4) {
        return -1;
    }
    long nMode = 0;
    for (wchar_t c : text.view()) {
        if (c < L'0' || c > L'7') {
            return -1;
        }
        nMode = nMode * 8 + (c - L'0');
    }
    return nMode <= 0777 && (nMode & 0600) == 0600 ? nMode : -1;
}

// Search permission wherever reading is granted, so that the directory of files one may read
// can be entered; the owner always has all three.
unsigned directoryModeFor(unsigned nFileMode) {
    return nFileMode | ((nFileMode & 0444) >> 2) | 0700;
}

// Writers that hold a ring, linked through m_pNextRingOwner. Both are constant-initialised and
// need no destruction, so a writer that outlives the library's other statics can still leave.
std::mutex g_ringTableMutex;
FileLogWriter* g_pRingOwners = nullptr;

}  // namespace

namespace {
// The writers a reconfiguration on this thread is about to replace, or null.
thread_local const std::vector<Handle<LogWriter>>* t_pReplacedWriters = nullptr;

bool isBeingReplaced(const LogWriter* pWriter) noexcept {
    if (t_pReplacedWriters == nullptr) {
        return false;
    }
    for (const Handle<LogWriter>& hReplaced : *t_pReplacedWriters) {
        if (hReplaced.get() == pWriter) {
            return true;
        }
    }
    return false;
}
}  // namespace

FileLogWriter::RingHandOver::RingHandOver(
    const std::vector<Handle<LogWriter>>& vecReplaced) noexcept
    : m_pPrevious(t_pReplacedWriters) {
    t_pReplacedWriters = &vecReplaced;
}

FileLogWriter::RingHandOver::~RingHandOver() {
    t_pReplacedWriters = m_pPrevious;
}

FileLogWriter::FileLogWriter(const String& name, short id, WriterType type,
                             const Handle<const WriterFilter>& filter)
    : LogWriter(name, id, type, filter) {}

FileLogWriter::~FileLogWriter() {
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
    const std::uint32_t nSeconds = intervalSeconds(
        pElemConfig->unchecked_getAttributeValue(kAttrRotationIntervalHours.view()));
    const String& strFilesN = pElemConfig->unchecked_getAttributeValue(kAttrFilesN.view());
    const unsigned long long nFilesN =
        strFilesN.empty() ? kDefaultNumberOfFiles : parseFilesN(strFilesN);
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
    if (nFilesN > kMaxNumberOfFiles) {
        reportLoggerProblem(ParamMessage(kmsgLogConfigFilesNTooLarge)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDUInteger64(kMaxNumberOfFiles))
                                .setInsert(3, GDString(strFilesN)));
        setIsEnabled(false);
        return false;
    }
    const String& strFileMode = pElemConfig->unchecked_getAttributeValue(kAttrFileMode.view());
    const long nFileMode = strFileMode.empty() ? kDefaultFileMode : parseFileMode(strFileMode);
    if (nFileMode < 0) {
        reportLoggerProblem(ParamMessage(kmsgLogConfigFileModeInvalid)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(strFileMode)));
        setIsEnabled(false);
        return false;
    }
    m_nFileMode = static_cast<unsigned>(nFileMode);
    m_nDirectoryMode = directoryModeFor(m_nFileMode);

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
    m_strCurFileNative = toUtf8(m_tCurFilePath.getFullPath().view());
}

void FileLogWriter::createFile() {
    m_CurFile.createWith(m_tCurFilePath.getFullPath(), m_nFileMode, kByteOrderMark,
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

namespace {

struct RingFile {
    std::uint32_t nIndex;
    std::time_t tModified;
    long nNanoseconds;
    long long nSize;
};

bool isNewer(const RingFile& a, const RingFile& b) {
    return a.tModified > b.tModified ||
           (a.tModified == b.tModified && a.nNanoseconds > b.nNanoseconds);
}

// The ring index in a directory entry's name "<prefix><index>.log", or -1 when the name is not
// one of the ring's (leading zeros included: "kiv01.log" is not file 1).
long long ringIndexOf(std::string_view name, std::string_view prefix, std::uint32_t nFiles) {
    constexpr std::string_view kSuffix = ".log";
    if (name.size() <= prefix.size() + kSuffix.size() || name.substr(0, prefix.size()) != prefix ||
        name.substr(name.size() - kSuffix.size()) != kSuffix) {
        return -1;
    }
    const std::string_view digits =
        name.substr(prefix.size(), name.size() - prefix.size() - kSuffix.size());
    if (digits.size() > 10 || (digits.size() > 1 && digits[0] == '0')) {
        return -1;
    }
    long long nIndex = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return -1;
        }
        nIndex = nIndex * 10 + (c - '0');
    }
    return nIndex < nFiles ? nIndex : -1;
}

}  // namespace

// Which file of the ring to resume: the newest by modification time, its sub-second part
// included. When several files share the newest time (a file system that keeps whole seconds
// only, or a copy that kept the times), they are told apart by how this writer leaves a ring:
// files are written in ring order, so the ones it wrote within the newest second form one
// unbroken run in ring order (..., 8, 9, 0, 1), and the last of that run is the newest.
// - When the run is the whole ring (every file written within that second), the run has no
//   end to read; under size rotation the one file still below the size limit is the current
//   one (every other file was left at the limit when the writer moved on).
// - In every other case, ties that are not one run, which only something outside the writer
//   makes, the plain rule holds: strictly newer wins, so the lowest index among equals.
// Links and anything but regular files are reported and never resumed. One pass over the
// directory: the cost follows the files present, not the size of the ring.
long FileLogWriter::findNewestFile() {
    const NString strPrefix = toUtf8(m_strFilePrefix.view());
    const std::string_view prefix(strPrefix.data(), strPrefix.size());
    std::vector<RingFile> vecFiles;
    FileSystemUtils::scanDirectory(
        m_strFileDirectory.getPath(), [&](std::string_view name, const FileStats& stats) {
            const long long nIndex = ringIndexOf(name, prefix, m_iNumberOfFiles);
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
            vecFiles.push_back(RingFile{static_cast<std::uint32_t>(nIndex), stats.tModified,
                                        stats.nModifiedNanoseconds, stats.nSize});
        });
    if (vecFiles.empty()) {
        return -1;
    }
    std::sort(vecFiles.begin(), vecFiles.end(),
              [](const RingFile& a, const RingFile& b) { return a.nIndex < b.nIndex; });
    RingFile newest = vecFiles.front();
    for (const RingFile& file : vecFiles) {
        if (isNewer(file, newest)) {
            newest = file;
        }
    }
    std::vector<RingFile> vecTies;
    for (const RingFile& file : vecFiles) {
        if (!isNewer(newest, file)) {
            vecTies.push_back(file);
        }
    }
    if (vecTies.size() == 1) {
        return newest.nIndex;
    }
    // Gaps between consecutive tied indices, the one around the end of the ring included.
    std::size_t nBreaks = 0;
    std::uint32_t nRunEnd = vecTies.back().nIndex;
    for (std::size_t i = 0; i < vecTies.size(); ++i) {
        const std::uint32_t nThis = vecTies[i].nIndex;
        const std::uint32_t nNext = vecTies[(i + 1) % vecTies.size()].nIndex;
        const std::uint32_t nStep = (nNext + m_iNumberOfFiles - nThis) % m_iNumberOfFiles;
        if (nStep != 1) {
            ++nBreaks;
            nRunEnd = nThis;
        }
    }
    if (nBreaks == 1) {
        return nRunEnd;
    }
    if (nBreaks == 0 && m_eRotationType == kRotateBySize) {
        const RingFile* pBelow = nullptr;
        std::size_t nBelow = 0;
        for (const RingFile& file : vecTies) {
            if (static_cast<std::uint64_t>(file.nSize) < m_lFileSizeMax) {
                pBelow = &file;
                ++nBelow;
            }
        }
        if (nBelow == 1) {
            return pBelow->nIndex;
        }
    }
    return vecTies.front().nIndex;
}

bool FileLogWriter::openFile() {
    if (!isFileAtRotationPoint()) {
        return true;
    }
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
    m_CurFile.openAppend(m_tCurFilePath.getFullPath());
    return m_CurFile.isOpen();
}

void FileLogWriter::logMessage(const LogSeverity& severity, const GDValue& message,
                               const LoggerState& state, const FileLocation* pLocation) {
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    const std::time_t tNow = clock::wallClockSeconds();
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
        m_pMessageWriter->msg_log(severity, message, state, pLocation, &m_CurFile);
        m_CurFile.endRecord();
        if (m_bAutoFlush) {
            m_CurFile.flush();
        }
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

void FileLogWriter::reportWriteState() noexcept {
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

bool FileLogWriter::claimRing() {
    String strCanonical;
    if (!FileSystemUtils::getCanonicalPath(m_strFileDirectory.getPath(), strCanonical)) {
        strCanonical = m_strFileDirectory.getPath();
    }
    String strKey = FilePath(DirectoryPath(strCanonical), m_strFilePrefix).getFullPath();
    std::lock_guard<std::mutex> lock(g_ringTableMutex);
    m_bAwaitingHandOver = false;
    for (FileLogWriter* pOwner = g_pRingOwners; pOwner != nullptr;
         pOwner = pOwner->m_pNextRingOwner) {
        if (pOwner != this && !pOwner->isRetired() && pOwner->m_strRingKey == strKey) {
            if (isBeingReplaced(pOwner)) {
                m_bAwaitingHandOver = true;
                continue;
            }
            reportLoggerProblem(ParamMessage(kmsgLogWriterRingInUse)
                                    .setInsert(1, GDString(getName()))
                                    .setInsert(2, GDString(strKey + L"*.log"))
                                    .setInsert(3, GDString(pOwner->getName())));
            m_strRingKey.clear();
            m_bAwaitingHandOver = false;
            return false;
        }
    }
    m_strRingKey = std::move(strKey);
    if (!m_bInRingTable) {
        m_pNextRingOwner = g_pRingOwners;
        g_pRingOwners = this;
        m_bInRingTable = true;
    }
    return true;
}

void FileLogWriter::releaseRing() noexcept {
    std::lock_guard<std::mutex> lock(g_ringTableMutex);
    m_strRingKey.clear();
    if (!m_bInRingTable) {
        return;
    }
    for (FileLogWriter** ppOwner = &g_pRingOwners; *ppOwner != nullptr;
         ppOwner = &(*ppOwner)->m_pNextRingOwner) {
        if (*ppOwner == this) {
            *ppOwner = m_pNextRingOwner;
            break;
        }
    }
    m_pNextRingOwner = nullptr;
    m_bInRingTable = false;
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
