// What the shutdown scenarios share: a global file writer with "autoFlush" off on a directory,
// a source whose thresholds let every error through, and one line per message ("T<thread>
// S<sequence>").
#pragma once

#include <string>

#include "support/writer_config.h"
#include "weblogger/commonseverities.h"
#include "weblogger/logfilter.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"

namespace kiv::test {

constexpr short kShutdownWriterId = 3;

// A global file writer that keeps its lines in its buffer until it is flushed or closed.
inline bool makeBufferedGlobalFileWriter(const std::string& strDir) {
    const WriterConfig config("<Writer name='shutdown' writerClassId='3' dir='" + strDir +
                              "' maxFileSizeKb='100000' filesN='10' autoFlush='false'/>");
    const Handle<LogWriter> hWriter = config.create(L"FileLogWriter", LogWriter::WT_GLOBAL);
    logger_details::LogWritersMan::getLogWritersMan().versionIncrement();
    return !hWriter.isNull();
}

// The source the scenarios log under, open to every error for the writer.
inline const LogSource& shutdownSource() {
    static const LogSource* const s_pSource = [] {
        const LogSourceHandle source(String(L"shutdown"));
        const_cast<LogSource&>(*source).getLogFilter().setLogLevelsForId(
            kShutdownWriterId, LogLevels(65534, 65534, 65534, 65534, 65534));
        return source.get();
    }();
    return *s_pSource;
}

inline void logLine(int nThread, long nSequence) {
    const std::string text = "T" + std::to_string(nThread) + " S" + std::to_string(nSequence);
    TmLogger::getLogger().logMessage(kSevError, GDString(fromUtf8(text)), &shutdownSource());
}

}  // namespace kiv::test
