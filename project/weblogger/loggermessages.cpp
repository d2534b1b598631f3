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

const ExternalMessage kmsgLogConfigIdTokenWhiteSpace(
    L"kmsgLogConfigIdTokenWhiteSpace", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigIdTokenWhiteSpace\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: the writer id token '<kivm:param "
    "insert=\"5\"/>' in <kivm:param insert=\"3\"/> holds a line break or tab; "
    "only blanks, commas and semicolons separate ids, so it is read as writer id <kivm:param "
    "insert=\"6\"/>."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigThresholdNotDecimal(
    L"kmsgLogConfigThresholdNotDecimal", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigThresholdNotDecimal\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/> "
    "attribute <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' is not a plain decimal "
    "number; it is read as <kivm:param insert=\"6\"/>."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigThresholdOutOfRange(
    L"kmsgLogConfigThresholdOutOfRange", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigThresholdOutOfRange\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/> "
    "attribute <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' is outside 0 to 65535; only "
    "its low 16 bits are kept, "
    "so it is read as <kivm:param insert=\"6\"/>.</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigGroupNotReferenced(
    L"kmsgLogConfigGroupNotReferenced", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigGroupNotReferenced\" xmlns:kivm=\"urn:kiv:webmessages\">"
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/> "
    "<kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' (writer ids <kivm:param "
    "insert=\"6\"/>) is not referenced by any FilterRecord."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigPatternMatchesNoSource(
    L"kmsgLogConfigPatternMatchesNoSource", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigPatternMatchesNoSource\" "
    "xmlns:kivm=\"urn:kiv:webmessages\"><TEXT><kivm:param insert=\"1\"/>:<kivm:param "
    "insert=\"2\"/>: <kivm:param insert=\"3\"/> <kivm:param insert=\"4\"/>='<kivm:param "
    "insert=\"5\"/>' (writer ids <kivm:param insert=\"6\"/>) is a pattern "
    "that matches no existing log source.</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigFilesNTooLarge(
    L"kmsgLogConfigFilesNTooLarge", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigFilesNTooLarge\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to init log writer <kivm:param insert=\"1\"/>. The attribute filesN of its Writer "
    "element must be at most <kivm:param insert=\"2\"/>, not '<kivm:param insert=\"3\"/>'."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigFileModeInvalid(
    L"kmsgLogConfigFileModeInvalid", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigFileModeInvalid\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to init log writer <kivm:param insert=\"1\"/>. The attribute fileMode of its Writer "
    "element must be permission bits in octal such as 0640, not '<kivm:param insert=\"2\"/>'."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogWriterRingInUse(
    L"kmsgLogWriterRingInUse", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterRingInUse\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Failed to init log writer <kivm:param insert=\"1\"/>. The log files "
    "<kivm:param insert=\"2\"/> already belong to log writer <kivm:param insert=\"3\"/> of "
    "this process.</TEXT></WebMessage>");

const ExternalMessage kmsgLogWriterWriteStopped(
    L"kmsgLogWriterWriteStopped", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterWriteStopped\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Log writer <kivm:param insert=\"1\"/> cannot write to <kivm:param insert=\"2\"/> and "
    "tries again every second, keeping what its buffer holds: <kivm:param insert=\"3\"/>"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogWriterWriteResumed(
    L"kmsgLogWriterWriteResumed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterWriteResumed\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Log writer <kivm:param insert=\"1\"/> writes to <kivm:param insert=\"2\"/> again; "
    "<kivm:param insert=\"3\"/> messages were dropped meanwhile.</TEXT></WebMessage>");

const ExternalMessage kmsgLogWriterFileVanished(
    L"kmsgLogWriterFileVanished", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterFileVanished\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Log writer <kivm:param insert=\"1\"/> found its file <kivm:param insert=\"2\"/> removed "
    "or replaced; it goes on with a new file.</TEXT></WebMessage>");

const ExternalMessage kmsgLogWriterFileNotRegular(
    L"kmsgLogWriterFileNotRegular", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogWriterFileNotRegular\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Log writer <kivm:param insert=\"1\"/> does not write to <kivm:param insert=\"2\"/>: it "
    "is a symbolic link or not a regular file. The writer skips it.</TEXT></WebMessage>");

const ExternalMessage kmsgLoggerInitializationFailed(
    L"kmsgLoggerInitializationFailed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLoggerInitializationFailed\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "Logger initialization failed"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigProblemAt(
    L"kmsgLogConfigProblemAt", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigProblemAt\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigUnterminatedVariable(
    L"kmsgLogConfigUnterminatedVariable", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigUnterminatedVariable\" "
    "xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>:<kivm:param insert=\"3\"/>: a variable "
    "marker \"{%\" is not closed by "
    "\"%}\"; no variable of the document is replaced and the document is not applied."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigNotWellFormed(
    L"kmsgLogConfigNotWellFormed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigNotWellFormed\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>:<kivm:param insert=\"3\"/>: the "
    "document is not well-formed XML: "
    "<kivm:param insert=\"4\"/>"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigElementMissing(
    L"kmsgLogConfigElementMissing", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigElementMissing\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>: the document has no element '<kivm:param insert=\"2\"/>' below "
    "its root "
    "element."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigAttributeMissing(
    L"kmsgLogConfigAttributeMissing", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigAttributeMissing\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/> has no "
    "attribute <kivm:param insert=\"4\"/>, "
    "which it needs."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigAttributeTooLong(
    L"kmsgLogConfigAttributeTooLong", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigAttributeTooLong\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/> attribute "
    "<kivm:param insert=\"4\"/> is "
    "<kivm:param insert=\"5\"/> characters long; a value may have at most <kivm:param "
    "insert=\"6\"/>."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigUnknownImplementation(
    L"kmsgLogConfigUnknownImplementation", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigUnknownImplementation\" "
    "xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param insert=\"3\"/>' "
    "names implementation "
    "'<kivm:param insert=\"4\"/>', which no writer class of this process has."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigWriterClassIdInvalid(
    L"kmsgLogConfigWriterClassIdInvalid", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigWriterClassIdInvalid\" "
    "xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param insert=\"3\"/>': "
    "writerClassId "
    "'<kivm:param insert=\"4\"/>' is not a writer id from 0 to 9; the writer is not built."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigWriterNotBuilt(
    L"kmsgLogConfigWriterNotBuilt", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigWriterNotBuilt\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "<kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param insert=\"3\"/>' "
    "(<kivm:param insert=\"4\"/>) could "
    "not be set up: <kivm:param insert=\"5\"/>"
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigWriterInitFailed(
    L"kmsgLogConfigWriterInitFailed", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigWriterInitFailed\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "its initialisation failed; the reason was reported just before."
    "</TEXT></WebMessage>");

const ExternalMessage kmsgLogConfigNotApplied(
    L"kmsgLogConfigNotApplied", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgLogConfigNotApplied\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>"
    "The logging configuration <kivm:param insert=\"1\"/> was not applied: <kivm:param "
    "insert=\"2\"/> "
    "problem(s) found; the configuration in force stays."
    "</TEXT></WebMessage>");

GDString boundedInsert(std::wstring_view text, std::size_t nMax) {
    if (text.size() <= nMax || nMax == 0) {
        return GDString(String(text));
    }
    String strCut(text.substr(0, nMax - 1));
    strCut += L"\u2026";
    return GDString(strCut);
}

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

LogConfigurationException::LogConfigurationException(const GDValue& message) : Exception(message) {}

LogFormatNotFound::LogFormatNotFound(const String& formatName)
    : LogConfigurationException(
          ParamMessage(kmsgFormatNotFound).setInsert(1, GDString(formatName))),
      m_strFormatName(formatName) {}

LoggerException::LoggerException(const GDValue& message) : Exception(message) {}

}  // namespace kiv
