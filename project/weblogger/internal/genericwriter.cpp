#include "weblogger/internal/genericwriter.h"

#include "weblogger/logwritersman.h"

namespace kiv {
namespace {

// Serialises the output of every console writer of the process. Taken before a writer's own
// lock, never after it. Made at load, so it is destroyed after the library's shutdown has
// flushed and closed the console writers (and freed with the library when it is unloaded).
CriticalSection& consoleLock() {
    static CriticalSection s_lock(0, "g_tGlobalConsoleLock");
    return s_lock;
}

CriticalSection& g_tGlobalConsoleLock = consoleLock();

}  // namespace

CoutWriter::CoutWriter(const String& name, short id, WriterType type,
                       const Handle<const WriterFilter>& filter)
    : GenericWriter<CoutStream, HoopyAdaptor>(name, id, type, filter),
      m_CoutStream(CoutStream::getCoutStream()) {}

bool CoutWriter::initialize(const XmlElement*, const XmlElement* pFormat) {
    m_pwc = &m_CoutStream;
    compileFormat(pFormat);
    return true;
}

void CoutWriter::logMessage(const LogSeverity& severity, const GDValue& message,
                            const LoggerState& state, const FileLocation* pLocation) {
    LockGuard<CriticalSection> consoleGuard(g_tGlobalConsoleLock);
    renderAndFlush(severity, message, state, pLocation);
}

void CoutWriter::flush() noexcept {
    LockGuard<CriticalSection> consoleGuard(g_tGlobalConsoleLock);
    GenericWriter<CoutStream, HoopyAdaptor>::flush();
}

// The console writer's factory, registered when the library loads; the flag keeps this unit
// from being dropped by the linker.
const bool bXXCoutWriterDummy = [] {
    logger_details::LogWritersMan::getLogWritersMan().addLogWritersFactory(
        new logger_details::LogWritersFactoryImpl<CoutWriter>(String(L"CoutWriter")));
    return true;
}();

}  // namespace kiv
