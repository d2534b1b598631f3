#include "weblogger/tmlogger.h"

#include <algorithm>
#include <new>
#include <typeinfo>

#include "weblogger/keelloggerlogimpl.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/keellogger.h"
#include "zq/webthreadstorage/threadstatic.h"
#include "zq/webutil/message.h"
#include "zq/webutil/timezone.h"

namespace kiv {

const LogSourceHandle lsUnspecified(String(L"kiv.unknown"));
const GDString gdEndOfLine(L"\n");
const String ksExecutionContextIDLogPropName(L"ecid");

namespace {

// The file name this unit reports to the lower library when it diverts a message.
const wchar_t* const kUnitFileName = L"./project/weblogger/tmlogger";
constexpr unsigned kDivertLineLogMessage = 79;
constexpr unsigned kDivertLineLogToEnabledWriters = 121;

std::atomic<int> g_nLiveLoggers{0};

// The logging time zone. It is set at start-up or by a reconfiguration while other threads
// may be rendering, so it is read and written under its own lock; renderers take it only when
// their cached time-stamp text is stale (once a second).
struct LoggingTimeZone {
    CriticalSection m_tCs{0, "LoggingTimeZone"};
    TimeZone g_tTimeZone{TimeZone::kServerOS};
    String g_sTimeZoneShortName;
    String g_sTimeZoneDSTShortName;
    std::atomic<std::uint64_t> m_nGeneration{1};
};

LoggingTimeZone& loggingTimeZone() {
    static LoggingTimeZone* s_pZone = new LoggingTimeZone;
    return *s_pZone;
}

// How often one message waits for a replacement of the global writers before it gives up:
// each wait lasts one whole reconfiguration, so more than a few means the configuration is
// being replaced in a loop.
constexpr int kMaxReplacementWaits = 8;

}  // namespace

ThreadSpecificStatic<TmLogger>& TmLogger::loggerSlot() {
    // Never destroyed: a thread may end (and run its clean-up) while the process exits.
    static ThreadSpecificStatic<TmLogger>* s_pSlot =
        new ThreadSpecificStatic<TmLogger>(&TmLogger::destroyLogger);
    return *s_pSlot;
}

void TmLogger::destroyLogger(TmLogger* pLogger) {
    delete pLogger;
}

// =============================================================================================
// LoggerState

TmLogger::LoggerState::LoggerState() {
    m_LogSourcesStack.reserve(kReservedSources);
}

TmLogger::LoggerState::LoggerState(const LoggerState& other)
    : MemAllocNewdel(), m_LogSourcesStack(other.m_LogSourcesStack), m_PropsMap(other.m_PropsMap) {
    m_LogSourcesStack.reserve(kReservedSources);
    for (auto& entry : m_PropsMap) {
        PropValues& values = entry.second;
        values.erase(std::remove_if(values.begin(), values.end(),
                                    [](const PropValue& value) {
                                        const GDValue* pValue = value.first.get();
                                        return pValue == nullptr ||
                                               !(pValue->isString() || pValue->isNumber());
                                    }),
                     values.end());
    }
}

TmLogger::LoggerState& TmLogger::LoggerState::operator=(const LoggerState& other) {
    LoggerState copy(other);
    swap(copy);
    return *this;
}

void TmLogger::LoggerState::swap(LoggerState& other) noexcept {
    m_LogSourcesStack.swap(other.m_LogSourcesStack);
    std::swap(m_PropsMap, other.m_PropsMap);
}

void TmLogger::LoggerState::pushSource(const LogSource& source) {
    m_LogSourcesStack.push_back(&source);
}

void TmLogger::LoggerState::popSource() noexcept {
    if (!m_LogSourcesStack.empty()) {
        m_LogSourcesStack.pop_back();
    }
}

void TmLogger::LoggerState::pushProperty(const String& strPropName, const GDValue& propValue,
                                         std::uint32_t nImportance) {
    PropValues& values = m_PropsMap[strPropName];
    values.reserve(kReservedValues);
    values.emplace_back(GDVariant(propValue), nImportance);
}

void TmLogger::LoggerState::popProperty(const String& strPropName) noexcept {
    const auto it = m_PropsMap.find(strPropName);
    if (it != m_PropsMap.end() && !it->second.empty()) {
        it->second.pop_back();
    }
}

void TmLogger::LoggerState::appendLogSources(StringBufferBaseTemplate<wchar_t>& buffer) const {
    for (auto it = m_LogSourcesStack.rbegin(); it != m_LogSourcesStack.rend(); ++it) {
        buffer.append((*it)->getPath()).append(L'\n');
    }
}

void TmLogger::LoggerState::getLogSourceNames(std::vector<String>& names) const {
    names.clear();
    for (auto it = m_LogSourcesStack.rbegin(); it != m_LogSourcesStack.rend(); ++it) {
        if (*it != nullptr) {
            names.push_back((*it)->getPath());
        }
    }
}

// =============================================================================================
// LogWriters

TmLogger::LogWriters::LogWriters()
    : m_GlobalWritersVersion(0), m_pRegistry(&logger_details::LogWritersMan::getLogWritersMan()) {}

TmLogger::LogWriters::~LogWriters() = default;

void TmLogger::LogWriters::syncGlobalWriters() {
    AtomicEntity<int> version;
    m_pRegistry->getWriters(m_LogWritersGlobal, version);
    m_GlobalWritersVersion.store(version.get(), std::memory_order_relaxed);
}

void TmLogger::LogWriters::bringGlobalWritersUpToDate() {
    logger_details::LogWritersMan& registry = *m_pRegistry;
    const int nMine = m_GlobalWritersVersion.load(std::memory_order_relaxed);
    if (registry.getVersion() == nMine) {
        return;
    }
    // Confirm under the registry's lock, then copy after releasing it: the copy takes the lock
    // again itself, and a change that races with it is seen at the next version change.
    bool bStale;
    {
        LockGuard<CriticalSection> lock(registry.getMonitor());
        bStale = registry.getVersion() != nMine;
    }
    if (bStale) {
        syncGlobalWriters();
    }
}

void TmLogger::LogWriters::addLocalWriter(LogWriter* pWriter) {
    m_LogWritersLocal.emplace_back(pWriter);
}

void TmLogger::LogWriters::removeLocalWriter(LogWriter* pWriter) {
    const auto it =
        std::find_if(m_LogWritersLocal.begin(), m_LogWritersLocal.end(),
                     [pWriter](const Handle<LogWriter>& h) { return h.get() == pWriter; });
    if (it != m_LogWritersLocal.end()) {
        m_LogWritersLocal.erase(it);
    }
}

void TmLogger::LogWriters::clearEnabledWriters() noexcept {
    m_vecEnabledWriters.clear();
}

void TmLogger::LogWriters::clearLocalWriters() {
    m_LogWritersLocal.clear();
}

void TmLogger::LogWriters::getLocalWriters(LogWritersList& list) const {
    list = m_LogWritersLocal;
}

void TmLogger::LogWriters::appendLocalWriters(const LogWritersList& list) {
    m_LogWritersLocal.insert(m_LogWritersLocal.end(), list.begin(), list.end());
}

void TmLogger::LogWriters::setLocalWriters(const LogWritersList& list) {
    m_LogWritersLocal = list;
}

bool TmLogger::LogWriters::accepts(const LogWriter& writer, const LogSeverity& severity,
                                   const LoggerState& state, const LogSource& source) {
    return writer.isEnabled() && writer.isLogEnabled(severity, state) &&
           source.getLogFilter().isLogEnabled(severity, &writer);
}

template <class OnAccepted>
bool TmLogger::LogWriters::forEachAcceptingWriter(const LogSeverity& severity,
                                                  const LoggerState& state,
                                                  OnAccepted&& onAccepted) {
    ZQ_ASSERT(state.getCurSource() != __null);
    const LogSource* pSource = state.getCurSource();
    const LogFilter* pCurFilter = pSource != nullptr ? &pSource->getLogFilter() : nullptr;
    ZQ_ASSERT(pCurFilter != __null);
    if (pCurFilter == nullptr) {
        return false;
    }
    bool bRetiredMet = false;
    for (const LogWritersList* pList : {&m_LogWritersGlobal, &m_LogWritersLocal}) {
        for (const Handle<LogWriter>& hWriter : *pList) {
            if (accepts(*hWriter, severity, state, *pSource)) {
                onAccepted(hWriter);
            } else if (pList == &m_LogWritersGlobal && hWriter->isRetired()) {
                bRetiredMet = true;
            }
        }
    }
    return bRetiredMet;
}

void TmLogger::LogWriters::waitForReplacementAndSync() {
    // The configuration replaces the global writers under the registry's lock: passing
    // through it waits for a replacement in progress, so the copy holds the new writers.
    CriticalSection& monitor = m_pRegistry->getMonitor();
    monitor.acquire();
    monitor.release();
    syncGlobalWriters();
}

bool TmLogger::LogWriters::calcEnabledWriters(const LogSeverity& severity,
                                              const LoggerState& state) {
    bringGlobalWritersUpToDate();
    const auto collect = [this](const Handle<LogWriter>& hWriter) {
        m_vecEnabledWriters.push_back(hWriter);
    };
    m_vecEnabledWriters.clear();
    // Meeting a retired writer means the writers are being replaced: wait for the new ones.
    for (int nAttempt = 0;
         forEachAcceptingWriter(severity, state, collect) && nAttempt < kMaxReplacementWaits;
         ++nAttempt) {
        waitForReplacementAndSync();
        m_vecEnabledWriters.clear();
    }
    return !m_vecEnabledWriters.empty();
}

void TmLogger::LogWriters::logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                                               const LoggerState& state,
                                               const FileLocation* pLocation) {
    bool bRefused = false;
    for (const Handle<LogWriter>& hWriter : m_vecEnabledWriters) {
        hWriter->logMessage(severity, msg, state, pLocation);
        bRefused |= LogWriter::takeWriteRefusal();
    }
    m_vecEnabledWriters.clear();
    if (bRefused) {
        redeliverToReplacements(severity, msg, state, pLocation);
    }
}

void TmLogger::LogWriters::logMessage(const LogSeverity& severity, const GDValue& msg,
                                      const LoggerState& state, const FileLocation* pLocation) {
    bringGlobalWritersUpToDate();
    bool bRefused = false;
    const bool bRetiredMet =
        forEachAcceptingWriter(severity, state, [&](const Handle<LogWriter>& hWriter) {
            hWriter->logMessage(severity, msg, state, pLocation);
            bRefused |= LogWriter::takeWriteRefusal();
        });
    if (bRefused || bRetiredMet) {
        redeliverToReplacements(severity, msg, state, pLocation);
    }
}

void TmLogger::LogWriters::redeliverToReplacements(const LogSeverity& severity, const GDValue& msg,
                                                   const LoggerState& state,
                                                   const FileLocation* pLocation) {
    const LogSource* pSource = state.getCurSource();
    if (pSource == nullptr) {
        return;
    }
    // Every writer of an earlier list either wrote the message or refused it because it was
    // retired; only writers that were not in any of those lists may still receive it. A
    // replacement can itself be replaced before the message reaches it, hence the rounds.
    std::vector<const LogWriter*> vecAlreadyTried;
    for (int nAttempt = 0; nAttempt < kMaxReplacementWaits; ++nAttempt) {
        for (const Handle<LogWriter>& hWriter : m_LogWritersGlobal) {
            vecAlreadyTried.push_back(hWriter.get());
        }
        waitForReplacementAndSync();
        bool bAgain = false;
        for (const Handle<LogWriter>& hWriter : m_LogWritersGlobal) {
            if (std::find(vecAlreadyTried.begin(), vecAlreadyTried.end(), hWriter.get()) !=
                vecAlreadyTried.end()) {
                continue;
            }
            if (accepts(*hWriter, severity, state, *pSource)) {
                hWriter->logMessage(severity, msg, state, pLocation);
                bAgain |= LogWriter::takeWriteRefusal();
            } else {
                bAgain |= hWriter->isRetired();
            }
        }
        if (!bAgain) {
            return;
        }
    }
}

// =============================================================================================
// LogWritersState

LogWritersState::LogWritersState() = default;
LogWritersState::LogWritersState(const LogWritersState& other) = default;
LogWritersState& LogWritersState::operator=(const LogWritersState& other) = default;
LogWritersState::~LogWritersState() = default;
void LogWritersState::clear() noexcept {
    m_list.clear();
}
void LogWritersState::append(const LogWritersState& other) {
    m_list.insert(m_list.end(), other.m_list.begin(), other.m_list.end());
}

// =============================================================================================
// TmLogger

// Marks the thread as inside a log call and pushes the sources a call needs; on the way out,
// also by exception, pops exactly what it pushed and clears the flag.
class TmLogger::CallScope {
public:
    explicit CallScope(TmLogger& logger) noexcept : m_logger(logger) {
        m_logger.m_bInLogCall = true;
    }
    ~CallScope() {
        for (int i = 0; i < m_nPushed; ++i) {
            m_logger.m_logState.popSource();
        }
        m_logger.m_bInLogCall = false;
    }
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;

    // Pushes a source; a failure of our own or an out-of-memory error leaves it unpushed.
    void push(const LogSource& source) {
        try {
            m_logger.m_logState.pushSource(source);
            ++m_nPushed;
        } catch (const Exception&) {
        } catch (const std::bad_alloc&) {
        }
    }
    // Logs under "kiv.unknown" when the thread has no source.
    void pushDefaultSourceIfNone() {
        if (m_logger.m_logState.getCurSource() == nullptr) {
            push(*lsUnspecified);
        }
    }

private:
    TmLogger& m_logger;
    int m_nPushed = 0;
};

TmLogger::TmLogger() : m_hLogWriters(new LogWriters), m_bInLogCall(false) {
    m_hLogWriters->syncGlobalWriters();
    g_nLiveLoggers.fetch_add(1, std::memory_order_relaxed);
}

TmLogger::~TmLogger() {
    g_nLiveLoggers.fetch_sub(1, std::memory_order_relaxed);
}

TmLogger& TmLogger::getLogger() {
    ThreadSpecificStatic<TmLogger>& slot = loggerSlot();
    if (TmLogger* pLogger = slot.get()) {
        return *pLogger;
    }
    TmLogger* pLogger = new TmLogger;
    try {
        slot.set(pLogger);
    } catch (...) {
        delete pLogger;
        throw;
    }
    return *pLogger;
}

int TmLogger::getLiveLoggerCount() noexcept {
    return g_nLiveLoggers.load(std::memory_order_relaxed);
}

void TmLogger::addLocalWriter(LogWriter* pWriter) {
    m_hLogWriters->addLocalWriter(pWriter);
}

void TmLogger::removeLocalWriter(LogWriter* pWriter) {
    m_hLogWriters->removeLocalWriter(pWriter);
}

void TmLogger::clearLocalWriters() {
    m_hLogWriters->clearLocalWriters();
}

void TmLogger::getLocalWriters(LogWritersState& state) const {
    m_hLogWriters->getLocalWriters(state.m_list);
}

void TmLogger::setLocalWriters(const LogWritersState& state) {
    m_hLogWriters->setLocalWriters(state.m_list);
}

void TmLogger::appendLocalWriters(const LogWritersState& state) {
    m_hLogWriters->appendLocalWriters(state.m_list);
}

bool TmLogger::calcEnabledWriters(const LogSeverity& severity) {
    // The flag is set without testing it first and cleared at the end, also when this call was
    // made from inside another log call.
    try {
        CallScope scope(*this);
        scope.pushDefaultSourceIfNone();
        return m_hLogWriters->calcEnabledWriters(severity, m_logState);
    } catch (const Exception&) {
        // Like every entry point: our own failures never reach the caller; nothing is enabled.
    } catch (const std::bad_alloc&) {
    }
    m_hLogWriters.get()->clearEnabledWriters();
    return false;
}

void TmLogger::logToEnabledWriters(const LogSeverity& severity, const GDValue& msg,
                                   const FileLocation* pLocation) {
    if (m_bInLogCall) {
        divert(msg, kDivertLineLogToEnabledWriters);
        return;
    }
    try {
        CallScope scope(*this);
        scope.pushDefaultSourceIfNone();
        m_hLogWriters->logToEnabledWriters(severity, msg, m_logState, pLocation);
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
}

void TmLogger::logToEnabledWriters1(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1), pLocation);
}

void TmLogger::logToEnabledWriters2(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2,
                                    const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2), pLocation);
}

void TmLogger::logToEnabledWriters3(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3), pLocation);
}

void TmLogger::logToEnabledWriters4(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const GDValue& p4, const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4), pLocation);
}

void TmLogger::logToEnabledWriters5(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const GDValue& p4, const GDValue& p5,
                                    const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5),
                        pLocation);
}

void TmLogger::logToEnabledWriters6(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const GDValue& p4, const GDValue& p5, const GDValue& p6,
                                    const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6),
                        pLocation);
}

void TmLogger::logToEnabledWriters7(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const GDValue& p4, const GDValue& p5, const GDValue& p6,
                                    const GDValue& p7, const FileLocation* pLocation) {
    logToEnabledWriters(severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6, p7),
                        pLocation);
}

void TmLogger::logToEnabledWriters8(const LogSeverity& severity, const GDValue& msg,
                                    const GDValue& p1, const GDValue& p2, const GDValue& p3,
                                    const GDValue& p4, const GDValue& p5, const GDValue& p6,
                                    const GDValue& p7, const GDValue& p8,
                                    const FileLocation* pLocation) {
    logToEnabledWriters(
        severity, ReferentialParameterizedMessage(msg, p1, p2, p3, p4, p5, p6, p7, p8), pLocation);
}

void TmLogger::logMessage(const LogSeverity& severity, const GDValue& msg, const LogSource* pSource,
                          const FileLocation* pLocation) {
    if (m_bInLogCall) {
        divert(msg, kDivertLineLogMessage);
        return;
    }
    try {
        CallScope scope(*this);
        if (pSource != nullptr) {
            scope.push(*pSource);
        }
        scope.pushDefaultSourceIfNone();
        m_hLogWriters->logMessage(severity, msg, m_logState, pLocation);
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
}

void TmLogger::logException(const Exception& exception, const LogSeverity* pSeverity,
                            const FileLocation* pLocation, const LogSource* pSource) {
    try {
        if (m_bInLogCall) {
            if (KeelLogger* pPrevious =
                    KeelLoggerLogImpl::getKeelLoggerLogImpl().getPrevKeelLogger()) {
                pPrevious->logException(exception, exception.getSeverity());
            }
            return;
        }
        const LogSeverity& severity = pSeverity != nullptr ? *pSeverity : kSevError;
        const std::vector<const Exception*> vecLinked =
            exception.getFlattenedListOfLinkedExceptions();

        const String& strStackTrace = exception.getStackTrace();
        const FileLocation withBacktrace(pLocation != nullptr ? pLocation->getWFile() : nullptr,
                                         pLocation != nullptr ? pLocation->getLineNumber() : 0,
                                         strStackTrace.c_str());
        const FileLocation* pUsedLocation =
            pLocation != nullptr && !strStackTrace.empty() ? &withBacktrace : pLocation;

        if (vecLinked.empty()) {
            logMessage(severity, exception.getMsg(), pSource, pUsedLocation);
            return;
        }
        GDArray messages;
        messages.append(exception.getMsg());
        for (const Exception* pLinked : vecLinked) {
            messages.append(gdEndOfLine);
            if (pLinked != nullptr) {
                messages.append(pLinked->getMsg());
            }
        }
        logMessage(severity, messages, pSource, pUsedLocation);
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
}

void TmLogger::setTimeZone(const TimeZone& zone) {
    LoggingTimeZone& logging = loggingTimeZone();
    LockGuard<CriticalSection> lock(logging.m_tCs);
    logging.g_tTimeZone = zone;
    logging.m_nGeneration.fetch_add(1, std::memory_order_acq_rel);
    const String strLanguage(L"en");
    const GDVariant standardName = zone.getShortName(strLanguage, false);
    if (standardName.empty() || !standardName->isString()) {
        throw std::bad_cast();
    }
    logging.g_sTimeZoneShortName = standardName->toString();
    const GDVariant daylightName = zone.getShortName(strLanguage, true);
    if (daylightName.empty() || !daylightName->isString()) {
        throw std::bad_cast();
    }
    logging.g_sTimeZoneDSTShortName = daylightName->toString();
}

const TimeZone& TmLogger::getTimeZone() {
    return loggingTimeZone().g_tTimeZone;
}

const String& TmLogger::getTimeZoneShortName(bool bDst) {
    const LoggingTimeZone& logging = loggingTimeZone();
    return bDst ? logging.g_sTimeZoneDSTShortName : logging.g_sTimeZoneShortName;
}

std::uint64_t TmLogger::getTimeZoneGeneration() noexcept {
    return loggingTimeZone().m_nGeneration.load(std::memory_order_acquire);
}

std::size_t TmLogger::formatTimeStamp(std::time_t t, bool bIso8601, wchar_t* pBuffer,
                                      std::size_t nCapacity) {
    LoggingTimeZone& logging = loggingTimeZone();
    LockGuard<CriticalSection> lock(logging.m_tCs);
    if (bIso8601) {
        return DateUtils::crtToISO8601WCharBuf(t, logging.g_tTimeZone, pBuffer, nCapacity);
    }
    std::size_t nLength = DateUtils::crtToWCharBuf(t, logging.g_tTimeZone, pBuffer, nCapacity);
    const String& strZone = logging.g_tTimeZone.isDst(t) ? logging.g_sTimeZoneDSTShortName
                                                         : logging.g_sTimeZoneShortName;
    if (nLength + 1 + strZone.size() < nCapacity) {
        pBuffer[nLength++] = L' ';
        for (wchar_t c : strZone) {
            pBuffer[nLength++] = c;
        }
        pBuffer[nLength] = 0;
    }
    return nLength;
}

void TmLogger::divert(const GDValue& msg, unsigned nLine) {
    try {
        KeelLogger* pPrevious = KeelLoggerLogImpl::getKeelLoggerLogImpl().getPrevKeelLogger();
        if (pPrevious == nullptr) {
            return;
        }
        const ReferentialParameterizedMessage wrapped(kmsgLogFromLogger, msg);
        pPrevious->log(KeelLogger::kError, KeelLogger::kSeverityNormal, kUnitFileName, nLine,
                       wrapped);
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace kiv
