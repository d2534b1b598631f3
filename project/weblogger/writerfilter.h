// The writer's own filter: thresholds per log source, decided along the source tree.
//
// A WriterFilter, owned by a writer, holds one LogLevels per log source and is decided by the
// nearest source on the parent chain, starting at the message's source, that has a threshold
// set for the message type; without one its default decides. A writer without a WriterFilter
// accepts every source.
//
// Threads: a WriterFilter is immutable once built and shared by reference count; it is
// published to other threads through the writer that holds it, so it is read without a lock.
#pragma once

#include <cstddef>

#include "weblogger/commonseverities.h"
#include "weblogger/logfilter.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/handle.h"

namespace kiv {

class LogSource;

// Hashes a source by its address, with buckets chosen by that value modulo the bucket count.
struct LogLevelsMapHash {
    std::size_t operator()(const LogSource* pSource) const noexcept {
        return reinterpret_cast<std::size_t>(pSource);
    }
};

class WriterFilter : public RefCountedNonVirtualBase {
public:
    explicit WriterFilter(bool bEnabledByDefault = false)
        : m_bEnabledByDefault(bEnabledByDefault) {}

    // Building; a filter is not changed once a writer holds it.
    void setLogLevels(const LogSource& source, const LogLevels& levels);
    void setEnabledByDefault(bool bEnabled) noexcept { m_bEnabledByDefault = bEnabled; }

    // The nearest source on the parent chain, starting at source, whose entry has the message
    // type's threshold set decides; without one the default decides.
    bool isLogEnabled(const LogSeverity& severity, const LogSource& source) const noexcept;

    bool isEnabledByDefault() const noexcept { return m_bEnabledByDefault; }
    // The entry of exactly this source, or null.
    const LogLevels* findLogLevels(const LogSource& source) const noexcept;
    std::size_t size() const noexcept { return m_LogFiltersMap.size(); }

private:
    tl::hash_map<const LogSource*, LogLevels, LogLevelsMapHash> m_LogFiltersMap;
    bool m_bEnabledByDefault;
};

}  // namespace kiv
