#include "weblogger/logwriter.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <mutex>

#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/assert.h"
#include "zq/webutil/message.h"

namespace kiv {

const String LogWritersFactory::strDefaultFmtName(L"Default");

namespace {
const String kAttrName(L"name");
const String kAttrWriterClassId(L"writerClassId");
const String kAttrFmtName(L"fmtName");
const String kElemFormat(L"Format");
}  // namespace

// ---------------------------------------------------------------------------------------------
// LogWriter

LogWriter::LogWriter(const String& name, short id, WriterType type,
                     const Handle<const WriterFilter>& filter)
    : m_tCs(type != WT_SINGLE_THREADED, CriticalSection::kSpinBeforeWaiting, "LogWriter"),
      m_bIsEnabled(true),
      m_id(id),
      m_hWriterFilter(filter) {
    ZQ_ASSERT(id < 10);
    m_strName = name;
    logger_details::LogWritersMan::armShutdown();
    if (type == WT_GLOBAL) {
        logger_details::LogWritersMan::getLogWritersMan().addLogWriter(this);
    }
}

LogWriter::~LogWriter() {
    if (m_bLiveListed) {
        logger_details::LogWritersMan::unlinkLiveWriter(this);
    }
}

void LogWriter::listAsLive() const noexcept {
    // Not from the constructor: the list would hand out a writer whose derived part is still
    // being built. Its first write comes after construction and initialisation are complete.
    LogWriter* pSelf = const_cast<LogWriter*>(this);
    logger_details::LogWritersMan::linkLiveWriter(pSelf);
    m_bLiveListed = true;
}

void LogWriter::close() noexcept {
    flush();
    setIsEnabled(false);
    // Wait out a write in progress: none starts after this returns.
    m_tCs.acquire();
    m_tCs.release();
}

namespace {
thread_local bool t_bWriteRefused = false;
}  // namespace

void LogWriter::retire() noexcept {
    m_bRetired.store(true, std::memory_order_release);
    setIsEnabled(false);
    m_tCs.acquire();
    m_tCs.release();
}

bool LogWriter::refuseWrite() const noexcept {
    // Only a replaced writer's message is handed on; a writer that disabled itself (its file
    // could not be opened) simply writes nothing, as the configuration asked.
    if (isRetired()) {
        t_bWriteRefused = true;
    }
    return false;
}

bool LogWriter::takeWriteRefusal() noexcept {
    const bool bRefused = t_bWriteRefused;
    t_bWriteRefused = false;
    return bRefused;
}

bool LogWriter::isLogEnabled(const LogSeverity& severity,
                             const LoggerState& rLoggerState) const noexcept {
    const WriterFilter* pFilter = m_hWriterFilter.get();
    if (pFilter == nullptr) {
        return true;
    }
    ZQ_ASSERT_TEXT(rLoggerState.getCurSource() != nullptr, "rLoggerState.getCurSource() != __null");
    const LogSource* pSource = rLoggerState.getCurSource();
    // Without a source there is nothing to decide by: the filter's default answers.
    return pSource != nullptr ? pFilter->isLogEnabled(severity, *pSource)
                              : pFilter->isEnabledByDefault();
}

int LogFilter::classIdOf(const LogWriter& writer) noexcept {
    return writer.getClassId();
}

unsigned LogFilter::writerIndex(const LogWriter* pWriter) noexcept {
    const int nId = pWriter->getClassId();
    return isValidWriterId(nId) ? static_cast<unsigned>(nId) : kMaxWriterIds;
}

// ---------------------------------------------------------------------------------------------
// LogWritersFactory

const XmlElement* LogWritersFactory::findFormat(const ConfigChain& chain, const String& fmtName) {
    for (const XmlElement* pElement : chain) {
        if (pElement == nullptr) {
            continue;
        }
        for (const XmlNode* pNode = pElement->getFirstChild(); pNode != nullptr;
             pNode = pNode->getNextSibling()) {
            const XmlElement* pCandidate = pNode->asElement();
            if (pCandidate != nullptr && pCandidate->getName().equals(kElemFormat) &&
                pCandidate->unchecked_getAttributeValue(kAttrName.view())
                        .compareNoCase(fmtName.view()) == 0) {
                return pCandidate;
            }
        }
    }
    return nullptr;
}

Handle<LogWriter> LogWritersFactory::createWriter(WriterConstructor pfnConstruct,
                                                  const XmlNode* pConfig, const ConfigChain& chain,
                                                  LogWriter::WriterType type,
                                                  const Handle<const WriterFilter>& filter) {
    ZQ_ASSERT_TEXT(pConfig != nullptr, "pConfig != 0");
    if (pConfig == nullptr) {
        return Handle<LogWriter>();
    }
    ZQ_ASSERT(pConfig->getType() == XmlNode::kTypeElement);
    const XmlElement* pElement = pConfig->asElement();
    if (pElement == nullptr) {
        return Handle<LogWriter>();
    }

    const String strName = pElement->getAttributeValue(kAttrName.view(), true);
    const String strClassId = pElement->getAttributeValue(kAttrWriterClassId.view(), true);
    // Base-10 conversion without error checks: text that is not a number reads as 0.
    const std::uint32_t iClassId =
        static_cast<std::uint32_t>(std::wcstol(strClassId.c_str(), nullptr, 10));
    // The unsigned comparison also rejects negative ids, which wrap to large values.
    ZQ_ASSERT_TEXT(iClassId < 10, "iClassId >=0 && iClassId<10");

    String strFmtName = pElement->getAttributeValue(kAttrFmtName.view());
    if (strFmtName.empty()) {
        strFmtName = strDefaultFmtName;
    }
    const XmlElement* pFormat = findFormat(chain, strFmtName);
    if (pFormat == nullptr) {
        ZQ_THROW(LogFormatNotFound(strFmtName));
    }

    Handle<LogWriter> hWriter(pfnConstruct(strName, static_cast<short>(iClassId), type, filter));
    if (!hWriter->initialize(pElement, pFormat)) {
        return Handle<LogWriter>();
    }
    return hWriter;
}

// ---------------------------------------------------------------------------------------------
// LogWritersMan

namespace logger_details {
namespace {
std::atomic<int> nLogWriterManState{0};
// The registry is deleted by the library's shutdown, not by the exit-time destructor list: at
// exit other threads may still hold loggers, and the shutdown keeps it for them (see
// internal/libraryshutdown.h).
std::atomic<LogWritersMan*> g_pLogWritersManInstance{nullptr};

// Every live writer, linked through m_pPrevLive/m_pNextLive. Constant-initialised and never
// destroyed, so a writer released after the library's statics are gone can still unlink.
std::mutex g_liveWritersMutex;
LogWriter* g_pLiveWriters = nullptr;
std::atomic<bool> g_bWritersClosed{false};

std::atomic<LogWritersMan::ShutdownRoutine> g_pfnShutdown{nullptr};

// Its destructor starts the library's shutdown. Made when logging is first used, after every
// object built at load, so the exit-time destructor list reaches it before any of them.
struct ShutdownSentinel {
    ~ShutdownSentinel() {
        if (const LogWritersMan::ShutdownRoutine pfnShutdown = g_pfnShutdown.load()) {
            pfnShutdown();
        }
    }
};
}  // namespace

LogWritersMan& LogWritersMan::getLogWritersMan() {
    static LogWritersMan* const delLogWritersMan_ = [] {
        LogWritersMan* pRegistry = new LogWritersMan;
        g_pLogWritersManInstance.store(pRegistry);
        return pRegistry;
    }();
    ZQ_ASSERT(nLogWriterManState == 1);
    return *delLogWritersMan_;
}

void LogWritersMan::destroyLogWritersMan() noexcept {
    delete g_pLogWritersManInstance.exchange(nullptr);
}

void LogWritersMan::setShutdownRoutine(ShutdownRoutine pfnShutdown) noexcept {
    g_pfnShutdown.store(pfnShutdown);
}

void LogWritersMan::armShutdown() noexcept {
    // The text formatter renders reports during the shutdown: made first, it is destroyed
    // after the sentinel.
    static const ShutdownSentinel s_sentinel =
        (static_cast<void>(WebTextMessageFormatter::getInstance()), ShutdownSentinel());
    static_cast<void>(s_sentinel);
}

void LogWritersMan::linkLiveWriter(LogWriter* pWriter) noexcept {
    const std::lock_guard<std::mutex> lock(g_liveWritersMutex);
    pWriter->m_pPrevLive = nullptr;
    pWriter->m_pNextLive = g_pLiveWriters;
    if (g_pLiveWriters != nullptr) {
        g_pLiveWriters->m_pPrevLive = pWriter;
    }
    g_pLiveWriters = pWriter;
}

void LogWritersMan::unlinkLiveWriter(LogWriter* pWriter) noexcept {
    const std::lock_guard<std::mutex> lock(g_liveWritersMutex);
    if (pWriter->m_pPrevLive != nullptr) {
        pWriter->m_pPrevLive->m_pNextLive = pWriter->m_pNextLive;
    } else if (g_pLiveWriters == pWriter) {
        g_pLiveWriters = pWriter->m_pNextLive;
    }
    if (pWriter->m_pNextLive != nullptr) {
        pWriter->m_pNextLive->m_pPrevLive = pWriter->m_pPrevLive;
    }
    pWriter->m_pPrevLive = pWriter->m_pNextLive = nullptr;
}

void LogWritersMan::lockLiveWritersList() noexcept {
    g_liveWritersMutex.lock();
}

void LogWritersMan::unlockLiveWritersList() noexcept {
    g_liveWritersMutex.unlock();
}

void LogWritersMan::collectLiveWriters(std::vector<Handle<LogWriter>>& out, bool bWithoutLockToo) {
    const std::lock_guard<std::mutex> lock(g_liveWritersMutex);
    for (LogWriter* pWriter = g_pLiveWriters; pWriter != nullptr; pWriter = pWriter->m_pNextLive) {
        // A writer no handle holds is being deleted (or lives on its owner's stack, outside
        // handles): not ours to touch.
        if ((bWithoutLockToo || pWriter->m_tCs.hasLock()) && pWriter->tryAddRef()) {
            out.emplace_back(pWriter);
            pWriter->releaseRef();
        }
    }
}

void LogWritersMan::flushAll() noexcept {
    if (g_bWritersClosed.load()) {
        return;
    }
    try {
        std::vector<Handle<LogWriter>> vecWriters;
        collectLiveWriters(vecWriters, false);
        for (const Handle<LogWriter>& hWriter : vecWriters) {
            hWriter->flush();
        }
    } catch (...) {
        // Out of memory for the list: nothing was flushed, the writers still hold everything.
    }
}

void LogWritersMan::closeAll(bool bSingleThreadedToo) noexcept {
    g_bWritersClosed.store(true);
    try {
        std::vector<Handle<LogWriter>> vecWriters;
        collectLiveWriters(vecWriters, bSingleThreadedToo);
        for (const Handle<LogWriter>& hWriter : vecWriters) {
            hWriter->close();
        }
    } catch (...) {
        // Out of memory for the list: the writers' destructors still close what they hold.
    }
}

namespace {
// Built at library load, before any writer unit registers its factory or any thread logs.
LogWritersMan* const g_pLogWritersMan = &LogWritersMan::getLogWritersMan();
}  // namespace

int LogWritersMan::getState() noexcept {
    return nLogWriterManState.load();
}

LogWritersMan::LogWritersMan()
    : m_monitor(CriticalSection::kAllowRecursion, "LogWritersMan"), m_Version(0) {
    ZQ_ASSERT(nLogWriterManState == 0);
    nLogWriterManState = 1;
}

LogWritersMan::~LogWritersMan() {
    ZQ_ASSERT(nLogWriterManState == 1);
    nLogWriterManState = 2;
    m_LogWritersFactoryMap.clear();
    m_LogWritersList.clear();
}

void LogWritersMan::addLogWritersFactory(const LogWritersFactory* pFactory) {
    if (pFactory == nullptr) {
        return;
    }
    Handle<const LogWritersFactory> hFactory(pFactory);
    LockGuard<CriticalSection> lock(m_monitor);
    m_LogWritersFactoryMap[pFactory->getName()] = std::move(hFactory);
}

Handle<const LogWritersFactory> LogWritersMan::getLogWritersFactory(const String& className) {
    LockGuard<CriticalSection> lock(m_monitor);
    const auto it = m_LogWritersFactoryMap.find(className);
    return it != m_LogWritersFactoryMap.end() ? it->second : Handle<const LogWritersFactory>();
}

void LogWritersMan::removeLogWritersFactory(const String& className) {
    Handle<const LogWritersFactory> hReleasedOutsideLock;
    LockGuard<CriticalSection> lock(m_monitor);
    const auto it = m_LogWritersFactoryMap.find(className);
    if (it != m_LogWritersFactoryMap.end()) {
        hReleasedOutsideLock = std::move(it->second);
        m_LogWritersFactoryMap.erase(it);
    }
}

void LogWritersMan::addLogWriter(LogWriter* pWriter) {
    LockGuard<CriticalSection> lock(m_monitor);
    m_LogWritersList.emplace_back(pWriter);
}

void LogWritersMan::removeLogWriter(LogWriter* pWriter) {
    LockGuard<CriticalSection> lock(m_monitor);
    m_LogWritersList.erase(
        std::remove_if(m_LogWritersList.begin(), m_LogWritersList.end(),
                       [pWriter](const Handle<LogWriter>& h) { return h.get() == pWriter; }),
        m_LogWritersList.end());
}

void LogWritersMan::clearWriters() {
    LockGuard<CriticalSection> lock(m_monitor);
    m_LogWritersList.clear();
}

void LogWritersMan::getWriters(std::vector<Handle<LogWriter>>& out, AtomicEntity<int>& version) {
    LockGuard<CriticalSection> lock(m_monitor);
    out = m_LogWritersList;
    version.set(m_Version.get());
}

}  // namespace logger_details
}  // namespace kiv
