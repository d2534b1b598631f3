// The cost of a reconfiguration of thresholds: applyConfig over a tree of 10,000 sources with
// 50 filter records (40 exact paths, 10 patterns), alone and together with reading the records
// from their XML element. Both hold the source registry's monitor for their whole run, so this
// is also how long a thread creating a source may wait behind a reconfiguration.
#include <benchmark/benchmark.h>

#include <string>

#include "weblogger/logsource.h"
#include "weblogger/xmlconfigreader.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

constexpr int kBranches = 99;
constexpr int kLeavesPerBranch = 100;

// fcb, fcb.b0 .. fcb.b98, and 100 leaves below each: 1 + 99 + 9,900 = 10,000 sources.
std::size_t buildTree() {
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    LogSource* pRoot = sources.getLogSource(nullptr, ZQWString(L"fcb"));
    std::size_t nCount = 1;
    for (int b = 0; b < kBranches; ++b) {
        LogSource* pBranch =
            sources.getLogSource(pRoot, ZQWString(widen("b" + std::to_string(b)).c_str()));
        ++nCount;
        for (int l = 0; l < kLeavesPerBranch; ++l) {
            sources.getLogSource(pBranch, ZQWString(widen("l" + std::to_string(l)).c_str()));
            ++nCount;
        }
    }
    return nCount;
}

std::string makeConfig() {
    std::string strXml =
        "<Logging><WriterClassGroups>"
        "<WriterClassGroup name=\"Console\">1</WriterClassGroup>"
        "<WriterClassGroup name=\"Files\">2;3</WriterClassGroup>"
        "</WriterClassGroups><Filters>";
    strXml += "<FilterRecord writerClassGroup=\"Console\" path=\"fcb\" error=\"32\"/>";
    for (int i = 1; i < 40; ++i) {
        const std::string path = i % 2 == 0
                                     ? "fcb.b" + std::to_string(i)
                                     : "fcb.b" + std::to_string(i) + ".l" + std::to_string(i);
        strXml += "<FilterRecord writerClassGroup=\"" +
                  std::string(i % 3 == 0 ? "Files" : "Console") + "\" path=\"" + path +
                  "\" warning=\"" + std::to_string(i) + "\"/>";
    }
    for (int i = 0; i < 10; ++i) {
        strXml += "<FilterRecord writerClassGroup=\"Console\" path=\"fcb.b" +
                  std::to_string(50 + i) + ".l?" + std::to_string(i) + "\" trace=\"" +
                  std::to_string(i) + "\"/>";
    }
    strXml += "</Filters></Logging>";
    return strXml;
}

const std::size_t g_nSources = buildTree();
const XmlDocument g_config = XmlDocument::parseString(std::string_view(makeConfig()));

void BM_ApplyConfig(benchmark::State& state) {
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, *g_config.getDocumentElement());
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    for (auto _ : state) {
        sources.applyConfig(cfg);
    }
    state.counters["sources"] = static_cast<double>(g_nSources);
    state.counters["records"] = static_cast<double>(
        g_config.getDocumentElement()->selectElements(L"Filters/FilterRecord").size());
}
BENCHMARK(BM_ApplyConfig)->Unit(benchmark::kMicrosecond);

void BM_ReadAndApplyConfig(benchmark::State& state) {
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    for (auto _ : state) {
        GlobalFilterConfiguration cfg;
        KivXmlConfigReader::populate(cfg, *g_config.getDocumentElement());
        sources.applyConfig(cfg);
    }
}
BENCHMARK(BM_ReadAndApplyConfig)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();
