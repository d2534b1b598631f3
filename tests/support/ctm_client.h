// Direct access to a context-monitoring client library for tests: opens it by path and finds
// its functions, so that a test can look at (or change) what the client holds behind the
// library's back. Header-only; the programs that use it link the platform's loader.
#pragma once

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace kiv::test {

// The real client: the path in KIV_CTM_LIBRARY when set, otherwise the one the build made.
inline const char* ctmLibraryPath() {
    const char* pszFromEnvironment = std::getenv("KIV_CTM_LIBRARY");
    return pszFromEnvironment != nullptr && *pszFromEnvironment != '\0' ? pszFromEnvironment
                                                                        : WEBCTM_LIBRARY_PATH;
}

struct CtmClient {
    void* hLib = nullptr;
    void (**ppfnFree)(void*) = nullptr;
    int (*pfnInit)() = nullptr;
    void* (*pfnGet)(const char*) = nullptr;
    char* (*pfnWrap)() = nullptr;
    void* (*pfnUnwrap)(const char*, bool) = nullptr;
    const char* (*pfnGetECID)(void*) = nullptr;
    const char* (*pfnGetRID)(void*) = nullptr;
    int (*pfnClear)() = nullptr;
    void* (*pfnCreate)(const char*, const char*) = nullptr;
    int (*pfnStashCurrent)(void*) = nullptr;
    int (*pfnStash)(void*) = nullptr;
    void* (*pfnFind)(void*) = nullptr;
    void (*pfnExpire)(unsigned) = nullptr;

    // The client at pszPath, opened once per path; throws when it or a function is missing.
    static const CtmClient& open(const char* pszPath = ctmLibraryPath()) {
        static const CtmClient s_client = load(pszPath);
        return s_client;
    }

    void release(void* p) const { (*ppfnFree)(p); }

    // "<trace id>,<span id>" of a context, as the library shows it; empty for null.
    std::string ecidText(void* pContext) const {
        if (pContext == nullptr) {
            return std::string();
        }
        return std::string(pfnGetECID(pContext)) + "," + pfnGetRID(pContext);
    }

    // The thread's current context in the client: its ECID text, empty when it has none.
    std::string currentEcidText() const {
        void* pContext = pfnGet("QamContextQuery");
        const std::string strText = ecidText(pContext);
        release(pContext);
        return strText;
    }

    // The client's wrapped current context, empty when it has none.
    std::string wrapNow() const {
        char* pszWrapped = pfnWrap();
        const std::string strText = pszWrapped != nullptr ? pszWrapped : "";
        release(pszWrapped);
        return strText;
    }

    // A new context made in the client directly; returns its ECID text.
    std::string createDirectly() const {
        void* pContext = pfnGet(nullptr);
        const std::string strText = ecidText(pContext);
        release(pContext);
        return strText;
    }

private:
    template <class Fn>
    static void find(void* hLib, const char* pszName, Fn& pfn) {
        pfn = reinterpret_cast<Fn>(dlsym(hLib, pszName));
        if (pfn == nullptr) {
            throw std::runtime_error(std::string("client lacks ") + pszName);
        }
    }

    static CtmClient load(const char* pszPath) {
        CtmClient client;
        client.hLib = dlopen(pszPath, RTLD_NOW | RTLD_LOCAL);
        if (client.hLib == nullptr) {
            throw std::runtime_error(std::string("cannot open ") + pszPath);
        }
        find(client.hLib, "qamysLocalFree", client.ppfnFree);
        find(client.hLib, "qamMeasInitModel", client.pfnInit);
        find(client.hLib, "qamContextGet", client.pfnGet);
        find(client.hLib, "qamContextWrap", client.pfnWrap);
        find(client.hLib, "qamContextUnwrap", client.pfnUnwrap);
        find(client.hLib, "qamContextGetECID", client.pfnGetECID);
        find(client.hLib, "qamContextGetRID", client.pfnGetRID);
        find(client.hLib, "qamContextClear", client.pfnClear);
        find(client.hLib, "qamContextCreate", client.pfnCreate);
        find(client.hLib, "qamContextStashCurrent", client.pfnStashCurrent);
        find(client.hLib, "qamContextStash", client.pfnStash);
        find(client.hLib, "qamContextFind", client.pfnFind);
        find(client.hLib, "qamReferenceExpireCheck", client.pfnExpire);
        client.pfnInit();
        return client;
    }
};

}  // namespace kiv::test
