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
// - "filesN" must be a decimal number from 1 to kMaxNumberOfFiles; anything else (0, text,
//   "1e9", "-1", 4294967295) is refused: initialize reports it and returns false. The ring is
//   found by one pass over the directory, so the cost of a restart follows the files present,
//   not "filesN"; the bound only keeps a typing error from naming a ring no one means.
// - Resuming: the newest file by modification time (with its sub-second part). Files that
//   share the newest time are what a file system with whole-second times leaves after several
//   rotations within one second; see chooseRingFileToResume for how the writer tells them
//   apart.
// - A ring belongs to one writer of the process: a second writer initialised on the same
//   directory (after links are resolved) and prefix is refused with a report, since the two
//   would overwrite each other's files. A retired writer no longer holds its ring.
// - Hand-over: a reconfiguration builds the new writers before it retires the old ones. Inside
//   a RingHandOver scope, a writer may claim a ring held by one of the writers being replaced;
//   it then opens no file at initialisation. The configuration installs it only after the old
//   writer is retired (no write in progress, none to come) and flushed, and its first message
//   resumes the ring's newest file as a restarted server would. So reloading the same document
//   neither refuses the ring nor lets two writers rotate one ring.
// - Files are never opened through a symbolic link, and only regular files are written: a
//   link or anything else found under a ring file's name is reported and that slot skipped
//   (never followed, never truncated). Links in the directory are not resumed either.
// - Modes: new log files get "fileMode" (octal, default 0640; the owner must keep reading and
//   writing) exactly, whatever the process umask; the directories the writer creates get the
//   matching mode: search permission wherever the file mode grants reading, all three for the
//   owner (0640 gives 0750, 0600 gives 0700). Existing directories and the files of a resumed
//   ring keep the modes they have.
// - Failures never reach the caller and never disable the writer:
//   * A write that fails (disk full, quota, I/O error) leaves only whole lines in the file
//     (see LogFile). The writer keeps what its buffer holds, reports once that it stopped,
//     tries again at most once a second and resumes by itself, reporting how many messages
//     it had to drop meanwhile.
//   * Once a second the writer checks that its file still has its name; a file removed or
//     replaced (and a removed directory) is reported, the directory created again and the ring
//     continued with the next, fresh file, which also receives what was not yet written.
//   * A file that cannot be created is tried again once a second, at the same slot; messages
//     meanwhile are dropped and counted.
//   The checks read the wall clock the writer reads anyway (no system call on Linux), so a
//   message costs no system call beyond its write.
//
// Crashes and forks: every file writer is in the process-wide table of live file writers from
// its constructor to the first statement of its destructor (livefilewriters.h), through which
// the crash flush (crashflush.h) writes out its buffer on a fatal signal, and the fork handlers
// (forksafety.h) lock and write it out around a fork.
//
// Locking: a message is rendered before the writer's lock is taken, into the calling thread's
// record buffer (RenderScratch in messagewriter.h): rendering reads only the message, the
// caller's state, the compiled format and the thread's own scratch, nothing the lock guards.
// The lock is then held for everything that touches the file: the once-a-second checks, the
// rotation, the copy of the whole record into the file's buffer, its record end and the flush.
// A buffer that fills up is handed off and written after the lock is released, by the thread
// whose record did not fit (LogFile's Hand-off): the file still receives the records in the
// order of their copies, since the file settles that write before anything else reaches it.
// So two threads logging to one writer render at the same time, and what the lock still
// guarantees is unchanged: a record reaches the file whole, never interleaved with another, and
// the records of one writer are in the order in which their threads took its lock. (A record's
// time stamp is the moment of its rendering, so around a change of second two threads' lines
// may show their seconds out of order.) initializeByTime/initializeBySize and flush hold the
// lock throughout. initialize replaces the message writer before taking it, and
// appendFilePrefix takes no lock: neither may run while another thread logs through the same
// writer. The process-wide table of rings is taken under a writer's lock, never the other way
// round.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

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
    // The largest "filesN": a million files is more than any directory of logs is read with.
    static constexpr std::uint32_t kMaxNumberOfFiles = 1000000;
    static constexpr unsigned kDefaultFileMode = 0640;

    // While it lives, file writers initialised on this thread may take over the rings of the
    // writers in vecReplaced (see Hand-over above). The vector must outlive the scope.
    class RingHandOver {
    public:
        explicit RingHandOver(const std::vector<Handle<LogWriter>>& vecReplaced) noexcept;
        ~RingHandOver();
        RingHandOver(const RingHandOver&) = delete;
        RingHandOver& operator=(const RingHandOver&) = delete;

    private:
        const std::vector<Handle<LogWriter>>* m_pPrevious;
    };

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

    // Writes what the buffer holds to the file now (for a host before fork or in a signal
    // handler's thread, and for shutdown); a stalled file is tried once more. Never throws; a
    // failure is handled as any other.
    void flush() noexcept override;
    // Flushes and closes the current file under the writer's lock, and refuses every later
    // message (the library's shutdown).
    void close() noexcept override;

    // Gives this writer its own family of files: "<prefix>-<part>-<index>.log". The next
    // message opens that ring, resuming its newest file.
    void appendFilePrefix(const String& part);
    // The file prefix that appendFilePrefix makes of a configured "filePrefix" (empty for the
    // default) and a part; a configuration can give it to a writer before it opens any file.
    static String prefixWithPart(const String& configuredPrefix, const String& part);

    const FilePath& getFilePath() const noexcept { return m_tCurFilePath; }
    String getFilePathNW() const { return m_tCurFilePath.getFullPath(); }
    // The path in UTF-8 (the process's file names are UTF-8).
    NString getFilePathN() const;

    // The file behind the writer, for the crash handler and the fork handlers
    // (fatalsignalflush.h, forksafety.h): only under the writer's lock.
    LogFile& getLogFile() noexcept { return m_CurFile; }

    ERotationType getRotationType() const noexcept { return m_eRotationType; }
    std::uint32_t getCurrentFileIndex() const noexcept { return m_iCurFile; }
    std::uint64_t getFileSizeMax() const noexcept { return m_lFileSizeMax; }
    std::uint32_t getRotationIntervalSeconds() const noexcept { return m_iRotationIntervalSeconds; }
    std::uint32_t getNumberOfFiles() const noexcept { return m_iNumberOfFiles; }
    bool isAutoFlush() const noexcept { return m_bAutoFlush; }
    const String& getFilePrefix() const noexcept { return m_strFilePrefix; }
    unsigned getFileMode() const noexcept { return m_nFileMode; }
    unsigned getDirectoryMode() const noexcept { return m_nDirectoryMode; }

private:
    bool initializeRing(ERotationType eType, const String& dir, const String& prefix,
                        unsigned filesN, std::uint64_t nLimit, bool autoFlush);
    bool isFileAtRotationPoint() {
        if (m_CurFile.isOpen() && m_eRotationType == kRotateBySize) [[likely]] {
            // The size the file has been given, a handed-off buffer included: bytes still in
            // the buffer do not count yet. Known without a system call.
            return static_cast<std::uint64_t>(m_CurFile.getWrittenSize()) >= m_lFileSizeMax;
        }
        return isFileAtRotationTime();
    }
    // For a file that is not open (true) or rotates by time.
    bool isFileAtRotationTime() const noexcept;
    void setFilePath(std::uint32_t i);
    void createFile();
    // The open file, or the next one of the ring when the current one is due for rotation
    // (or none is open): false when there is none. Inline, since a message nearly always
    // finds its file open and short of the limit.
    bool openFile() { return !isFileAtRotationPoint() || openNextFile(); }
    bool openNextFile();
    // Picks the newest existing file of the ring, or -1 when none exists.
    long findNewestFile();
    // Creates the current slot afresh, or the next ones when a slot holds a link or something
    // else than a regular file.
    void startFreshFile();
    // Once a second: retries a stalled write, re-arms a failed open, notices a vanished file.
    void checkFile() noexcept;
    bool hasFileVanished() const noexcept;
    void noteOpenFailure(const FileException& failure) noexcept;
    // Reports the start and the end of a time without writing; inline, and nothing to do,
    // while the file writes and no outage is being reported.
    void reportWriteState() noexcept {
        if (m_CurFile.isStalled() || m_bOutageReported) [[unlikely]] {
            reportWriteChange();
        }
    }
    void reportWriteChange() noexcept;
    // Takes the ring of the current directory and prefix for this writer; false (reported)
    // when another live writer of the process has it.
    bool claimRing();
    void releaseRing() noexcept;

    // What every message reads comes first, followed by the file: a line touches as few of the
    // writer's cache lines as it can, which counts most for a flushed line, run right after the
    // kernel's write has evicted them.
    MessageWriterHandle<RecordBuffer> m_pMessageWriter;
    // The second in which the once-a-second checks last ran.
    std::time_t m_tLastCheck = 0;
    bool m_bAutoFlush = true;
    // The last attempt to create or open a file failed; the next one comes with the check.
    bool m_bOpenFailed = false;
    // Not writing: reported once, with the messages dropped counted until it ends.
    bool m_bOutageReported = false;
    // The slot whose creation failed is tried again instead of moving on.
    bool m_bRetrySameSlot = false;
    LogFile m_CurFile;
    FilePath m_tCurFilePath;
    DirectoryPath m_strFileDirectory;
    String m_strFilePrefix;
    ERotationType m_eRotationType = kRotateBySize;
    std::uint32_t m_iCurFile = kNoFile;
    std::time_t m_timeCurFileUsageBegan = 0;
    std::uint64_t m_lFileSizeMax = kDefaultFileSizeMax;
    std::uint32_t m_iRotationIntervalSeconds = kDefaultRotationIntervalSeconds;
    std::uint32_t m_iNumberOfFiles = kDefaultNumberOfFiles;
    unsigned m_nFileMode = kDefaultFileMode;
    unsigned m_nDirectoryMode = 0750;
    std::uint64_t m_nDroppedMessages = 0;
    // Canonical directory and prefix of the ring this writer holds; empty when none.
    String m_strRingKey;
    FileLogWriter* m_pNextRingOwner = nullptr;
    // The current path in the system's form, rewritten in place at each change of file, so
    // that neither the check once a second nor a rotation allocates.
    std::string m_strCurFileNative;
    bool m_bInRingTable = false;
    // The ring was taken over from a writer still being replaced: no file is opened until the
    // first message, which comes only after that writer has been retired.
    bool m_bAwaitingHandOver = false;
};

}  // namespace kiv
