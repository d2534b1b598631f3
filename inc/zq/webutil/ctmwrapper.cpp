#include "zq/webutil/ctmwrapper.h"

#include <atomic>
#include <cstdlib>

#include "zq/webkeel/dynamicloader.h"

namespace kiv::performance {

void* CTMWrapper::s_pCTMLib = nullptr;

namespace {

std::atomic<bool> g_bInitialized{false};

using InitModelFn = int (*)();

}  // namespace

bool CTMWrapper::initialize(const char* pszPath, NString* pError) {
    if (pszPath == nullptr || *pszPath == '\0') {
        pszPath = std::getenv(kLibraryPathVariable);
    }
    if (pszPath == nullptr || *pszPath == '\0') {
        if (pError != nullptr) {
            *pError = NString("no client library: no path given and KIV_CTM_LIBRARY is not set");
        }
        return false;
    }
    void* hLib = DynamicLoader::loadLibrary(pszPath, pError);
    if (hLib == nullptr) {
        return false;
    }
    const auto pfnInit =
        reinterpret_cast<InitModelFn>(DynamicLoader::loadSymbol(hLib, "qamMeasInitModel", pError));
    if (pfnInit == nullptr) {
        DynamicLoader::unloadLibrary(hLib);
        return false;
    }
    if (pfnInit() == 0) {
        if (pError != nullptr) {
            *pError = NString("the client library refused to initialise");
        }
        DynamicLoader::unloadLibrary(hLib);
        return false;
    }
    s_pCTMLib = hLib;
    g_bInitialized.store(true, std::memory_order_release);
    return true;
}

bool CTMWrapper::isInitialized() noexcept {
    return g_bInitialized.load(std::memory_order_acquire);
}

void CTMWrapper::disable() noexcept {
    g_bInitialized.store(false, std::memory_order_release);
}

}  // namespace kiv::performance
