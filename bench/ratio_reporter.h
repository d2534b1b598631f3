// A console reporter that also keeps every benchmark's rate (items per second, the median when
// --benchmark_repetitions is given) so that a program can print ratios between its benchmarks
// at the end of the run: comparisons only mean something within one run on a shared machine.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kiv::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const auto it = run.counters.find("items_per_second");
            if (it == run.counters.end()) {
                continue;
            }
            const std::string strName = run.run_name.str();
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") {
                    m_mapRates[strName] = it->second.value;
                    m_mapHasMedian[strName] = true;
                }
            } else if (m_mapHasMedian.count(strName) == 0) {
                m_mapRates[strName] = it->second.value;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    // The rate of a benchmark by its full run name, or 0 when it did not run.
    double rate(const std::string& name) const {
        const auto it = m_mapRates.find(name);
        return it == m_mapRates.end() ? 0 : it->second;
    }

    // "what  ours/theirs  (ours vs theirs unit)"; nothing when either did not run.
    void printRatio(const std::string& what, const std::string& ours, const std::string& theirs,
                    const char* pszUnit = "msg/s") const {
        const double nOurs = rate(ours);
        const double nTheirs = rate(theirs);
        if (nOurs > 0 && nTheirs > 0) {
            std::printf("%-60s %6.2fx  (%.0f vs %.0f %s)\n", what.c_str(), nOurs / nTheirs, nOurs,
                        nTheirs, pszUnit);
        }
    }

private:
    std::map<std::string, double> m_mapRates;
    std::map<std::string, bool> m_mapHasMedian;
};

}  // namespace kiv::bench
