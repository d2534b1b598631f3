// What a thread is logging on behalf of: its stack of log sources and its named properties
// (LoggerState), and where a log call was made (FileLocation).
//
// Both are handed to every writer and renderer with each message, so they live below the
// logger, the writers and the renderer: a writer needs to know what a message carries, not how
// the logger dispatches it. LoggerState and FileLocation name the same
// classes.
//
// Threads: a LoggerState belongs to one thread's logger and is touched only by that thread; a
// copy (which keeps only string and number values) may be handed to another thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "zq/tl/hashmap.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

class LogSource;

class LoggerState : public MemAllocNewdel {
public:
    using LogSourcesStack = std::vector<const LogSource*>;
    using PropValue = std::pair<GDVariant, std::uint32_t>;
    using PropValues = std::vector<PropValue>;
    using PropsMap = tl::hash_map<String, PropValues, String::Hash>;
    static constexpr std::size_t kReservedSources = 20;
    static constexpr std::size_t kReservedValues = 5;

    LoggerState();
    // Copies sources and properties, keeping only values that are (or refer to) strings or
    // numbers, so the copy is safe on another thread or after this thread's values are gone.
    LoggerState(const LoggerState& other);
    LoggerState& operator=(const LoggerState& other);
    void swap(LoggerState& other) noexcept;

    void pushSource(const LogSource& source);
    // Removes the innermost source; nothing on an empty stack.
    void popSource() noexcept;
    // The innermost source, or null when none was pushed.
    const LogSource* getCurSource() const noexcept {
        return m_LogSourcesStack.empty() ? nullptr : m_LogSourcesStack.back();
    }
    const LogSourcesStack& logSourcesStack() const noexcept { return m_LogSourcesStack; }

    void pushProperty(const String& strPropName, const GDValue& propValue,
                      std::uint32_t nImportance);
    // Removes the name's current value; an unknown name or an empty stack is ignored, and the
    // name's entry is kept even when its stack becomes empty.
    void popProperty(const String& strPropName) noexcept;
    const PropsMap& propertiesMap() const noexcept { return m_PropsMap; }

    // Every source's full path and a line feed, innermost first.
    void appendLogSources(StringBufferBaseTemplate<wchar_t>& buffer) const;
    // Clears names, then the full path of every source, innermost first.
    void getLogSourceNames(std::vector<String>& names) const;

private:
    LogSourcesStack m_LogSourcesStack;
    PropsMap m_PropsMap;
};

// The source file, line and optional backtrace of a log call. It refers to the caller's text
// without copying; passed by pointer, and a null pointer means "no location".
class FileLocation {
public:
    FileLocation(const wchar_t* pwszFile, std::uint32_t nLineNumber,
                 const wchar_t* pwszBacktrace = nullptr) noexcept
        : m_wstrFile(pwszFile), m_nLineNumber(nLineNumber), m_pBacktrace(pwszBacktrace) {}
    const wchar_t* getWFile() const noexcept { return m_wstrFile; }
    std::uint32_t getLineNumber() const noexcept { return m_nLineNumber; }
    const wchar_t* getBacktrace() const noexcept { return m_pBacktrace; }

private:
    const wchar_t* m_wstrFile;
    std::uint32_t m_nLineNumber;
    const wchar_t* m_pBacktrace;
};

}  // namespace kiv
