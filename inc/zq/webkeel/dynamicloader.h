// Loading shared libraries and finding their symbols by name at run time.
//
// The library talks to optional companions (the context-monitoring client) that the host may or
// may not have installed; nothing of theirs can be linked in, so they are opened by path and
// their functions found by name. A failure is an answer, not an exception: the caller gets a
// null handle or a null symbol and, when it asks for one, the loader's explanation.
//
// Threads: the functions hold no state of their own; the platform's loader serialises itself.
#pragma once

#include "zq/webkeel/string.h"

namespace kiv {

class DynamicLoader {
public:
    // Opens the shared library at pszPath (resolving every symbol now, keeping them private to
    // the library). Null on failure, with the reason in *pError when pError is given.
    static void* loadLibrary(const char* pszPath, NString* pError);

    // The address of the symbol pszName in the library hLib: the function itself for a
    // function, the variable's storage for a variable. Null when the library does not export
    // it (or hLib or pszName is null), with the reason in *pError when pError is given.
    static void* loadSymbol(void* hLib, const char* pszName, NString* pError);

    // Closes a handle from loadLibrary; a null handle is ignored.
    static void unloadLibrary(void* hLib) noexcept;
};

}  // namespace kiv
