// Scope guards for callers: TmLoggerPushSource puts a log source on the thread's source stack
// for the length of a block; LogLifeTime measures how long a block took and logs a trace
// message when it took at least a given number of milliseconds.
//
// Both act on the calling thread's logger only and take no lock. A push that fails with an
// in-house exception or an out-of-memory error is swallowed, and then nothing is popped.
#pragma once

#include <cstddef>
#include <cstdint>

#include "weblogger/commonseverities.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/gdvalue.h"

namespace kiv {

class TmLoggerPushSource {
public:
    // Pushes source on logger's stack; with a null source nothing is pushed or popped.
    TmLoggerPushSource(TmLogger* pLogger, const LogSource* pSource);
    ~TmLoggerPushSource();
    TmLoggerPushSource(const TmLoggerPushSource&) = delete;
    TmLoggerPushSource& operator=(const TmLoggerPushSource&) = delete;

private:
    TmLogger* m_pLogger;
};

class LogLifeTime {
public:
    // The message "Function %1 took %2 milliseconds." and its severity: a trace of importance
    // 32, so it is written only where the trace threshold is 32 or more.
    static const GDString ktFormat;
    static const LogSeverity ktSeverity;

    // Reads the start time; the source handle must outlive the guard.
    LogLifeTime(const wchar_t* pwszFile, unsigned int nLine, const LogSourceHandle& source,
                const String& fnName, std::size_t nThresholdMillis);
    // Logs the duration when it reached the threshold. Both clock readings keep only their low
    // 32 bits and are subtracted without correcting a wrap, so a block that spans a wrap of the
    // 32-bit clock logs a huge duration.
    ~LogLifeTime();
    LogLifeTime(const LogLifeTime&) = delete;
    LogLifeTime& operator=(const LogLifeTime&) = delete;

private:
    const wchar_t* m_wstrFile;
    std::uint32_t m_iLineNumber;
    String m_sFnName;
    const LogSourceHandle& m_hLogSource;
    std::uint64_t m_nThresholdMillis;
    std::uint64_t m_nStartMillis;
};

}  // namespace kiv
