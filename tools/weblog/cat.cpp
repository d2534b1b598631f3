// weblog cat: a ring of log files read back in the order it was written.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>

#include "commands.h"
#include "weblogger/ringfiles.h"
#include "zq/webkeel/transcode.h"
#include "zq/webkeel/wildcard.h"

namespace weblog {

const CommandDescription kCatCommand{
    "cat",
    "DIR PREFIX",
    "print a ring of log files in the order it was written",
    "The ring is the files PREFIX0.log, PREFIX1.log... in DIR that a FileLogWriter writes; the\n"
    "oldest file comes first, and byte-order marks are left out. A message of the KLF-Text\n"
    "format ([time] [KVWEB] [TYPE:importance] [] [source] [ecid: trace,span] ...) is kept or\n"
    "left out whole, with the lines that follow its first line; in other formats each line\n"
    "stands alone, its source read from a Short line (the text between its first two tabs).\n"
    "TIME is the log's own local time, compared as written: 2026-11-23, 2026-11-23T17:05 or\n"
    "2026-11-23 17:05:30.",
    {{"ecid", "ID", "only messages of this trace (the part of the ecid before the comma)"},
     {"source", "PATTERN",
      "only messages of matching sources (\"*\" any text, \"?\" one character)"},
     {"since", "TIME", "only messages written at or after TIME"}},
    2,
    2};

namespace {

const std::regex kKlfHeader(R"(^\[(\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d)[^\]]*\] )");
const std::regex kTimeArgument(R"(^\d{4}-\d\d-\d\d([T ]\d\d(:\d\d(:\d\d)?)?)?$)");
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kEcidField = "] [ecid: ";

std::string normalisedTime(std::string time) {
    if (time.size() > 10) {
        time[10] = 'T';
    }
    return time;
}

// One message: its lines and what the filters look at.
struct Message {
    std::vector<std::string> vecLines;
    std::string strTime;
    std::string strSource;
    std::string strTrace;
};

void readKlfHeader(Message& message) {
    const std::string& line = message.vecLines.front();
    std::smatch match;
    if (std::regex_search(line, match, kKlfHeader)) {
        message.strTime = normalisedTime(match[1].str());
    }
    const std::size_t nEcid = line.find(kEcidField);
    if (nEcid == std::string::npos) {
        return;
    }
    const std::size_t nSourceStart = line.rfind(" [", nEcid);
    if (nSourceStart != std::string::npos) {
        message.strSource = line.substr(nSourceStart + 2, nEcid - nSourceStart - 2);
    }
    const std::size_t nTraceStart = nEcid + kEcidField.size();
    const std::size_t nTraceEnd = line.find_first_of(",]", nTraceStart);
    if (nTraceEnd != std::string::npos) {
        message.strTrace = line.substr(nTraceStart, nTraceEnd - nTraceStart);
    }
}

void readShortLine(Message& message) {
    const std::string& line = message.vecLines.front();
    const std::size_t nFirst = line.find('\t');
    const std::size_t nSecond =
        nFirst == std::string::npos ? std::string::npos : line.find('\t', nFirst + 1);
    if (nSecond != std::string::npos) {
        message.strSource = line.substr(nFirst + 1, nSecond - nFirst - 1);
    }
}

std::vector<std::string> ringLines(const std::vector<std::string>& vecFiles) {
    std::vector<std::string> vecLines;
    for (const std::string& path : vecFiles) {
        std::ifstream in(path, std::ios::binary);
        std::string line;
        while (std::getline(in, line)) {
            // The mark begins every file; one that stands inside a file began a file that was
            // written again from its start.
            if (std::string_view(line).substr(0, kByteOrderMark.size()) == kByteOrderMark) {
                line.erase(0, kByteOrderMark.size());
            }
            vecLines.push_back(std::move(line));
        }
    }
    return vecLines;
}

}  // namespace

int runCat(const Arguments& args) {
    const std::string& dir = args.vecPositional[0];
    const std::string& prefix = args.vecPositional[1];
    const std::string* pEcid = args.last("ecid");
    const std::string* pSource = args.last("source");
    const std::string* pSince = args.last("since");
    if (pSince != nullptr && !std::regex_match(*pSince, kTimeArgument)) {
        return usageError(kCatCommand,
                          "TIME must look like 2026-11-23T17:05:30, not '" + *pSince + "'");
    }
    const std::string trace = pEcid == nullptr ? std::string() : pEcid->substr(0, pEcid->find(','));
    const std::string since = pSince == nullptr ? std::string() : normalisedTime(*pSince);
    const kiv::String sourcePattern = pSource == nullptr ? kiv::String() : kiv::fromUtf8(*pSource);

    const std::vector<std::string> vecFiles = kiv::ringFilesOldestFirst(dir, prefix);
    if (vecFiles.empty()) {
        std::fprintf(stderr, "weblog cat: no files %s<n>.log in %s\n", prefix.c_str(), dir.c_str());
        return kExitProblems;
    }
    const std::vector<std::string> vecLines = ringLines(vecFiles);
    bool bKlf = false;
    for (const std::string& line : vecLines) {
        if (std::regex_search(line, kKlfHeader)) {
            bKlf = true;
            break;
        }
    }
    std::vector<Message> vecMessages;
    for (const std::string& line : vecLines) {
        if (vecMessages.empty() || !bKlf || std::regex_search(line, kKlfHeader)) {
            vecMessages.emplace_back();
        }
        vecMessages.back().vecLines.push_back(line);
    }
    for (Message& message : vecMessages) {
        bKlf ? readKlfHeader(message) : readShortLine(message);
        if ((pEcid != nullptr && message.strTrace != trace) ||
            (pSource != nullptr &&
             !kiv::matchesWildcard(sourcePattern.view(),
                                   kiv::fromUtf8(message.strSource).view())) ||
            (pSince != nullptr &&
             (message.strTime.empty() || message.strTime.substr(0, since.size()) < since))) {
            continue;
        }
        for (const std::string& line : message.vecLines) {
            std::fwrite(line.data(), 1, line.size(), stdout);
            std::fputc('\n', stdout);
        }
    }
    return kExitFine;
}

}  // namespace weblog
