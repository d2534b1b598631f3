// The example server: for now it only proves that a host links libweblogger.so and that the
// library's load-time initialisation has run.
#include <cstdio>

#include "weblogger/kivmakelibloaded.h"

int main() {
    if (!kiv::isWebloggerLoaded()) {
        std::fprintf(stderr, "libweblogger did not initialise\n");
        return 1;
    }
    std::printf("example_server: libweblogger %s loaded\n", kiv::webloggerVersion());
    return 0;
}
