#include "weblogger/logwriters.h"

#include <algorithm>
#include <iterator>
#include <vector>

#include "weblogger/logfilter.h"
#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/assert.h"

namespace kiv {
namespace {

// How often one message waits for a replacement of the global writers before it gives up:
// each wait lasts one whole reconfiguration, so more than a few means the configuration is
// being replaced in a loop.
constexpr int kMaxReplacementWaits = 8;

}  // namespace

LogWriters::LogWriters()
    : m_GlobalWritersVersion(0), m_pRegistry(&logger_details::LogWritersMan::getLogWritersMan()) {
    // Written by every guard that enables a writer: a block of its own, made once, rather than
    // a few bytes that the allocator may put beside another thread's.
    m_vecEnabledWriters.reserve(kEnabledWritersRoom);
}

LogWriters::~LogWriters() = default;

void LogWriters::keepForEnabled(LogWritersList& list) {
    if (m_vecEnabledWriters.empty()) {
        return;
    }
    // Moved, not copied: no reference count changes.
    m_keptForEnabled.insert(m_keptForEnabled.end(), std::make_move_iterator(list.begin()),
                            std::make_move_iterator(list.end()));
    list.clear();
}

void LogWriters::keepForEnabled(Handle<LogWriter>& hWriter) {
    if (!m_vecEnabledWriters.empty()) {
        m_keptForEnabled.push_back(std::move(hWriter));
    }
}

void LogWriters::syncGlobalWriters() {
    m_guardAnswer.forget();
    keepForEnabled(m_LogWritersGlobal);
    AtomicEntity<int> version;
    m_pRegistry->getWriters(m_LogWritersGlobal, version);
    m_GlobalWritersVersion.store(version.get(), std::memory_order_relaxed);
}

inline void LogWriters::bringGlobalWritersUpToDate() {
    if (m_pRegistry->getVersion() != m_GlobalWritersVersion.load(std::memory_order_relaxed))
        [[unlikely]] {
        syncIfGlobalWritersStale();
    }
}

void LogWriters::syncIfGlobalWritersStale() {
    logger_details::LogWritersMan& registry = *m_pRegistry;
    const int nMine = m_GlobalWritersVersion.load(std::memory_order_relaxed);
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

void LogWriters::addLocalWriter(LogWriter* pWriter) {
    m_guardAnswer.forget();
    m_LogWritersLocal.emplace_back(pWriter);
}

void LogWriters::removeLocalWriter(LogWriter* pWriter) {
    m_guardAnswer.forget();
    const auto it =
        std::find_if(m_LogWritersLocal.begin(), m_LogWritersLocal.end(),
                     [pWriter](const Handle<LogWriter>& h) { return h.get() == pWriter; });
    if (it != m_LogWritersLocal.end()) {
        keepForEnabled(*it);
        m_LogWritersLocal.erase(it);
    }
}

void LogWriters::clearLocalWriters() {
    m_guardAnswer.forget();
    keepForEnabled(m_LogWritersLocal);
    m_LogWritersLocal.clear();
}

void LogWriters::getLocalWriters(LogWritersList& list) const {
    list = m_LogWritersLocal;
}

void LogWriters::appendLocalWriters(const LogWritersList& list) {
    m_guardAnswer.forget();
    m_LogWritersLocal.insert(m_LogWritersLocal.end(), list.begin(), list.end());
}

void LogWriters::setLocalWriters(const LogWritersList& list) {
    LogWritersList copy(list);
    m_guardAnswer.forget();
    keepForEnabled(m_LogWritersLocal);
    m_LogWritersLocal.swap(copy);
}

bool LogWriters::accepts(const LogWriter& writer, const LogSeverity& severity,
                         const LoggerState& state, const LogSource& source) {
    return writer.isEnabled() && writer.isLogEnabled(severity, state) &&
           source.getLogFilter().isLogEnabled(severity, &writer);
}

template <class OnAccepted>
bool LogWriters::forEachAcceptingWriter(const LogSeverity& severity, const LoggerState& state,
                                        OnAccepted&& onAccepted) {
    const LogSource* pSource = state.getCurSource();
    ZQ_ASSERT_TEXT(pSource != nullptr, "rLoggerState.getCurSource() != __null");
    const LogFilter* pCurFilter = pSource != nullptr ? &pSource->getLogFilter() : nullptr;
    ZQ_ASSERT_TEXT(pCurFilter != nullptr, "pCurFilter != __null");
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

class LogWriters::WrittenBy {
public:
    void add(const LogWriter* pWriter) noexcept {
        if (m_nCount < kMaxTracked) {
            m_arrWriters[m_nCount++] = pWriter;
        }
    }
    // Whether a writer of the same name and id took the message. The writers recorded must
    // still be alive: the redelivery keeps the list they came from.
    bool hasNamesake(const LogWriter& writer) const noexcept {
        for (std::size_t i = 0; i < m_nCount; ++i) {
            if (m_arrWriters[i]->getClassId() == writer.getClassId() &&
                m_arrWriters[i]->getName() == writer.getName()) {
                return true;
            }
        }
        return false;
    }

private:
    // More global writers than this are not seen in practice; beyond it a replacement may
    // receive a message its predecessor took.
    static constexpr std::size_t kMaxTracked = 16;
    const LogWriter* m_arrWriters[kMaxTracked];
    std::size_t m_nCount = 0;
};

void LogWriters::waitForReplacementAndSync() {
    // The configuration replaces the global writers under the registry's lock: passing
    // through it waits for a replacement in progress, so the copy holds the new writers.
    CriticalSection& monitor = m_pRegistry->getMonitor();
    monitor.acquire();
    monitor.release();
    syncGlobalWriters();
}

void LogWriters::releaseKeptForEnabled() noexcept {
    m_keptForEnabled.clear();
}

bool LogWriters::giveRememberedAnswer(const LogSeverity& severity, const LogSource& source,
                                      bool& bAny) noexcept {
    // A global list that moved on must be copied first, which only the walk does.
    if (m_pRegistry->getVersion() != m_GlobalWritersVersion.load(std::memory_order_relaxed) ||
        !m_guardAnswer.answers(source.getSerial(), severity,
                               logger_details::DispatchGeneration::current())) [[unlikely]] {
        return false;
    }
    clearEnabledWriters();
    if (!m_guardAnswer.giveTo(m_vecEnabledWriters)) [[unlikely]] {
        return false;
    }
    bAny = !m_vecEnabledWriters.empty();
    return true;
}

bool LogWriters::calcEnabledWriters(const LogSeverity& severity, const LoggerState& state) {
    const LogSource* pSource = state.getCurSource();
    bool bAny = false;
    if (pSource != nullptr && giveRememberedAnswer(severity, *pSource, bAny)) [[likely]] {
        return bAny;
    }
    bringGlobalWritersUpToDate();
    clearEnabledWriters();
    const std::uint64_t nSourceSerial = pSource != nullptr ? pSource->getSerial() : 0;
    // Read before the walk: a change that completes during it moves the count on, and the
    // answer kept below is then not given again.
    const std::uint64_t nGeneration = logger_details::DispatchGeneration::current();
    const auto collect = [this](const Handle<LogWriter>& hWriter) {
        m_vecEnabledWriters.push_back(hWriter.get());
    };
    // Meeting a retired writer means the writers are being replaced: wait for the new ones.
    bool bRetiredMet = forEachAcceptingWriter(severity, state, collect);
    for (int nAttempt = 0; bRetiredMet && nAttempt < kMaxReplacementWaits; ++nAttempt) {
        // Emptied first: the writers just found need not outlive the old copy.
        clearEnabledWriters();
        waitForReplacementAndSync();
        bRetiredMet = forEachAcceptingWriter(severity, state, collect);
    }
    if (pSource != nullptr && !bRetiredMet) {
        m_guardAnswer.keep(nSourceSerial, severity, nGeneration, m_vecEnabledWriters);
    }
    return !m_vecEnabledWriters.empty();
}

void LogWriters::finishAfterRefusal(std::size_t nRefused, const LogSeverity& severity,
                                    const GDValue& msg, const LoggerState& state,
                                    const FileLocation* pLocation) {
    WrittenBy written;
    for (std::size_t i = 0; i < nRefused; ++i) {
        written.add(m_vecEnabledWriters[i]);
    }
    for (std::size_t i = nRefused + 1; i < m_vecEnabledWriters.size(); ++i) {
        LogWriter* const pWriter = m_vecEnabledWriters[i];
        pWriter->logMessage(severity, msg, state, pLocation);
        if (!pWriter->refusedLastWrite()) {
            written.add(pWriter);
        }
    }
    redeliverToReplacements(severity, msg, state, pLocation, written);
    clearEnabledWriters();
}

void LogWriters::logMessage(const LogSeverity& severity, const GDValue& msg,
                            const LoggerState& state, const FileLocation* pLocation) {
    bringGlobalWritersUpToDate();
    bool bRefused = false;
    WrittenBy written;
    const bool bRetiredMet =
        forEachAcceptingWriter(severity, state, [&](const Handle<LogWriter>& hWriter) {
            hWriter->logMessage(severity, msg, state, pLocation);
            if (hWriter->refusedLastWrite()) {
                bRefused = true;
            } else {
                written.add(hWriter.get());
            }
        });
    if (bRefused || bRetiredMet) {
        redeliverToReplacements(severity, msg, state, pLocation, written);
    }
}

void LogWriters::redeliverToReplacements(const LogSeverity& severity, const GDValue& msg,
                                         const LoggerState& state, const FileLocation* pLocation,
                                         const WrittenBy& written) {
    const LogSource* pSource = state.getCurSource();
    if (pSource == nullptr) {
        return;
    }
    // Keeps alive the writers that written refers to, and those of every later round.
    std::vector<LogWritersList> vecKeptLists;
    // Grows with the writers that take the message in each round.
    WrittenBy took = written;
    // (The enabled writers are kept alive by m_keptForEnabled once the global copy changes.)
    vecKeptLists.push_back(m_LogWritersGlobal);
    // Every writer of an earlier list either wrote the message or refused it because it was
    // retired; only writers that were not in any of those lists may still receive it. A
    // replacement can itself be replaced before the message reaches it, hence the rounds.
    std::vector<const LogWriter*> vecAlreadyTried;
    for (int nAttempt = 0; nAttempt < kMaxReplacementWaits; ++nAttempt) {
        for (const Handle<LogWriter>& hWriter : m_LogWritersGlobal) {
            vecAlreadyTried.push_back(hWriter.get());
        }
        waitForReplacementAndSync();
        vecKeptLists.push_back(m_LogWritersGlobal);
        bool bAgain = false;
        for (const Handle<LogWriter>& hWriter : m_LogWritersGlobal) {
            if (std::find(vecAlreadyTried.begin(), vecAlreadyTried.end(), hWriter.get()) !=
                    vecAlreadyTried.end() ||
                took.hasNamesake(*hWriter)) {
                continue;
            }
            if (accepts(*hWriter, severity, state, *pSource)) {
                hWriter->logMessage(severity, msg, state, pLocation);
                if (hWriter->refusedLastWrite()) {
                    bAgain = true;
                } else {
                    took.add(hWriter.get());
                }
            } else {
                bAgain |= hWriter->isRetired();
            }
        }
        if (!bAgain) {
            return;
        }
    }
}

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

}  // namespace kiv
