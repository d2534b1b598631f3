#include <unistd.h>

#include <cstdio>

#include "commands.h"
#include "zq/webkeel/transcode.h"

namespace weblog {

std::string utf8(const kiv::String& text) {
    return kiv::toUtf8(text.view()).std();
}

std::string placeOf(const kiv::ConfigReviewer& reviewer, const kiv::XmlElement& element) {
    return utf8(reviewer.getFile()) + ":" + std::to_string(element.getLine());
}

const OptionDescription kVarOption{"var", "name=value",
                                   "value of the variable {%name%} (repeatable)"};

bool readVariables(const CommandDescription& description, const Arguments& args,
                   kiv::ReplacementMap& vars) {
    const auto it = args.mapOptions.find(kVarOption.pszName);
    if (it == args.mapOptions.end()) {
        return true;
    }
    for (const std::string& assignment : it->second) {
        const std::size_t nEquals = assignment.find('=');
        if (nEquals == std::string::npos || nEquals == 0) {
            usageError(description, "--var needs name=value, not '" + assignment + "'");
            return false;
        }
        vars.emplace(kiv::fromUtf8(assignment.substr(0, nEquals)),
                     kiv::fromUtf8(assignment.substr(nEquals + 1)));
    }
    return true;
}

bool configReadable(const CommandDescription& description, const std::string& file) {
    if (::access(file.c_str(), R_OK) != 0) {
        std::fprintf(stderr, "weblog %s: cannot read %s\n", description.pszName, file.c_str());
        return false;
    }
    return true;
}

std::string formatFinding(const kiv::ConfigFinding& finding) {
    std::string text = utf8(finding.m_strFile);
    if (finding.m_nLine > 0) {
        text += ":" + std::to_string(finding.m_nLine) + ":" + std::to_string(finding.m_nColumn);
    }
    text += finding.m_nSeverity == kiv::ConfigFinding::CF_ERROR ? ": error: " : ": warning: ";
    return text + utf8(finding.m_strText);
}

bool loadableOrReport(kiv::ConfigReviewer& reviewer) {
    bool bLoadable = reviewer.getRoot() != nullptr;
    for (const kiv::ConfigFinding& finding : reviewer.check()) {
        if (finding.m_nSeverity == kiv::ConfigFinding::CF_ERROR) {
            std::fprintf(stderr, "%s\n", formatFinding(finding).c_str());
            bLoadable = false;
        }
    }
    return bLoadable;
}

}  // namespace weblog
