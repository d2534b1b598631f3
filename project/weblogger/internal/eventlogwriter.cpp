#include "weblogger/internal/eventlogwriter.h"

#include <cstring>

#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const String kAttrSocket(L"socket");
const String kAttrAppName(L"appName");
const String kAttrFacility(L"facility");

[[noreturn]] void throwInvalidAttribute(const String& writerName, const String& attribute,
                                        const String& value) {
    ZQ_THROW(LogConfigurationException(ParamMessage(kmsgLogConfigAttributeInvalid)
                                           .setInsert(1, GDString(writerName))
                                           .setInsert(2, GDString(attribute))
                                           .setInsert(3, GDString(value))));
}

}  // namespace

EventLogWriter::EventLogWriter(const String& name, short id, WriterType type,
                               const Handle<const WriterFilter>& filter)
    : LogWriter(name, id, type, filter) {}

EventLogWriter::~EventLogWriter() = default;

bool EventLogWriter::initialize(const XmlElement* pConfig, const XmlElement* pFormat) {
    m_pMessageWriter =
        MessageWriterFactory<WideTextBuffer, WriterAdapter<WideTextBuffer>>::compile(pFormat);
    if (pConfig == nullptr) {
        return true;
    }
    if (const String* pSocket = pConfig->findAttribute(kAttrSocket.view())) {
        const NString strPath = toUtf8(pSocket->view());
        // The path of a Unix socket address holds 107 bytes and its terminator.
        if (strPath.empty() || strPath.size() >= 108) {
            throwInvalidAttribute(getName(), kAttrSocket, *pSocket);
        }
        m_eventLog.setSocketPath(strPath.view());
    }
    if (const String* pAppName = pConfig->findAttribute(kAttrAppName.view())) {
        m_eventLog.setAppName(toUtf8(pAppName->view()).view());
    }
    if (const String* pFacility = pConfig->findAttribute(kAttrFacility.view())) {
        if (!m_eventLog.setFacility(SystemEventLog::facilityFromName(pFacility->view()))) {
            throwInvalidAttribute(getName(), kAttrFacility, *pFacility);
        }
    }
    return true;
}

SystemEventLog::EventType EventLogWriter::eventTypeOf(const LogSeverity& severity) noexcept {
    switch (severity.getType()) {
        case LogSeverity::SV_INCIDENT_ERROR:
        case LogSeverity::SV_ERROR:
            return SystemEventLog::kError;
        case LogSeverity::SV_WARNING:
            return SystemEventLog::kWarning;
        case LogSeverity::SV_INFORMATION:
        case LogSeverity::SV_TRACE:
            return SystemEventLog::kInformation;
    }
    ZQ_ASSERT_TEXT(false, "severity.getType() <= LogSeverity::SV_TRACE");
    return SystemEventLog::kError;
}

void EventLogWriter::logMessage(const LogSeverity& severity, const GDValue& message,
                                const LoggerState& state, const FileLocation* pLocation) {
    const SystemEventLog::EventType type = eventTypeOf(severity);
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    StringBufferTemplate<kInlineTextChars, wchar_t> text;
    m_pMessageWriter->msg_log(severity, message, state, pLocation, &text);
    const LogSource* pSource = state.getCurSource();
    const SystemEventLog::Result result = m_eventLog.reportAnEvent(
        GDStringRef(text.data(), text.size()), type,
        pSource != nullptr ? pSource->getPath().view() : std::wstring_view());
    if (result.bFirstDrop) {
        char arrReason[128];
        const char* pszReason = ::strerror_r(result.nError, arrReason, sizeof(arrReason));
        reportLoggerProblem(ParamMessage(kmsgLogWriterSystemLogDropping)
                                .setInsert(1, GDString(getName()))
                                .setInsert(2, GDString(fromUtf8(m_eventLog.getSocketPath().view())))
                                .setInsert(3, GDString(fromUtf8(pszReason))));
    }
}

// The system log writer's factory, registered when the library loads; the flag keeps this unit
// from being dropped by the linker.
const bool bXXEventLogWriterDummy = [] {
    logger_details::LogWritersMan::getLogWritersMan().addLogWritersFactory(
        new logger_details::LogWritersFactoryImpl<EventLogWriter>(String(L"EventLogWriter")));
    return true;
}();

}  // namespace kiv
