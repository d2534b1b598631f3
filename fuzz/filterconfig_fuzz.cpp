// Fuzzes the filter records of a logging element from reading to the source tree. Whatever
// parses as XML is read into a filter configuration twice, with and without diagnostics, which
// must give the same records; a read that fails must leave the tree's thresholds untouched;
// a read that succeeds is applied, after which no threshold anywhere may be unset and every
// source named by an exact record must hold what the record set.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/xmlconfigreader.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/xmldocument.h"

namespace {

using namespace kiv;

[[noreturn]] void fail(const char* pszWhat, const ZQWString& detail) {
    std::fprintf(stderr, "%s: %s\n", pszWhat, toUtf8(detail.view()).c_str());
    std::abort();
}

// A fixed tree, so that exact paths and patterns in the corpus find sources; the fuzzer never
// adds sources itself, so the tree stays small however long it runs.
std::vector<LogSource*> makeTree() {
    const wchar_t* arrPaths[] = {L"kiv.unknown", L"kiv.a.b",  L"kiv.ctm.init", L"fz.x.y",
                                 L"fz.sub",      L"Kiv.Caps", L"a.b.c.d.e"};
    std::vector<LogSource*> vecSources;
    for (const wchar_t* pszPath : arrPaths) {
        vecSources.push_back(
            LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, ZQWString(pszPath)));
    }
    return vecSources;
}

const std::vector<LogSource*>& tree() {
    static const std::vector<LogSource*> s_vecSources = makeTree();
    return s_vecSources;
}

std::vector<LogLevels> snapshot() {
    std::vector<ZQWString> vecNames;
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    sources.getAllLogSourceNames(vecNames);
    std::vector<LogLevels> vecLevels;
    for (const ZQWString& name : vecNames) {
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            vecLevels.push_back(sources.findLogSource(name)->getLogFilter().getLogLevels(nId));
        }
    }
    return vecLevels;
}

bool sameRecords(const GlobalFilterConfiguration& a, const GlobalFilterConfiguration& b) {
    if (a.m_lstSetLogLevels.size() != b.m_lstSetLogLevels.size() ||
        a.m_lstWildCardSetLogLevels.size() != b.m_lstWildCardSetLogLevels.size()) {
        return false;
    }
    for (const auto& entry : a.m_lstSetLogLevels) {
        const auto it = b.m_lstSetLogLevels.find(entry.first);
        if (it == b.m_lstSetLogLevels.end()) {
            return false;
        }
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            if (!(entry.second->m_ThisFilter.getLogLevels(nId) ==
                  it->second->m_ThisFilter.getLogLevels(nId))) {
                return false;
            }
        }
    }
    for (std::size_t i = 0; i < a.m_lstWildCardSetLogLevels.size(); ++i) {
        const auto& left = a.m_lstWildCardSetLogLevels[i];
        const auto& right = b.m_lstWildCardSetLogLevels[i];
        if (!left.first.equals(right.first)) {
            return false;
        }
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            if (!(left.second->m_ThisFilter.getLogLevels(nId) ==
                  right.second->m_ThisFilter.getLogLevels(nId))) {
                return false;
            }
        }
    }
    return true;
}

void checkApplied(const GlobalFilterConfiguration& cfg) {
    std::vector<ZQWString> vecNames;
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    sources.getAllLogSourceNames(vecNames);
    for (const ZQWString& name : vecNames) {
        const LogFilter& filter = sources.findLogSource(name)->getLogFilter();
        const auto it = cfg.m_lstSetLogLevels.find(name);
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            const LogLevels levels = filter.getLogLevels(nId);
            for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
                const auto nMsgType = static_cast<LogSeverity::MsgType>(nType);
                if (!levels.isSet(nMsgType)) {
                    fail("a threshold is unset after the adjust pass", name);
                }
                if (it != cfg.m_lstSetLogLevels.end()) {
                    const LogLevels own = it->second->m_ThisFilter.getLogLevels(nId);
                    if (own.isSet(nMsgType) && own.get(nMsgType) != levels.get(nMsgType)) {
                        fail("an exact record did not reach its source", name);
                    }
                }
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<LogSource*>& vecTree = tree();
    XmlDocument document;
    try {
        document =
            XmlDocument::parseString(std::string_view(reinterpret_cast<const char*>(data), size));
    } catch (const XmlException&) {
        return 0;
    }
    const XmlElement& root = *document.getDocumentElement();
    const std::vector<LogLevels> before = snapshot();

    GlobalFilterConfiguration cfg;
    bool bFailed = false;
    try {
        KivXmlConfigReader::populate(cfg, root);
    } catch (const LoggerException&) {
        bFailed = true;
    } catch (const XmlException&) {
        bFailed = true;
    }

    FilterConfigDiagnostics diagnostics(ZQWString(L"fuzz.xml"));
    GlobalFilterConfiguration collected;
    bool bCollectedFailed = false;
    try {
        KivXmlConfigReader::populate(collected, root, &diagnostics);
    } catch (const LoggerException&) {
        bCollectedFailed = true;
    } catch (const XmlException&) {
        bCollectedFailed = true;
    }
    for (const FilterConfigDiagnostic& diagnostic : diagnostics.getDiagnostics()) {
        if (diagnostic.getMessage().toString().empty()) {
            fail("a diagnostic renders no text", diagnostic.m_strText);
        }
    }
    if (bFailed != bCollectedFailed) {
        fail("collecting diagnostics changed whether the read failed", ZQWString());
    }
    if (bFailed) {
        if (snapshot() != before) {
            fail("a failed read changed the tree", ZQWString());
        }
        return 0;
    }
    if (!sameRecords(cfg, collected)) {
        fail("collecting diagnostics changed the records", ZQWString());
    }

    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    sources.applyConfig(cfg);
    checkApplied(cfg);
    // A partial application over one subtree resolves it from its parent as it stands.
    const LogSource* pSubtree = vecTree[static_cast<std::size_t>(size) % vecTree.size()];
    sources.applyConfig(cfg, &pSubtree, 1);
    checkApplied(cfg);
    return 0;
}
