// The writer base class and the writer factories.
//
// A writer receives one fully described message at a time and renders it somewhere. Writers
// are reference counted and always held through Handle<LogWriter>. A writer of type WT_GLOBAL
// or WT_SHARED owns one non-recursive lock (m_tCs) that its output operations take; a
// WT_SINGLE_THREADED writer has none and its guard does nothing. A WT_GLOBAL writer enters the
// writer registry's global list from its constructor; that handle keeps it alive until the
// configuration retires it.
//
// A factory builds writers of one class from a configuration element: it reads "name" and
// "writerClassId", finds the Format element named by "fmtName" (default "Default") in the
// chain of enclosing configuration elements, constructs the writer and initialises it.
//
// Lock order: a writer's constructor takes the registry's monitor while holding no lock of its
// own; a writer never takes the registry's monitor while it holds its own lock. A writer that
// has written is also on the process-wide list of live writers (through which flushAll and the
// library's shutdown reach writers that are not global); that list's lock is taken last (at the
// first write, under the writer's lock) and nothing is taken while it is held. A file writer's
// file has an I/O lock of its own, taken under the writer's lock or by a thread writing a full
// buffer after releasing it, which then holds nothing else (logfile.h).
#pragma once

#include <cstdint>

#include "weblogger/commonseverities.h"
#include "weblogger/loggerstate.h"
#include "weblogger/writerfilter.h"
#include "zq/tl/stacked_vector.h"
#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

namespace logger_details {
class LogWritersMan;
}

using WriterSynchro = OptionalSynchroAdaptor<CriticalSection>;

class LogWriter : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    enum WriterType { WT_GLOBAL = 1, WT_SHARED = 2, WT_SINGLE_THREADED = 3 };

    // An id above 9 fails the assertion "id < 10" and is stored anyway; the comparison is
    // signed, so a negative id passes here (the factory's own check rejects it).
    LogWriter(const String& name, short id, WriterType type,
              const Handle<const WriterFilter>& filter);
    ~LogWriter() override;

    // Reads the writer's own attributes and compiles its format; whether the writer is usable.
    virtual bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) = 0;
    // Writes one message.
    virtual void logMessage(const LogSeverity& severity, const GDValue& message,
                            const LoggerState& state, const FileLocation* pLocation) = 0;
    // Writes out whatever the writer holds back, under the writer's own lock (and whatever
    // lock its logMessage takes before it). Never throws; a writer that holds nothing back
    // keeps this default, which does nothing.
    virtual void flush() noexcept {}
    // Flushes and stops writing for good: later messages are refused, files are closed. The
    // library's shutdown calls it for every writer before it destroys the registries. The
    // default flushes and disables the writer.
    virtual void close() noexcept;

    // A writer without a writer filter accepts every message; otherwise the state's current
    // source (which must exist: "rLoggerState.getCurSource() != __null") decides through it.
    bool isLogEnabled(const LogSeverity& severity, const LoggerState& rLoggerState) const noexcept;

    const String& getName() const noexcept { return m_strName; }
    short getClassId() const noexcept { return m_id; }
    bool isEnabled() const noexcept { return m_bIsEnabled.load(std::memory_order_acquire); }
    void setIsEnabled(bool bEnabled) noexcept {
        m_bIsEnabled.store(bEnabled, std::memory_order_release);
        // Guards that remembered an answer with or without this writer walk again.
        logger_details::DispatchGeneration::advance();
    }
    WriterSynchro& getWriterSynchro() const noexcept { return m_tCs; }

    // Takes the writer out of service because the configuration replaces it: marks it
    // retired, clears the enabled flag, then passes through the writer's lock, so that when it
    // returns no write is in progress and none will start. (A file writer's full buffer may
    // still be on its way to the file, written after the lock; its flush waits for it.)
    void retire() noexcept;
    bool isRetired() const noexcept { return m_bRetired.load(std::memory_order_acquire); }
    // True (once) when a write on this thread was refused by a retired writer since the last
    // call; the dispatcher then hands the message to the writers that replaced it.
    static bool takeWriteRefusal() noexcept;
    // Whether the write just made to this writer on this thread was refused. Only a retired
    // writer refuses, and a writer stays retired, so for any other writer the answer is no
    // without a look at the thread's flag: the dispatcher's check after every write is then
    // one load of this writer's own flag, inline.
    bool refusedLastWrite() const noexcept { return isRetired() && takeWriteRefusal(); }
    const Handle<const WriterFilter>& getWriterFilter() const noexcept { return m_hWriterFilter; }

protected:
    // Every writer's logMessage writes under one of these: it takes the writer's lock (none for
    // WT_SINGLE_THREADED) and then asks acceptWrite whether the writer may still write. When it
    // says no, the writer must write nothing: a message that raced with a reconfiguration is
    // thereby neither written to a retired writer nor lost (the dispatcher redelivers it).
    //
    //     const WriteGuard guard(*this);
    //     if (!guard) return;
    class WriteGuard {
    public:
        explicit WriteGuard(const LogWriter& writer)
            : m_lock(writer.m_tCs), m_bAccepted(writer.acceptWrite()) {
            if (!writer.m_bLiveListed) [[unlikely]] {
                writer.listAsLive();
            }
        }
        WriteGuard(const WriteGuard&) = delete;
        WriteGuard& operator=(const WriteGuard&) = delete;
        explicit operator bool() const noexcept { return m_bAccepted; }

    private:
        LockGuard<WriterSynchro> m_lock;
        const bool m_bAccepted;
    };

    // False when the writer is disabled or retired; a retired writer also marks the write as
    // refused, so that the dispatcher hands the message to its replacement. Called under the
    // writer's lock, through WriteGuard; inline, as every message asks it.
    bool acceptWrite() const noexcept {
        if (isEnabled()) [[likely]] {
            return true;
        }
        return refuseWrite();
    }

private:
    // acceptWrite's answer for a writer no longer enabled: false, and the refusal marked when
    // the writer was retired.
    bool refuseWrite() const noexcept;
    // Enters the list of live writers; at the first write, under the writer's lock.
    void listAsLive() const noexcept;

    friend class logger_details::LogWritersMan;

    mutable WriterSynchro m_tCs;
    // Cleared by the configuration on another thread while logging threads test it.
    std::atomic<bool> m_bIsEnabled;
    std::atomic<bool> m_bRetired{false};
    // Whether the writer is in the process-wide list of live writers (see LogWritersMan),
    // which it enters at its first write; touched under the writer's lock, and by the
    // destructor. Next to the flags above: every write reads all three.
    mutable bool m_bLiveListed = false;
    String m_strName;
    short m_id;
    Handle<const WriterFilter> m_hWriterFilter;
    // The process-wide list of live writers, guarded by its own lock (see LogWritersMan). A
    // writer enters it at its first write: only what was written can need flushing.
    LogWriter* m_pPrevLive = nullptr;
    LogWriter* m_pNextLive = nullptr;
};

class LogWritersFactory : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    using ConfigChain = local_heap::stacked_vector<128, const XmlElement*>;

    // The format used when a writer names none: "Default".
    static const String strDefaultFmtName;

    explicit LogWritersFactory(String name) : m_strName(std::move(name)) {}
    ~LogWritersFactory() override = default;

    // A new, initialised writer from its configuration node; null when initialize failed.
    // Throws LogFormatNotFound for an unknown format and XmlException for a missing required
    // attribute.
    virtual Handle<LogWriter> create(const XmlNode* pConfig, const ConfigChain& chain,
                                     LogWriter::WriterType type,
                                     const Handle<const WriterFilter>& filter) const = 0;

    const String& getName() const noexcept { return m_strName; }

    // The Format element named fmtName (ignoring case) among the children of the chain's
    // elements, first element of the chain first; null when there is none.
    static const XmlElement* findFormat(const ConfigChain& chain, const String& fmtName);

protected:
    using WriterConstructor = LogWriter* (*)(const String& name, short id,
                                             LogWriter::WriterType type,
                                             const Handle<const WriterFilter>& filter);
    // The creation algorithm shared by every writer class.
    static Handle<LogWriter> createWriter(WriterConstructor pfnConstruct, const XmlNode* pConfig,
                                          const ConfigChain& chain, LogWriter::WriterType type,
                                          const Handle<const WriterFilter>& filter);

    String m_strName;
};

namespace logger_details {

template <class T>
class LogWritersFactoryImpl : public LogWritersFactory {
public:
    explicit LogWritersFactoryImpl(String name) : LogWritersFactory(std::move(name)) {}

    Handle<LogWriter> create(const XmlNode* pConfig, const ConfigChain& chain,
                             LogWriter::WriterType type,
                             const Handle<const WriterFilter>& filter) const override {
        return createWriter(&construct, pConfig, chain, type, filter);
    }

private:
    static LogWriter* construct(const String& name, short id, LogWriter::WriterType type,
                                const Handle<const WriterFilter>& filter) {
        return new T(name, id, type, filter);
    }
};

}  // namespace logger_details
}  // namespace kiv
