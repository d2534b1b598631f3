#include "weblogger/loggermessages.h"

#include <cstdio>

#include "zq/webkeel/transcode.h"

namespace kiv {

const wchar_t* const kLoggerMessagesFile = L"loggermessages.xml";

namespace {
// Registered before the messages below are defined, so translations are found from the start.
const bool g_bMessageFilesRegistered = [] {
    MessageFilesRegistry::getInstance().registerMessageFiles(String(kLoggerMessagesFile));
    return true;
}();
}  // namespace

// Default templates. Those with parameters declare the kivm prefix with the catalogue's
// namespace URI; the others declare nothing.

const ExternalMessage kmsgCoreDumped(
    L"kmsgCoreDumped", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgCoreDumped\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "File:  <kivm:param insert=\"1\"/>. Line:  <kivm:param insert=\"2\"/>"
    ". Core dumped in <kivm:param insert=\"3\"/></TEXT></WebMessage>");

const ExternalMessage kmsgFormatNotFound(
    L"kmsgFormatNotFound", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgFormatNotFound\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to init log writer. The following log format is not found: <kivm:param insert=\"1\"/>"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigClassDefinedMoreThenOnce(
    L"kmsgLogConfigClassDefinedMoreThenOnce", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigClassDefinedMoreThenOnce\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT>Failed to load configuration. Writers Class <kivm:param insert=\"1\"/>"
    " is defined more then once.</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigClassIdOutOfRange(
    L"kmsgLogConfigClassIdOutOfRange", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigClassIdOutOfRange\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT>Failed to load configuration. Class id <kivm:param insert=\"1\"/>"
    " is out of range.</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigClassNotDefined(
    L"kmsgLogConfigClassNotDefined", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigClassNotDefined\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT>Failed to load configuration. Writers Class <kivm:param insert=\"1\"/>"
    " is not defined.</TEXT></WebMessage>");

const ExternalMessage kmsgLogErrorLong(
    L"kmsgLogErrorLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogErrorLong\"><TEXT>ERROR</TEXT></WebMessage>");

const ExternalMessage kmsgLogErrorShort(
    L"kmsgLogErrorShort", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogErrorShort\"><TEXT>E</TEXT></WebMessage>");

const ExternalMessage kmsgLogFromLogger(
    L"kmsgLogFromLogger", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogFromLogger\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to log the following message. <kivm:param insert=\"1\"/> </TEXT></WebMessage>");

const ExternalMessage kmsgLogIncidentErrorLong(
    L"kmsgLogIncidentErrorLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogIncidentErrorLong\"><TEXT>INCIDENT_ERROR</TEXT></WebMessage>");

const ExternalMessage kmsgLogIncidentErrorShort(
    L"kmsgLogIncidentErrorShort", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogIncidentErrorShort\"><TEXT>I_E</TEXT></WebMessage>");

const ExternalMessage kmsgLogInformationLong(
    L"kmsgLogInformationLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogInformationLong\"><TEXT>NOTIFICATION</TEXT></WebMessage>");

const ExternalMessage kmsgLogInformationShort(
    L"kmsgLogInformationShort", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogInformationShort\"><TEXT>N</TEXT></WebMessage>");

const ExternalMessage kmsgLogTraceLong(
    L"kmsgLogTraceLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogTraceLong\"><TEXT>TRACE</TEXT></WebMessage>");

const ExternalMessage kmsgLogTraceShort(
    L"kmsgLogTraceShort", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogTraceShort\"><TEXT>T</TEXT></WebMessage>");

const ExternalMessage kmsgLogWarningLong(
    L"kmsgLogWarningLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWarningLong\"><TEXT>WARNING</TEXT></WebMessage>");

const ExternalMessage kmsgLogWarningShort(
    L"kmsgLogWarningShort", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWarningShort\"><TEXT>W</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigFilesNInvalid(
    L"kmsgLogConfigFilesNInvalid", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigFilesNInvalid\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to init log writer <kivm:param insert=\"1\"/>. The attribute filesN of its Writer "
    "element must be a number of at least 1, not '<kivm:param insert=\"2\"/>'.</TEXT>"
    "</WebMessage>");

const ExternalMessage kmsgLogWriterFileFailure(
    L"kmsgLogWriterFileFailure", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterFileFailure\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Log writer <kivm:param insert=\"1\"/> stopped writing to <kivm:param insert=\"2\"/> and "
    "is disabled: <kivm:param insert=\"3\"/></TEXT></WebMessage>");

void reportLoggerProblem(const GDValue& message) noexcept {
    try {
        StringBufferTemplate<511, wchar_t> text;
        text.append(L"weblogger: ");
        message.appendText(text);
        text.append(L'\n');
        const NString bytes = toUtf8(text.view());
        std::fwrite(bytes.data(), 1, bytes.size(), stderr);
        std::fflush(stderr);
    } catch (...) {
        // Reporting a problem must never become one.
    }
}

// The catalogue's own set of formats: shorter than the library's built-in set ("Default" shows
// one backtrace just before the message text, "xml" has no line, there are no KLF formats).
const ExternalMessage kmsgLogFormats(
    L"kmsgLogFormats", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogFormats\"><XML><Format name=\"Default\">Type: <MsgType/>"
    "<LineBreak/>Severity: <MsgSeverity/><LineBreak/>Time: <Time/><LineBreak/>"
    "File: <File/> Line: <Line/><LineBreak/>Properties: \n<Properties><ListElementFormat>"
    "<PropertyName/>-\n<PropertyValues><Separator>,</Separator></PropertyValues>"
    "</ListElementFormat><Separator>;</Separator></Properties><LineBreak/>"
    "Location:<LineBreak/><LogSources><Prefix>\t</Prefix><Separator><LineBreak/>"
    "</Separator></LogSources><LineBreak/><LineBreak/><Backtrace/><MessageText/>"
    "<LineBreak/>---------------------------------------<LineBreak/></Format>"
    "<Format name=\"Short\"><MsgType style=\"short\"/><MsgSeverity/>\t<CurrentLogSource/>"
    "\t<MessageText/>\t<LineBreak/></Format><Format name=\"xml\" Encoding=\"Xml\">"
    "<LineBreak/>&lt;Message&gt;\n<LineBreak/>   &lt;Type&gt;<MsgType style=\"short\"/>"
    "&lt;/Type&gt;\n<LineBreak/>   &lt;Severity&gt;<MsgSeverity/>"
    "&lt;/Severity&gt;\n<LineBreak/>   &lt;Time&gt;<Time style=\"short\"/>"
    "&lt;/Time&gt;\n<LineBreak/>   &lt;File&gt;<File style=\"short\"/>"
    "&lt;/File&gt;\n<LineBreak/>   &lt;Properties&gt;\n<Properties><ListElementFormat>"
    "<LineBreak/>      &lt;Property&gt;\n<LineBreak/>         &lt;Name&gt;<PropertyName/>"
    "&lt;/Name&gt;\n<LineBreak/>         &lt;Values&gt;\n<PropertyValues><Separator>"
    ",</Separator></PropertyValues>&lt;/Values&gt;\n<LineBreak/>"
    "      &lt;/Property&gt;</ListElementFormat></Properties><LineBreak/>"
    "   &lt;/Properties&gt;\n<LineBreak/>   &lt;Location&gt;\n<LogSources><Prefix>"
    "<LineBreak/>      &lt;Logsource&gt;</Prefix><Suffix>&lt;/Logsource&gt;</Suffix>"
    "</LogSources><LineBreak/>   &lt;/Location&gt;\n<LineBreak/>"
    "   &lt;MessageText&gt;<MessageText/>&lt;/MessageText&gt;\n<LineBreak/>"
    "&lt;/Message&gt;<LineBreak/></Format></XML></WebMessage>");

const ExternalMessage kmsgExecutionContextInitCalled(
    L"kmsgExecutionContextInitCalled", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgExecutionContextInitCalled\"><TEXT>"
    "ExecutionContextImpl::init called</TEXT></WebMessage>");

const ExternalMessage kmsgCtmNotInitialized(
    L"kmsgCtmNotInitialized", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgCtmNotInitialized\"><TEXT>"
    "CTM is not initialized by the calling process, ECID tracking is disabled</TEXT></WebMessage>");

const ExternalMessage kmsgEcidTrackingDisabledByConfig(
    L"kmsgEcidTrackingDisabledByConfig", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgEcidTrackingDisabledByConfig\"><TEXT>"
    "ECID tracking is disabled by configuration</TEXT></WebMessage>");

const ExternalMessage kmsgCtmUnwrapFailed(
    L"kmsgCtmUnwrapFailed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgCtmUnwrapFailed\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "qamContextUnwrap failed for ctx: <kivm:param insert=\"1\"/></TEXT></WebMessage>");

const ExternalMessage kmsgCtmRestoreFailed(
    L"kmsgCtmRestoreFailed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgCtmRestoreFailed\"><TEXT>"
    "Failed to restore ctx from reference</TEXT></WebMessage>");

LogConfigurationException::LogConfigurationException(const GDValue& message) : Exception(message) {}

LogFormatNotFound::LogFormatNotFound(const String& formatName)
    : LogConfigurationException(
          ParamMessage(kmsgFormatNotFound).setInsert(1, GDString(formatName))),
      m_strFormatName(formatName) {}

LoggerException::LoggerException(const GDValue& message) : Exception(message) {}

}  // namespace kiv
