// A module that a program which does not link libweblogger.so loads with dlopen: it brings the
// library in as its dependency, and its one function logs through it.
#include "helpers/shutdown_logging.h"

// Makes a global file writer on dir with "autoFlush" off and logs nLines lines from the calling
// thread; 0 when the writer was made.
extern "C" [[gnu::visibility("default")]] int shutdownPluginLog(const char* pszDir, long nLines) {
    if (!kiv::test::makeBufferedGlobalFileWriter(pszDir)) {
        return 1;
    }
    for (long i = 0; i < nLines; ++i) {
        kiv::test::logLine(0, i);
    }
    return 0;
}
