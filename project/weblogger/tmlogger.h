// The per-thread logger and the state it carries into every message.
//
// TmLogger::LoggerState is the thread's stack of log sources (the current source is the top)
// that writers consult when they decide whether to take a message; TmLogger::FileLocation is
// the source file and line of a log call. Both are plain values owned by one thread.
#pragma once

#include <cstdint>
#include <vector>

#include "zq/webkeel/memalloc.h"

namespace kiv {

class LogSource;

class TmLogger : public MemAllocNewdel {
public:
    class LoggerState : public MemAllocNewdel {
    public:
        using LogSourcesStack = std::vector<const LogSource*>;
        static constexpr std::size_t kReservedSources = 20;

        LoggerState() { m_LogSourcesStack.reserve(kReservedSources); }

        void pushSource(const LogSource& source) { m_LogSourcesStack.push_back(&source); }
        void popSource() noexcept {
            if (!m_LogSourcesStack.empty()) {
                m_LogSourcesStack.pop_back();
            }
        }
        // The innermost source, or null when none was pushed.
        const LogSource* getCurSource() const noexcept {
            return m_LogSourcesStack.empty() ? nullptr : m_LogSourcesStack.back();
        }
        const LogSourcesStack& logSourcesStack() const noexcept { return m_LogSourcesStack; }

    private:
        LogSourcesStack m_LogSourcesStack;
    };

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
};

}  // namespace kiv
