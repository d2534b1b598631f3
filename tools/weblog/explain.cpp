// weblog explain: whether a message reaches each writer, and which record decided.
#include <cstdio>
#include <cstdlib>

#include "commands.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/transcode.h"

namespace weblog {

const CommandDescription kExplainCommand{
    "explain",
    "FILE SOURCE TYPE IMPORTANCE",
    "tell for each writer whether a message reaches it, and why",
    "TYPE is one of incident_error, error, warning, information, trace; IMPORTANCE a number\n"
    "(1 is the most important). A message reaches a writer when the source's threshold for\n"
    "the writer's id passes it and, if the writer has filter records of its own, the nearest\n"
    "of them that sets the type passes it too. Each threshold is shown with the record\n"
    "(file:line) that set it, or the ancestor source it was inherited from.",
    {kVarOption},
    4,
    4};

namespace {

std::string recordText(const kiv::ConfigReviewer& reviewer, const kiv::XmlElement& record) {
    return placeOf(reviewer, record) + " (FilterRecord path=\"" +
           utf8(record.getAttributeValue(L"path")) + "\")";
}

// "set by file:line (...)" or "inherited from SOURCE, set there by file:line (...)".
std::string originText(const kiv::ConfigReviewer& reviewer, const kiv::ZQWString& source,
                       const kiv::ZQWString& setAt, const kiv::XmlElement& record) {
    if (setAt == source) {
        return "set by " + recordText(reviewer, record);
    }
    return "inherited from " + utf8(setAt) + ", set there by " + recordText(reviewer, record);
}

std::string comparison(std::uint16_t nThreshold, std::uint64_t nImportance) {
    return std::to_string(nThreshold) + (nThreshold >= nImportance ? " >= " : " < ") +
           std::to_string(nImportance);
}

}  // namespace

int runExplain(const Arguments& args) {
    kiv::ReplacementMap vars;
    if (!readVariables(kExplainCommand, args, vars)) {
        return kExitUsage;
    }
    const std::string& file = args.vecPositional[0];
    const kiv::ZQWString sourcePath = kiv::fromUtf8(args.vecPositional[1]);
    const std::string& typeWord = args.vecPositional[2];
    const std::string& importanceText = args.vecPositional[3];
    int nType = -1;
    for (int i = 0; i < kiv::LogSeverity::kMsgTypeCount; ++i) {
        if (kiv::String(kiv::arrLogTypesXml[i]).compareNoCase(kiv::fromUtf8(typeWord).view()) ==
            0) {
            nType = i;
        }
    }
    if (nType < 0) {
        return usageError(kExplainCommand, "unknown message type '" + typeWord + "'");
    }
    if (importanceText.empty() ||
        importanceText.find_first_not_of("0123456789") != std::string::npos) {
        return usageError(kExplainCommand,
                          "IMPORTANCE must be a number, not '" + importanceText + "'");
    }
    const std::uint64_t nImportance = std::strtoull(importanceText.c_str(), nullptr, 10);
    const kiv::LogSeverity severity(static_cast<kiv::LogSeverity::MsgType>(nType), nImportance);
    if (!configReadable(kExplainCommand, file)) {
        return kExitProblems;
    }
    kiv::ConfigReviewer reviewer(kiv::fromUtf8(file), vars.empty() ? nullptr : &vars);
    if (!loadableOrReport(reviewer)) {
        return kExitProblems;
    }
    reviewer.applyThresholds({sourcePath});
    const kiv::LogSource& source =
        *kiv::LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, sourcePath);

    std::printf("%s, %s of importance %s:\n", utf8(sourcePath).c_str(), typeWord.c_str(),
                importanceText.c_str());
    const std::vector<const kiv::XmlElement*> vecWriters = reviewer.getWriters();
    if (vecWriters.empty()) {
        std::printf("  no writer is configured\n");
    }
    for (const kiv::XmlElement* pWriter : vecWriters) {
        const int nId = kiv::ConfigReviewer::writerIdOf(*pWriter);
        if (nId < 0) {
            // Refused by the check above; nothing to explain.
            continue;
        }
        const std::string header = "writer \"" + utf8(pWriter->getAttributeValue(L"name")) +
                                   "\" (id " + std::to_string(nId) + ", " +
                                   utf8(pWriter->getAttributeValue(L"implementation")) + ")";
        const kiv::ConfigReviewer::ThresholdOrigin origin =
            reviewer.thresholdOrigin(source, nId, severity.m_nType);
        const bool bSourcePasses =
            origin.m_nThreshold != kiv::LogLevels::kNotSet && origin.m_nThreshold >= nImportance;
        const kiv::ConfigReviewer::WriterFilterOrigin writerOrigin =
            reviewer.writerFilterOrigin(*pWriter, source, severity);
        const bool bReached = bSourcePasses && writerOrigin.m_bPasses;
        std::printf("%s: %s\n", header.c_str(), bReached ? "reached" : "not reached");

        std::string sourceLine = "  source filter: " + typeWord + " threshold " +
                                 comparison(origin.m_nThreshold, nImportance) + ", ";
        sourceLine += origin.m_pRecord != nullptr
                          ? originText(reviewer, sourcePath, origin.m_strSource, *origin.m_pRecord)
                          : "no record sets it for this source or an ancestor (the default 0)";
        std::printf("%s\n", sourceLine.c_str());

        std::string writerLine = "  writer filter: ";
        if (!writerOrigin.m_bHasFilter) {
            writerLine += "none (the writer takes every source)";
        } else if (writerOrigin.m_pRecord != nullptr) {
            writerLine +=
                typeWord + " threshold " + comparison(writerOrigin.m_nThreshold, nImportance) +
                ", " +
                originText(reviewer, sourcePath, writerOrigin.m_strSource, *writerOrigin.m_pRecord);
        } else {
            writerLine += std::string("no record of the writer sets ") + typeWord +
                          " for this source or an ancestor, so it " +
                          (writerOrigin.m_bPasses ? "passes" : "rejects") + " by default";
        }
        std::printf("%s\n", writerLine.c_str());
    }
    return kExitFine;
}

}  // namespace weblog
