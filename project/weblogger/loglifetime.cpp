#include "weblogger/loglifetime.h"

#include "weblogger/internal/ownfailures.h"
#include "zq/webkeel/clock.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

std::uint64_t lowMillis() noexcept {
    return clock::monotonicMillis() & 0xFFFFFFFFu;
}

}  // namespace

const GDString LogLifeTime::ktFormat(L"Function %1 took %2 milliseconds.");
const LogSeverity LogLifeTime::ktSeverity(LogSeverity::SV_TRACE, 32);

TmLoggerPushSource::TmLoggerPushSource(TmLogger* pLogger, const LogSource* pSource)
    : m_pLogger(nullptr) {
    if (pLogger == nullptr || pSource == nullptr) {
        return;
    }
    logger_details::swallowOwnFailures([&] {
        pLogger->pushSource(*pSource);
        m_pLogger = pLogger;
    });
}

TmLoggerPushSource::~TmLoggerPushSource() {
    if (m_pLogger != nullptr) {
        m_pLogger->popSource();
    }
}

LogLifeTime::LogLifeTime(const wchar_t* pwszFile, unsigned int nLine, const LogSourceHandle& source,
                         const String& fnName, std::size_t nThresholdMillis)
    : m_wstrFile(pwszFile),
      m_iLineNumber(nLine),
      m_sFnName(fnName),
      m_hLogSource(source),
      m_nThresholdMillis(nThresholdMillis),
      m_nStartMillis(lowMillis()) {}

LogLifeTime::~LogLifeTime() {
    const std::uint64_t nDuration = lowMillis() - m_nStartMillis;
    if (nDuration < m_nThresholdMillis) {
        return;
    }
    logger_details::swallowOwnFailures([&] {
        TmLogger& logger = TmLogger::getLogger();
        const TmLoggerPushSource pushed(&logger, m_hLogSource.get());
        if (logger.calcEnabledWriters(ktSeverity)) {
            const FileLocation location(m_wstrFile, m_iLineNumber);
            logger.logToEnabledWriters2(ktSeverity, ktFormat, GDString(m_sFnName),
                                        GDUInteger64(nDuration), &location);
        }
    });
}

}  // namespace kiv
