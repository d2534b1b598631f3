// weblog check: every problem of a logging configuration, not only the first.
#include <cstdio>

#include "commands.h"
#include "zq/webkeel/transcode.h"

namespace weblog {

const CommandDescription kCheckCommand{
    "check",
    "FILE",
    "report every problem of a logging configuration file",
    "Each problem is printed as file:line:column: error|warning: text. Errors are what the\n"
    "loader refuses (the running configuration would stay as it is); warnings are what it\n"
    "accepts but reads differently from how it looks, such as a threshold of 70000 (kept as\n"
    "its low 16 bits) or writer ids separated by a line break.",
    {kVarOption},
    1,
    1};

int runCheck(const Arguments& args) {
    kiv::ReplacementMap vars;
    if (!readVariables(kCheckCommand, args, vars)) {
        return kExitUsage;
    }
    const std::string& file = args.vecPositional[0];
    if (!configReadable(kCheckCommand, file)) {
        return kExitProblems;
    }
    kiv::ConfigReviewer reviewer(kiv::fromUtf8(file), vars.empty() ? nullptr : &vars);
    unsigned nErrors = 0;
    unsigned nWarnings = 0;
    for (const kiv::ConfigFinding& finding : reviewer.check()) {
        std::printf("%s\n", formatFinding(finding).c_str());
        ++(finding.m_nSeverity == kiv::ConfigFinding::CF_ERROR ? nErrors : nWarnings);
    }
    if (nErrors + nWarnings == 0) {
        std::printf("%s: no problems found\n", file.c_str());
        return kExitFine;
    }
    std::printf("%s: %u error(s), %u warning(s)\n", file.c_str(), nErrors, nWarnings);
    return kExitProblems;
}

}  // namespace weblog
