#include "weblogger/internal/ringownership.h"

#include <mutex>
#include <vector>

#include "weblogger/internal/filelogwriter.h"
#include "weblogger/loggermessages.h"

namespace kiv {

namespace {

// Writers that hold a ring, linked through m_pNextRingOwner. Both are constant-initialised and
// need no destruction, so a writer that outlives the library's other statics can still leave.
std::mutex g_ringTableMutex;
FileLogWriter* g_pRingOwners = nullptr;

// The writers a reconfiguration on this thread is about to replace, or null.
thread_local const std::vector<Handle<LogWriter>>* t_pReplacedWriters = nullptr;

}  // namespace

namespace logger_details {

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

}  // namespace logger_details

FileLogWriter::RingHandOver::RingHandOver(
    const std::vector<Handle<LogWriter>>& vecReplaced) noexcept
    : m_pPrevious(t_pReplacedWriters) {
    t_pReplacedWriters = &vecReplaced;
}

FileLogWriter::RingHandOver::~RingHandOver() {
    t_pReplacedWriters = m_pPrevious;
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
            if (logger_details::isBeingReplaced(pOwner)) {
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

}  // namespace kiv
