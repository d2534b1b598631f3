#include "zq/webkeel/keellogger.h"

#include <atomic>

namespace kiv {
namespace {
std::atomic<KeelLogger*> g_pKeelLogger{nullptr};
}  // namespace

KeelLogger* KeelLogger::setKeelLogger(KeelLogger* pLogger) noexcept {
    KeelLogger* pPrevious = g_pKeelLogger.load(std::memory_order_acquire);
    if (pLogger == pPrevious) {
        return pLogger != nullptr ? pLogger->m_pPrevKeelLogger : nullptr;
    }
    if (pLogger != nullptr) {
        pLogger->m_pPrevKeelLogger = pPrevious;
    }
    g_pKeelLogger.store(pLogger, std::memory_order_release);
    return pPrevious;
}

KeelLogger* KeelLogger::getKeelLogger() noexcept {
    return g_pKeelLogger.load(std::memory_order_acquire);
}

}  // namespace kiv
