// weblog thresholds: what every source lets through to every writer once a configuration is
// applied, inheritance resolved.
#include <cstdio>
#include <map>
#include <set>

#include "commands.h"
#include "table.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/transcode.h"
#include "zq/webkeel/wildcard.h"

namespace weblog {

const CommandDescription kThresholdsCommand{
    "thresholds",
    "FILE [SOURCE...]",
    "show the effective thresholds per source, writer id and message type",
    "The configuration's groups and filter records are applied to the named sources (all the\n"
    "sources the file names, and their ancestors, when none is given) as the loader applies\n"
    "them, inheritance included. A message passes a source's threshold when its importance\n"
    "is at most the threshold; 0 lets nothing of that type through. The writers' own filters\n"
    "are not part of this table (weblog explain shows them).",
    {kVarOption},
    1,
    CommandDescription::kAnyNumber};

namespace {

// The sources that the file's records name by exact path, and their ancestors, sorted.
std::vector<kiv::ZQWString> namedSources(const kiv::ConfigReviewer& reviewer) {
    std::vector<const kiv::XmlElement*> vecRecords =
        reviewer.getRoot()->selectElements(L"Filters/FilterRecord");
    for (const kiv::XmlElement* pWriter : reviewer.getWriters()) {
        for (const kiv::XmlElement* pRecord : pWriter->selectElements(L"Filters/FilterRecord")) {
            vecRecords.push_back(pRecord);
        }
    }
    std::set<kiv::ZQWString> setPaths;
    for (const kiv::XmlElement* pRecord : vecRecords) {
        const kiv::String path = pRecord->getAttributeValue(L"path");
        if (path.empty() || kiv::hasWildcard(path.view())) {
            continue;
        }
        for (std::size_t nDot = path.view().find(L'.'); nDot != std::wstring_view::npos;
             nDot = path.view().find(L'.', nDot + 1)) {
            setPaths.insert(kiv::String(path.view().substr(0, nDot)));
        }
        setPaths.insert(path);
    }
    return {setPaths.begin(), setPaths.end()};
}

}  // namespace

int runThresholds(const Arguments& args) {
    kiv::ReplacementMap vars;
    if (!readVariables(kThresholdsCommand, args, vars)) {
        return kExitUsage;
    }
    const std::string& file = args.vecPositional[0];
    if (!configReadable(kThresholdsCommand, file)) {
        return kExitProblems;
    }
    kiv::ConfigReviewer reviewer(kiv::fromUtf8(file), vars.empty() ? nullptr : &vars);
    if (!loadableOrReport(reviewer)) {
        return kExitProblems;
    }
    std::vector<kiv::ZQWString> vecSources;
    for (std::size_t i = 1; i < args.vecPositional.size(); ++i) {
        vecSources.push_back(kiv::fromUtf8(args.vecPositional[i]));
    }
    reviewer.applyThresholds(vecSources);
    if (vecSources.empty()) {
        vecSources = namedSources(reviewer);
    }

    // Writer id to the names of its writers.
    std::map<int, std::string> mapWriters;
    for (const kiv::XmlElement* pWriter : reviewer.getWriters()) {
        const int nId = kiv::ConfigReviewer::writerIdOf(*pWriter);
        if (nId >= 0) {
            std::string& names = mapWriters[nId];
            names += (names.empty() ? "" : ",") + utf8(pWriter->getAttributeValue(L"name"));
        }
    }
    if (mapWriters.empty()) {
        std::printf("%s: no writer is configured\n", file.c_str());
        return kExitFine;
    }
    std::vector<std::string> vecHeadings{"SOURCE", "WRITER"};
    for (const wchar_t* pszType : kiv::arrLogTypesXml) {
        vecHeadings.push_back(utf8(kiv::String(pszType)));
    }
    Table table(std::move(vecHeadings));
    for (const kiv::ZQWString& path : vecSources) {
        const kiv::LogSource* pSource = kiv::LogSourcesMan::getLogSourcesMan().findLogSource(path);
        if (pSource == nullptr) {
            continue;
        }
        for (const auto& [nId, names] : mapWriters) {
            std::vector<std::string> vecRow{utf8(path), std::to_string(nId) + " " + names};
            const kiv::LogLevels levels = pSource->getLogFilter().getLogLevels(nId);
            for (const std::uint16_t nLevel : levels.m_arrLogLevels) {
                vecRow.push_back(std::to_string(nLevel));
            }
            table.addRow(std::move(vecRow));
        }
    }
    table.print();
    return kExitFine;
}

}  // namespace weblog
