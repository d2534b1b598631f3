// Loads libweblogger.so by its path, logs through it (by way of shutdown_plugin) and unloads it,
// round after round:
//
//   dlopen_helper <libweblogger.so> <shutdown_plugin.so> <dir> <rounds> <lines>
//
// Round i logs <lines> lines into <dir>/<i> with "autoFlush" off, so only the library's
// shutdown at dlclose writes them. After each dlclose the library must be gone from the
// process. Not linked with the library: it is loaded anew each round.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using PluginLog = int (*)(const char*, long);

int round(const char* pszLibrary, const char* pszPlugin, const std::string& strDir, long nLines) {
    void* pLibrary = dlopen(pszLibrary, RTLD_NOW | RTLD_LOCAL);
    if (pLibrary == nullptr) {
        std::fprintf(stderr, "dlopen_helper: %s\n", dlerror());
        return 1;
    }
    void* pPlugin = dlopen(pszPlugin, RTLD_NOW | RTLD_LOCAL);
    if (pPlugin == nullptr) {
        std::fprintf(stderr, "dlopen_helper: %s\n", dlerror());
        return 1;
    }
    const auto pfnLog = reinterpret_cast<PluginLog>(dlsym(pPlugin, "shutdownPluginLog"));
    if (pfnLog == nullptr || pfnLog(strDir.c_str(), nLines) != 0) {
        std::fprintf(stderr, "dlopen_helper: logging through the plugin failed\n");
        return 1;
    }
    if (dlclose(pPlugin) != 0 || dlclose(pLibrary) != 0) {
        std::fprintf(stderr, "dlopen_helper: %s\n", dlerror());
        return 1;
    }
    if (void* pStill = dlopen(pszLibrary, RTLD_NOW | RTLD_NOLOAD)) {
        std::fprintf(stderr, "dlopen_helper: the library stayed loaded after dlclose\n");
        dlclose(pStill);
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: dlopen_helper <library> <plugin> <dir> <rounds> <lines>\n");
        return 2;
    }
    const long nRounds = std::atol(argv[4]);
    const long nLines = std::atol(argv[5]);
    for (long i = 0; i < nRounds; ++i) {
        if (round(argv[1], argv[2], std::string(argv[3]) + "/" + std::to_string(i), nLines) != 0) {
            std::fprintf(stderr, "dlopen_helper: round %ld failed\n", i);
            return 1;
        }
    }
    std::printf("rounds %ld\n", nRounds);
    return 0;
}
