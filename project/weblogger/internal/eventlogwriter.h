// The system log writer, registered as "EventLogWriter": renders each message as plain wide text
// and reports it as one event to the system log, with an event type derived from the message
// type, and the current log source as the event's source so that a central log server can
// filter by it.
//
// Each writer owns its own SystemEventLog, so its socket path, application name and facility
// (the optional attributes "socket", "appName" and "facility" of its Writer element) are its
// own. A message the system log cannot take is dropped and counted (getSystemEventLog()); the
// first drop is reported once on standard error.
//
// Locking: the message writer renders one message at a time (it reuses its scratch buffer), so
// logMessage renders and sends under the writer's own lock (WriteGuard); inside it the
// SystemEventLog takes its own lock for the send. Lock order: writer lock, then the system
// log's. The text buffer is local to each call.
#pragma once

#include "weblogger/internal/messagewriter.h"
#include "weblogger/logwriter.h"
#include "zq/webutil/systemeventlog.h"

namespace kiv {

class EventLogWriter : public LogWriter {
public:
    // The rendered text is built in place up to this many characters; it grows on the heap.
    static constexpr std::size_t kInlineTextChars = 511;

    EventLogWriter(const String& name, short id, WriterType type,
                   const Handle<const WriterFilter>& filter);
    ~EventLogWriter() override;

    // Compiles the format (Plain unless it says otherwise) and applies the optional attributes
    // "socket" (the daemon's socket path, default "/dev/log"), "appName" (default: the
    // process's name) and "facility" (a syslog facility name such as "local0", or its number;
    // default "user"). A value it cannot use throws LogConfigurationException
    // (kmsgLogConfigAttributeInvalid).
    bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) override;
    // Renders the message and reports it as one event; drops are counted, never raised.
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override;

    // Incident errors and errors are errors, warnings warnings, information and traces
    // information. A message type outside the five fails the assertion
    // "severity.getType() <= LogSeverity::SV_TRACE" and is taken as an error.
    static SystemEventLog::EventType eventTypeOf(const LogSeverity& severity) noexcept;

    SystemEventLog& getSystemEventLog() noexcept { return m_eventLog; }
    const SystemEventLog& getSystemEventLog() const noexcept { return m_eventLog; }

private:
    Handle<const MessageWriter<WideTextBuffer>> m_pMessageWriter;
    SystemEventLog m_eventLog;
};

}  // namespace kiv
