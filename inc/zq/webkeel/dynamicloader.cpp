#include "zq/webkeel/dynamicloader.h"

#include <dlfcn.h>

namespace kiv {

namespace {

void setError(NString* pError, const char* pszFallback) {
    if (pError == nullptr) {
        return;
    }
    // dlerror() is per thread and consumed by reading it.
    const char* pszReason = dlerror();
    *pError = NString(pszReason != nullptr ? pszReason : pszFallback);
}

}  // namespace

void* DynamicLoader::loadLibrary(const char* pszPath, NString* pError) {
    if (pszPath == nullptr || *pszPath == '\0') {
        if (pError != nullptr) {
            *pError = NString("no library path given");
        }
        return nullptr;
    }
    dlerror();
    void* hLib = dlopen(pszPath, RTLD_NOW | RTLD_LOCAL);
    if (hLib == nullptr) {
        setError(pError, "the library could not be opened");
    }
    return hLib;
}

void* DynamicLoader::loadSymbol(void* hLib, const char* pszName, NString* pError) {
    if (hLib == nullptr || pszName == nullptr) {
        if (pError != nullptr) {
            *pError = NString("no library or no symbol name given");
        }
        return nullptr;
    }
    dlerror();
    void* pSymbol = dlsym(hLib, pszName);
    if (pSymbol == nullptr) {
        setError(pError, "the symbol's address is null");
    }
    return pSymbol;
}

void DynamicLoader::unloadLibrary(void* hLib) noexcept {
    if (hLib != nullptr) {
        dlclose(hLib);
    }
}

}  // namespace kiv
