#include "weblogger/executioncontext.h"

#include <string_view>

#include "weblogger/commonseverities.h"
#include "weblogger/eciddeferredpropertyvalue.h"
#include "weblogger/internal/executioncontextimpl.h"
#include "weblogger/internal/ownfailures.h"
#include "weblogger/loggermessages.h"
#include "weblogger/loglifetime.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/dynamicloader.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/ctmwrapper.h"
#include "zq/webutil/message.h"

namespace kiv {

namespace {

using logger_details::ExecutionContextImpl;
using logger_details::swallowOwnFailures;
using performance::CTMWrapper;

// The calling thread's cache record while it exists: every line that shows the ECID reads it,
// and a plain thread_local load is far cheaper than the thread-specific lookup. Trivially
// destructible, so it is still there while a thread's records are destroyed.
thread_local const ExecutionContextImpl::CachedThreadCtx* t_pThreadCtx = nullptr;

const LogSourceHandle lsCtmInit(String(L"kiv.ctm.init"));
// The misspelt name is the one operators filter on.
const LogSourceHandle lsCtmUnwrap(String(L"kiv.ctm.conext.unwrap"));

// The label by which the client is asked for its current context.
constexpr char kQueryLabel[] = "QamContextQuery";

// Widens the client's text by the runtime's multibyte rules (the ids are plain ASCII).
void appendWidened(String& strOut, const char* pszText) {
    if (pszText != nullptr) {
        strOut.append(fromUtf8(std::string_view(pszText)));
    }
}

// Logs one of the client's refusals under its own source; a failure to log is dropped.
void logRefusal(const LogSeverity& severity, const GDValue& message) {
    swallowOwnFailures(
        [&] { TmLogger::getLogger().logMessage(severity, message, lsCtmUnwrap.get()); });
}

// A context the client handed out, released however the operation ends.
class ClientContext {
public:
    ClientContext(const ExecutionContextImpl& impl, void* pContext) noexcept
        : m_impl(impl), m_pContext(pContext) {}
    ~ClientContext() { m_impl.freeClientMemory(m_pContext); }
    ClientContext(const ClientContext&) = delete;
    ClientContext& operator=(const ClientContext&) = delete;
    void* get() const noexcept { return m_pContext; }

private:
    const ExecutionContextImpl& m_impl;
    void* m_pContext;
};

}  // namespace

namespace logger_details {

ExecutionContextImpl& ExecutionContextImpl::instance() {
    static ExecutionContextImpl s_instance;
    return s_instance;
}

ExecutionContextImpl::ExecutionContextImpl()
    : m_CachedThreadCtx(&ExecutionContextImpl::destroyThreadCtx) {}

ExecutionContextImpl::CachedThreadCtx::CachedThreadCtx() noexcept {
    t_pThreadCtx = this;
}

ExecutionContextImpl::CachedThreadCtx::~CachedThreadCtx() {
    if (t_pThreadCtx == this) {
        t_pThreadCtx = nullptr;
    }
}

void ExecutionContextImpl::destroyThreadCtx(CachedThreadCtx* pCtx) {
    delete pCtx;
}

bool ExecutionContextImpl::isEnabled() const noexcept {
    return isFlagSet() && CTMWrapper::isInitialized();
}

bool ExecutionContextImpl::canFree() const noexcept {
    FreeFn* ppfnFree = fn(qamysLocalFree);
    return ppfnFree != nullptr && *ppfnFree != nullptr;
}

bool ExecutionContextImpl::freeClientMemory(void* p) const noexcept {
    FreeFn* ppfnFree = fn(qamysLocalFree);
    if (ppfnFree == nullptr || *ppfnFree == nullptr) {
        return false;
    }
    if (p != nullptr) {
        (*ppfnFree)(p);
    }
    return true;
}

void ExecutionContextImpl::updateThreadECID(void* pContext) {
    CachedThreadCtx& ctx = threadCtx();
    ctx.bWrappedCtxInit = false;
    const ContextGetIdFn pfnGetECID = fn(qamContextGetECID);
    const ContextGetIdFn pfnGetRID = fn(qamContextGetRID);
    if (!isEnabled() || pContext == nullptr || pfnGetECID == nullptr || pfnGetRID == nullptr) {
        ctx.currentECID = String();
        ctx.currentECIDUtf8 = NString();
        return;
    }
    String strECID;
    appendWidened(strECID, pfnGetECID(pContext));
    strECID.append(L',');
    appendWidened(strECID, pfnGetRID(pContext));
    NString strECIDUtf8 = toUtf8(strECID.view());
    ctx.currentECID = std::move(strECID);
    ctx.currentECIDUtf8 = std::move(strECIDUtf8);
}

template <class Fn>
static void lookUp(void* hLib, const char* pszName, std::atomic<Fn>& pfn) {
    pfn.store(reinterpret_cast<Fn>(DynamicLoader::loadSymbol(hLib, pszName, nullptr)),
              std::memory_order_relaxed);
}

void ExecutionContextImpl::lookUpFunctions(void* hLib) {
    lookUp(hLib, "qamysLocalFree", qamysLocalFree);
    lookUp(hLib, "qamContextGet", qamContextGet);
    lookUp(hLib, "qamContextWrap", qamContextWrap);
    lookUp(hLib, "qamContextUnwrap", qamContextUnwrap);
    lookUp(hLib, "qamContextGetECID", qamContextGetECID);
    lookUp(hLib, "qamContextGetRID", qamContextGetRID);
    lookUp(hLib, "qamContextClear", qamContextClear);
    lookUp(hLib, "qamContextCreate", qamContextCreate);
    lookUp(hLib, "qamMeasInitModel", qamMeasInitModel);
    lookUp(hLib, "qamContextStashCurrent", qamContextStashCurrent);
    lookUp(hLib, "qamContextStash", qamContextStash);
    lookUp(hLib, "qamContextFind", qamContextFind);
    lookUp(hLib, "qamReferenceExpireCheck", qamReferenceExpireCheck);
}

void ExecutionContextImpl::loadConfig(const ConfigReader& reader) {
    TmLogger& logger = TmLogger::getLogger();
    const TmLoggerPushSource pushed(&logger, lsCtmInit.get());
    logger.logMessage(kSevInfo, kmsgExecutionContextInitCalled);
    if (!reader.getBoolean(L"ExecutionContext/Enable", true)) {
        // A reload that switches tracking off must be obeyed at once, not at the next restart.
        setEnabled(false);
        // An error on purpose: losing the ids of every line is worth an operator's attention.
        logger.logMessage(kSevError, kmsgEcidTrackingDisabledByConfig);
        return;
    }
    if (!CTMWrapper::isInitialized()) {
        logger.logMessage(kSevTraceFine, kmsgCtmNotInitialized);
        return;
    }
    lookUpFunctions(CTMWrapper::s_pCTMLib);
    setEnabled(true);
}

namespace {

// Made at library load: the thread slot, and the configuration when the host has published
// one before loading us.
const bool g_bLoadedAtLibraryLoad = [] {
    swallowOwnFailures([] {
        ExecutionContextImpl& impl = ExecutionContextImpl::instance();
        if (const ConfigReader* pReader = ConfigReader::getGlobal()) {
            impl.loadConfig(*pReader);
        }
    });
    return true;
}();

}  // namespace

}  // namespace logger_details

namespace logger {

void ExecutionContext::enableIfCTMAvailaible() {
    ExecutionContextImpl& impl = ExecutionContextImpl::instance();
    if (!impl.isFlagSet()) {
        impl.setEnabled(CTMWrapper::isInitialized());
    }
}

void ExecutionContext::disable() {
    ExecutionContextImpl::instance().setEnabled(false);
    CTMWrapper::disable();
}

const String& ExecutionContext::getCurrentECID() {
    static const String s_strEmpty;
    const String* pECID = &s_strEmpty;
    swallowOwnFailures([&] { pECID = &ExecutionContextImpl::instance().threadCtx().currentECID; });
    return *pECID;
}

NString ExecutionContext::wrap(bool bForce) {
    NString strResult;
    swallowOwnFailures([&] {
        ExecutionContextImpl& impl = ExecutionContextImpl::instance();
        if (!impl.isEnabled()) {
            return;
        }
        ExecutionContextImpl::CachedThreadCtx& ctx = impl.threadCtx();
        if (ctx.bWrappedCtxInit && !bForce) {
            strResult = ctx.wrappedCtx;
            return;
        }
        const auto pfnWrap = impl.fn(impl.qamContextWrap);
        if (pfnWrap == nullptr || !impl.canFree()) {
            return;
        }
        char* pszWrapped = pfnWrap();
        if (pszWrapped == nullptr) {
            return;
        }
        try {
            ctx.wrappedCtx = NString(pszWrapped);
        } catch (...) {
            impl.freeClientMemory(pszWrapped);
            throw;
        }
        impl.freeClientMemory(pszWrapped);
        ctx.bWrappedCtxInit = true;
        strResult = ctx.wrappedCtx;
    });
    return strResult;
}

bool ExecutionContext::unwrap(const NString& strWrapped, bool bFlag) {
    bool bResult = false;
    swallowOwnFailures([&] {
        ExecutionContextImpl& impl = ExecutionContextImpl::instance();
        const auto pfnUnwrap = impl.fn(impl.qamContextUnwrap);
        if (!impl.isEnabled() || strWrapped.empty() || pfnUnwrap == nullptr || !impl.canFree()) {
            return;
        }
        const ClientContext context(impl, pfnUnwrap(strWrapped.c_str(), bFlag));
        if (context.get() == nullptr) {
            const GDString widened(fromUtf8(strWrapped.view()));
            logRefusal(kSevError, ReferentialParameterizedMessage(kmsgCtmUnwrapFailed, widened));
            return;
        }
        impl.updateThreadECID(context.get());
        bResult = true;
    });
    return bResult;
}

namespace {

// Asks the client for a context (a new one when pszLabel is null, the thread's current one
// otherwise) and makes its ids the thread's. When the client has none, the thread's ids are
// forgotten only if bForgetWhenNone: a new context that failed leaves no stale id behind,
// while a query that found nothing changes nothing.
bool takeClientContext(const char* pszLabel, bool bForgetWhenNone) {
    bool bResult = false;
    swallowOwnFailures([&] {
        ExecutionContextImpl& impl = ExecutionContextImpl::instance();
        const auto pfnGet = impl.fn(impl.qamContextGet);
        if (!impl.isEnabled() || pfnGet == nullptr || !impl.canFree()) {
            return;
        }
        const ClientContext context(impl, pfnGet(pszLabel));
        if (context.get() == nullptr && !bForgetWhenNone) {
            return;
        }
        impl.updateThreadECID(context.get());
        bResult = context.get() != nullptr;
    });
    return bResult;
}

}  // namespace

bool ExecutionContext::createContext() {
    return takeClientContext(nullptr, true);
}

bool ExecutionContext::getContext() {
    return takeClientContext(kQueryLabel, false);
}

bool ExecutionContext::clearContext() {
    ExecutionContextImpl& impl = ExecutionContextImpl::instance();
    const auto pfnClear = impl.fn(impl.qamContextClear);
    return impl.isEnabled() && pfnClear != nullptr && pfnClear() != 0;
}

bool ExecutionContext::stash(void* pReference) {
    ExecutionContextImpl& impl = ExecutionContextImpl::instance();
    const auto pfnStash = impl.fn(impl.qamContextStash);
    return impl.isEnabled() && pfnStash != nullptr && pfnStash(pReference) != 0;
}

bool ExecutionContext::restore(void* pReference) {
    bool bResult = false;
    swallowOwnFailures([&] {
        ExecutionContextImpl& impl = ExecutionContextImpl::instance();
        const auto pfnFind = impl.fn(impl.qamContextFind);
        if (!impl.isEnabled() || pReference == nullptr || pfnFind == nullptr || !impl.canFree()) {
            return;
        }
        const ClientContext context(impl, pfnFind(pReference));
        if (context.get() == nullptr) {
            logRefusal(kSevErrorMinor, kmsgCtmRestoreFailed);
            return;
        }
        impl.updateThreadECID(context.get());
        bResult = true;
    });
    return bResult;
}

void ExecutionContext::periodicCleanup(unsigned nValue) {
    ExecutionContextImpl& impl = ExecutionContextImpl::instance();
    const auto pfnExpire = impl.fn(impl.qamReferenceExpireCheck);
    if (impl.isEnabled() && pfnExpire != nullptr) {
        pfnExpire(nValue);
    }
}

void ExecutionContext::reloadConfig(const ConfigReader& reader) {
    swallowOwnFailures([&] { ExecutionContextImpl::instance().loadConfig(reader); });
}

// =============================================================================================
// ExecutionContextGuard

bool ExecutionContextGuard::stashCurrentCtx() {
    ExecutionContextImpl& impl = ExecutionContextImpl::instance();
    const auto pfnStashCurrent = impl.fn(impl.qamContextStashCurrent);
    if (!impl.isEnabled() || pfnStashCurrent == nullptr) {
        m_ActionAtDestruct = kNoAction;
        return false;
    }
    // Without a context to put back, the block's own context is cleared at its end.
    m_ActionAtDestruct = pfnStashCurrent(this) != 0 ? kRestoreCtx : kClearCtx;
    return true;
}

void ExecutionContextGuard::initCreateNew() {
    stashCurrentCtx();
    if (ExecutionContextImpl::instance().isEnabled() && !ExecutionContext::createContext()) {
        m_ActionAtDestruct = kNoAction;
    }
}

void ExecutionContextGuard::initCreateNewIfNotExists() {
    if (ExecutionContext::getContext()) {
        m_ActionAtDestruct = kNoAction;
        return;
    }
    m_ActionAtDestruct = ExecutionContext::createContext() ? kClearCtx : kNoAction;
}

void ExecutionContextGuard::initRestore(void* pReference) {
    stashCurrentCtx();
    if (ExecutionContextImpl::instance().isEnabled() && !ExecutionContext::restore(pReference)) {
        m_ActionAtDestruct = kNoAction;
    }
}

void ExecutionContextGuard::initUnwrap(const NString& strWrapped) {
    stashCurrentCtx();
    if (ExecutionContextImpl::instance().isEnabled() &&
        !ExecutionContext::unwrap(strWrapped, false)) {
        m_ActionAtDestruct = kNoAction;
    }
}

ExecutionContextGuard::~ExecutionContextGuard() {
    switch (m_ActionAtDestruct) {
        case kClearCtx:
            ExecutionContext::clearContext();
            break;
        case kRestoreCtx:
            if (!ExecutionContext::restore(this)) {
                ExecutionContext::clearContext();
            }
            break;
        case kNoAction:
            break;
    }
}

}  // namespace logger
}  // namespace kiv

namespace kiv::logger_details {

const String& currentECIDForLog() {
    if (const ExecutionContextImpl::CachedThreadCtx* pCtx = t_pThreadCtx) [[likely]] {
        return pCtx->currentECID;
    }
    return logger::ExecutionContext::getCurrentECID();
}

std::string_view currentECIDUtf8ForLog() {
    if (const ExecutionContextImpl::CachedThreadCtx* pCtx = t_pThreadCtx) [[likely]] {
        return pCtx->currentECIDUtf8.view();
    }
    // The record is made by the first look-up; until then the thread has no context.
    logger::ExecutionContext::getCurrentECID();
    if (const ExecutionContextImpl::CachedThreadCtx* pCtx = t_pThreadCtx) {
        return pCtx->currentECIDUtf8.view();
    }
    return {};
}

}  // namespace kiv::logger_details
