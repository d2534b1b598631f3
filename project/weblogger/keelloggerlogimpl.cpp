#include "weblogger/keelloggerlogimpl.h"

#include <atomic>

#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/transcode.h"

namespace kiv {

KeelLoggerLogImpl::KeelLoggerLogImpl() {
    // The logger diverts messages logged from inside a log call to the logger we replaced.
    TmLogger::setBridge(this);
}

namespace {
// Deleted by the library's shutdown only when no other thread can be calling it.
std::atomic<KeelLoggerLogImpl*> g_pBridgeInstance{nullptr};
}  // namespace

KeelLoggerLogImpl& KeelLoggerLogImpl::getKeelLoggerLogImpl() {
    static KeelLoggerLogImpl* const s_pInstance = [] {
        auto* pInstance = new KeelLoggerLogImpl;
        g_pBridgeInstance.store(pInstance);
        return pInstance;
    }();
    return *s_pInstance;
}

void KeelLoggerLogImpl::destroyBridge() noexcept {
    KeelLoggerLogImpl* pInstance = g_pBridgeInstance.exchange(nullptr);
    if (pInstance == nullptr) {
        return;
    }
    if (KeelLogger::getKeelLogger() == pInstance) {
        // Installing a logger makes the current one its predecessor: clear the hook first, so
        // that the restored logger does not point back at the deleted bridge.
        KeelLogger* pPrevious = pInstance->getPrevKeelLogger();
        KeelLogger::setKeelLogger(nullptr);
        KeelLogger::setKeelLogger(pPrevious);
    }
    TmLogger::setBridge(nullptr);
    delete pInstance;
}

void KeelLoggerLogImpl::plugMeIn() {
    KeelLogger::setKeelLogger(&getKeelLoggerLogImpl());
}

std::uint64_t KeelLoggerLogImpl::importanceOf(int nSeverity) noexcept {
    static constexpr std::uint64_t kImportance[] = {32, 31, 16, 10, 5, 1, 1};
    return nSeverity >= 0 && nSeverity < 7 ? kImportance[nSeverity] : 31;
}

bool KeelLoggerLogImpl::pushLogsource(const String& name) {
    const LogSource* pSource = LogSourcesMan::getLogSourcesMan().findLogSource(name);
    if (pSource == nullptr) {
        return false;
    }
    TmLogger::getLogger().pushSource(*pSource);
    return true;
}

void KeelLoggerLogImpl::popLogsource() {
    TmLogger::getLogger().popSource();
}

void KeelLoggerLogImpl::log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile,
                            unsigned nLine, const wchar_t* pwszText) {
    log(nType, nSeverity, pwszFile, nLine, GDStringRef(pwszText));
}

void KeelLoggerLogImpl::log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile,
                            unsigned nLine, const GDValue& message) {
    const LogSeverity severity(static_cast<LogSeverity::MsgType>(nType), importanceOf(nSeverity));
    const FileLocation location(pwszFile, nLine);
    TmLogger::getLogger().logMessage(severity, message, nullptr, &location);
}

void KeelLoggerLogImpl::logException(const Exception& exception,
                                     Exception::ExceptionSeverity nSeverity) {
    const LogSeverity severity(LogSeverity::SV_ERROR, importanceOf(nSeverity));
    const String strFile = fromUtf8(exception.getFile());
    const FileLocation location(strFile.c_str(), exception.getLine());
    TmLogger::getLogger().logException(exception, &severity, &location, nullptr);
}

void KeelLoggerLogImpl::getCurrentLogSourceNames(std::vector<String>& names) const {
    TmLogger::getLogger().getCurrentLogSourceNames(names);
}

bool KeelLoggerLogImpl::isInLogCall() const {
    return TmLogger::getLogger().isInLogCall();
}

}  // namespace kiv
