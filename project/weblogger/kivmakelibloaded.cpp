#include "weblogger/kivmakelibloaded.h"

namespace kiv {
namespace {

struct LibraryLoadedMark {
    LibraryLoadedMark() noexcept { s_bLoaded = true; }
    static inline bool s_bLoaded = false;
};
const LibraryLoadedMark g_libraryLoadedMark;

}  // namespace

bool isWebloggerLoaded() noexcept {
    return LibraryLoadedMark::s_bLoaded;
}

const char* webloggerVersion() noexcept {
    return WEBLOGGER_VERSION;
}

}  // namespace kiv
