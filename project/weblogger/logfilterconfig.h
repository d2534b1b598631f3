// What the filter records of one logging configuration say, before it reaches the source tree.
//
// The reader (xmlconfigreader) fills a GlobalFilterConfiguration from the WriterClassGroups and
// Filters elements; LogSourcesMan::applyConfig writes it into every source's LogFilter and then
// the configuration is thrown away. Thresholds are kept per exact source path and, separately,
// per pattern in document order, because the two are looked up differently: an exact path
// always wins, and among patterns the first one that matches does.
//
// None of these objects is shared between threads: a configuration is built, applied under the
// source registry's monitor and destroyed by the one thread that reads the document.
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "weblogger/logfilter.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"

namespace kiv {

// The writer-class groups of one document by name; the map owns its groups.
using LogWritersGroupMap =
    tl::hash_map<ZQWString, std::unique_ptr<LogWritersGroup>, ZQWString::Hash>;

// Thresholds of one source path (or one pattern) for every writer id, all unset at first.
class FilterConfigurationRecord : public MemAllocNewdel {
public:
    LogFilter m_ThisFilter;
};

// Exact source path to its record; owned by the configuration.
using ConfigRecordsMap = tl::hash_map<ZQWString, FilterConfigurationRecord*, ZQWString::Hash>;
// (pattern, record) in the order the records were created; owned by the configuration.
using ConfigRecordsList = std::vector<std::pair<ZQWString, FilterConfigurationRecord*>>;

class GlobalFilterConfiguration {
public:
    GlobalFilterConfiguration() = default;
    ~GlobalFilterConfiguration() {
        for (auto& entry : m_lstSetLogLevels) {
            delete entry.second;
        }
        for (auto& entry : m_lstWildCardSetLogLevels) {
            delete entry.second;
        }
    }
    GlobalFilterConfiguration(const GlobalFilterConfiguration&) = delete;
    GlobalFilterConfiguration& operator=(const GlobalFilterConfiguration&) = delete;

    ConfigRecordsMap m_lstSetLogLevels;
    ConfigRecordsList m_lstWildCardSetLogLevels;
};

}  // namespace kiv
