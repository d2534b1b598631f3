// The host's connection to the context-monitoring (CTM) client library.
//
// The client is a shared library of its own that the host chooses at start-up: it is opened
// from the path the host gives or, when none is given, from the path in the environment
// variable KIV_CTM_LIBRARY, and initialised through its qamMeasInitModel function. Whoever needs
// the client's other functions looks them up by name in s_pCTMLib (DynamicLoader::loadSymbol).
//
// Threads: initialize() is meant for start-up, before threads use the client; the initialised
// flag is atomic so that disable() may be called at any time. A library once opened is never
// closed: other threads may still hold pointers to its functions.
#pragma once

#include "zq/webkeel/string.h"

namespace kiv::performance {

class CTMWrapper {
public:
    // The environment variable that names the client library when the host gives no path.
    static constexpr const char* kLibraryPathVariable = "KIV_CTM_LIBRARY";

    // Opens the client at pszPath (or at the path in KIV_CTM_LIBRARY when pszPath is null or
    // empty) and initialises it. True when the client is ready; otherwise false, with the reason
    // in *pError when pError is given. A second call replaces the library that s_pCTMLib names.
    static bool initialize(const char* pszPath = nullptr, NString* pError = nullptr);

    // Whether a client has been opened and initialised, and not disabled since.
    static bool isInitialized() noexcept;

    // Stops reporting the client as initialised; the library stays open.
    static void disable() noexcept;

    // The handle of the opened client library, null until one is opened.
    static void* s_pCTMLib;
};

}  // namespace kiv::performance
