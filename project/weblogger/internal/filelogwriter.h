// The file writer, registered as "FileLogWriter": each message, rendered and encoded as UTF-8,
// goes to one file of a fixed ring of numbered files ("<prefix><index>.log") in one directory.
// The writer moves to the next file of the ring when the current one reaches a size limit or
// an age limit, truncating the oldest. When it is initialised it resumes the most recently
// modified file of the ring, so a restarted server appends where it stopped. Every file the
// writer starts afresh begins with a UTF-8 byte-order mark.
//
// Choices of ours:
// - The size rotation compares the size the writer's file handle has written (known without
//   a system call) with the limit; bytes still in the buffer do not count, as with the size
//   the system reports, and nothing but this writer writes its files.
// - "filesN" of 0 (or a value that does not read as a number) is refused: initialize reports
//   the configuration error and returns false, and the writer is not used.
// - A failure of the file layer while writing (disk full, file removed, permissions) is
//   reported once on standard error with the file's path and the system's error, the writer
//   disables itself so that the other writers keep receiving every message, and the error
//   passes to the dispatcher, which never lets it reach the caller. Everything written before
//   the failure stays in the file; the writer stays disabled until it is configured again.
//
// Locking: the writer's own lock is held for the whole of initializeByTime/initializeBySize
// and of logMessage (rotation, rendering, flush), so rotation and writing never interleave.
// initialize replaces the message writer before taking it, and appendFilePrefix takes no lock:
// neither may run while another thread logs through the same writer.
#pragma once

#include <cstdint>
#include <ctime>

#include "weblogger/internal/logfile.h"
#include "weblogger/internal/messagewriter.h"
#include "weblogger/logwriter.h"
#include "zq/webutil/filesystemutils.h"

namespace kiv {

class FileLogWriter : public LogWriter {
public:
    enum ERotationType { kRotateByTime = 0, kRotateBySize = 1 };

    static constexpr std::uint32_t kNoFile = 0xFFFFFFFF;
    static constexpr std::uint64_t kDefaultFileSizeMax = 1048576;
    static constexpr std::uint32_t kDefaultRotationIntervalSeconds = 86400;
    static constexpr std::uint32_t kDefaultNumberOfFiles = 10;

    FileLogWriter(const String& name, short id, WriterType type,
                  const Handle<const WriterFilter>& filter);
    ~FileLogWriter() override;

    // Reads the writer's attributes ("dir" required; "rotateBy", "maxFileSizeKb",
    // "rotationIntervalHours", "filesN", "filePrefix", "autoFlush"), compiles the format and
    // sets up the ring; whether the current file could be opened.
    bool initialize(const XmlElement* pElemConfig, const XmlElement* pFormat) override;
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override;

    bool initializeByTime(const String& dir, const String& prefix, unsigned filesN,
                          unsigned intervalSeconds, bool autoFlush);
    bool initializeBySize(const String& dir, const String& prefix, unsigned filesN,
                          unsigned long maxBytes, bool autoFlush);

    // Gives this writer its own family of files: "<prefix>-<part>-<index>.log". The next
    // message opens that ring, resuming its newest file.
    void appendFilePrefix(const String& part);

    const FilePath& getFilePath() const noexcept { return m_tCurFilePath; }
    String getFilePathNW() const { return m_tCurFilePath.getFullPath(); }
    // The path in UTF-8 (the process's file names are UTF-8).
    NString getFilePathN() const;

    ERotationType getRotationType() const noexcept { return m_eRotationType; }
    std::uint32_t getCurrentFileIndex() const noexcept { return m_iCurFile; }
    std::uint64_t getFileSizeMax() const noexcept { return m_lFileSizeMax; }
    std::uint32_t getRotationIntervalSeconds() const noexcept { return m_iRotationIntervalSeconds; }
    std::uint32_t getNumberOfFiles() const noexcept { return m_iNumberOfFiles; }
    bool isAutoFlush() const noexcept { return m_bAutoFlush; }
    const String& getFilePrefix() const noexcept { return m_strFilePrefix; }

private:
    bool initializeRing(ERotationType eType, const String& dir, const String& prefix,
                        unsigned filesN, std::uint64_t nLimit, bool autoFlush);
    bool isFileAtRotationPoint();
    void setFilePath(std::uint32_t i);
    void createFile();
    bool openFile();
    // Picks the newest existing file of the ring, or -1 when none exists.
    long findNewestFile();
    void disableAfterFailure(const Exception& failure);

    FilePath m_tCurFilePath;
    DirectoryPath m_strFileDirectory;
    String m_strFilePrefix;
    LogFile m_CurFile;
    ERotationType m_eRotationType = kRotateBySize;
    std::uint32_t m_iCurFile = kNoFile;
    std::time_t m_timeCurFileUsageBegan = 0;
    std::uint64_t m_lFileSizeMax = kDefaultFileSizeMax;
    std::uint32_t m_iRotationIntervalSeconds = kDefaultRotationIntervalSeconds;
    std::uint32_t m_iNumberOfFiles = kDefaultNumberOfFiles;
    MessageWriterHandle<LogFile> m_pMessageWriter;
    bool m_bAutoFlush = true;
};

}  // namespace kiv
