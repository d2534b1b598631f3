// weblog: what a logging configuration does and what a ring of log files says, for operators.
#include <cstdio>
#include <cstring>

#include "commands.h"
#include "weblogger/kivmakelibloaded.h"

namespace {

struct Command {
    const weblog::CommandDescription* pDescription;
    int (*pRun)(const weblog::Arguments&);
};

const Command kCommands[] = {
    {&weblog::kCheckCommand, weblog::runCheck},
    {&weblog::kThresholdsCommand, weblog::runThresholds},
    {&weblog::kExplainCommand, weblog::runExplain},
    {&weblog::kRenderCommand, weblog::runRender},
    {&weblog::kCatCommand, weblog::runCat},
};

void printOverview(std::FILE* pOut) {
    std::fprintf(pOut,
                 "usage: weblog COMMAND [ARGUMENTS] (weblog COMMAND --help for more)\n\n"
                 "commands:\n");
    for (const Command& command : kCommands) {
        std::fprintf(pOut, "  %-11s %s\n", command.pDescription->pszName,
                     command.pDescription->pszSummary);
    }
    std::fprintf(pOut, "\nexit status: 0 fine, 1 problems found, 2 usage error\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (!kiv::isWebloggerLoaded()) {
        std::fprintf(stderr, "weblog: libweblogger did not initialise\n");
        return weblog::kExitProblems;
    }
    if (argc < 2) {
        printOverview(stderr);
        return weblog::kExitUsage;
    }
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
        std::strcmp(argv[1], "help") == 0) {
        printOverview(stdout);
        return weblog::kExitFine;
    }
    for (const Command& command : kCommands) {
        if (std::strcmp(argv[1], command.pDescription->pszName) == 0) {
            weblog::Arguments args;
            const int nStatus =
                weblog::parseArguments(*command.pDescription, argc - 2, argv + 2, args);
            return nStatus >= 0 ? nStatus : command.pRun(args);
        }
    }
    std::fprintf(stderr, "weblog: unknown command '%s'\n", argv[1]);
    printOverview(stderr);
    return weblog::kExitUsage;
}
