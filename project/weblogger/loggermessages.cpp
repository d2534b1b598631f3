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

// One catalogue entry, its id written once: it names the variable, the entry and the default
// template's WebMessage element. Templates with parameters declare the kivm prefix with the
// catalogue's namespace URI (KIV_CATALOGUE_MESSAGE); the others declare nothing
// (KIV_CATALOGUE_ENTRY).
#define KIV_CATALOGUE_ENTRY(id, body)                         \
    const ExternalMessage id(L"" #id, ExternalMessage::kNone, \
                             "<WebMessage name=\"" #id "\">" body "</WebMessage>")
#define KIV_CATALOGUE_MESSAGE(id, body)                       \
    const ExternalMessage id(L"" #id, ExternalMessage::kNone, \
                             "<WebMessage name=\"" #id        \
                             "\" xmlns:kivm=\"urn:kiv:webmessages\">" body "</WebMessage>")

// Default templates.

KIV_CATALOGUE_MESSAGE(
    kmsgCoreDumped,
    "<TEXT>File:  <kivm:param insert=\"1\"/>. Line:  <kivm:param insert=\"2\"/>. Core "
    "dumped in <kivm:param insert=\"3\"/></TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgFormatNotFound,
    "<TEXT>Failed to init log writer. The following log format is not found: <kivm:param "
    "insert=\"1\"/></TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigClassDefinedMoreThenOnce,
    "<TEXT>Failed to load configuration. Writers Class <kivm:param insert=\"1\"/> is "
    "defined more then once.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigClassIdOutOfRange,
    "<TEXT>Failed to load configuration. Class id <kivm:param insert=\"1\"/> is out of "
    "range.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigClassNotDefined,
    "<TEXT>Failed to load configuration. Writers Class <kivm:param insert=\"1\"/> is "
    "not defined.</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogErrorLong, "<TEXT>ERROR</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogErrorShort, "<TEXT>E</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogFromLogger,
    "<TEXT>Failed to log the following message. <kivm:param insert=\"1\"/> </TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogIncidentErrorLong, "<TEXT>INCIDENT_ERROR</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogIncidentErrorShort, "<TEXT>I_E</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogInformationLong, "<TEXT>NOTIFICATION</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogInformationShort, "<TEXT>N</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogTraceLong, "<TEXT>TRACE</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogTraceShort, "<TEXT>T</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogWarningLong, "<TEXT>WARNING</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgLogWarningShort, "<TEXT>W</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFilesNInvalid,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. The attribute filesN "
    "of its Writer element must be a number of at least 1, not '<kivm:param insert=\"2\"/>"
    "'.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterFileFailure,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> stopped writing to <kivm:param insert=\"2\"/>"
    " and is disabled: <kivm:param insert=\"3\"/></TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigIdTokenWhiteSpace,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: the writer id token "
    "'<kivm:param insert=\"5\"/>' in <kivm:param insert=\"3\"/> holds a line break or "
    "tab; only blanks, commas and semicolons separate ids, so it is read as writer id "
    "<kivm:param insert=\"6\"/>.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigThresholdNotDecimal,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " attribute <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' is not a plain "
    "decimal number; it is read as <kivm:param insert=\"6\"/>.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigThresholdOutOfRange,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " attribute <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' is outside 0 "
    "to 65535; only its low 16 bits are kept, so it is read as <kivm:param insert=\"6\"/>"
    ".</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigGroupNotReferenced,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' (writer ids <kivm:param "
    "insert=\"6\"/>) is not referenced by any FilterRecord.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigPatternMatchesNoSource,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " <kivm:param insert=\"4\"/>='<kivm:param insert=\"5\"/>' (writer ids <kivm:param "
    "insert=\"6\"/>) is a pattern that matches no existing log source.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFilesNTooLarge,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. The attribute filesN "
    "of its Writer element must be at most <kivm:param insert=\"2\"/>, not '<kivm:param "
    "insert=\"3\"/>'.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFileModeInvalid,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. The attribute fileMode "
    "of its Writer element must be permission bits in octal such as 0640, not '<kivm:param "
    "insert=\"2\"/>'.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterRingInUse,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. The log files <kivm:param "
    "insert=\"2\"/> already belong to log writer <kivm:param insert=\"3\"/> of this "
    "process.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterWriteStopped,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> cannot write to <kivm:param insert=\"2\"/>"
    " and tries again every second, keeping what its buffer holds: <kivm:param insert=\"3\"/>"
    "</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterWriteResumed,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> writes to <kivm:param insert=\"2\"/>"
    " again; <kivm:param insert=\"3\"/> messages were dropped meanwhile.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterFileVanished,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> found its file <kivm:param insert=\"2\"/>"
    " removed or replaced; it goes on with a new file.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterFileNotRegular,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> does not write to <kivm:param insert=\"2\"/>"
    ": it is a symbolic link or not a regular file. The writer skips it.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterAttributeMissing,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. Its Writer element needs "
    "the attribute <kivm:param insert=\"2\"/>.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigAttributeInvalid,
    "<TEXT>Failed to init log writer <kivm:param insert=\"1\"/>. The attribute <kivm:param "
    "insert=\"2\"/> of its Writer element cannot be '<kivm:param insert=\"3\"/>'.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogWriterSystemLogDropping,
    "<TEXT>Log writer <kivm:param insert=\"1\"/> cannot reach the system log at <kivm:param "
    "insert=\"2\"/> (<kivm:param insert=\"3\"/>); the messages it cannot send are dropped "
    "and counted.</TEXT>");

KIV_CATALOGUE_MESSAGE(kmsgLoggerInitializationFailed, "<TEXT>Logger initialization failed</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFormatNotCompiled,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: the Format '<kivm:param "
    "insert=\"3\"/>' does not compile: <kivm:param insert=\"4\"/></TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFormatEncodingInvalid,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: the Format '<kivm:param "
    "insert=\"3\"/>' has Encoding '<kivm:param insert=\"4\"/>', which is none of Xml, "
    "Plain and Json; it is compiled with the default encoding.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigProblemAt,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    "</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigUnterminatedVariable,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>:<kivm:param insert=\"3\"/>"
    ": a variable marker \"{%\" is not closed by \"%}\"; no variable of the document "
    "is replaced and the document is not applied.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigNotWellFormed,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>:<kivm:param insert=\"3\"/>"
    ": the document is not well-formed XML: <kivm:param insert=\"4\"/></TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigElementMissing,
    "<TEXT><kivm:param insert=\"1\"/>: the document has no element '<kivm:param insert=\"2\"/>"
    "' below its root element.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigAttributeMissing,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " has no attribute <kivm:param insert=\"4\"/>, which it needs.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigAttributeTooLong,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: <kivm:param insert=\"3\"/>"
    " attribute <kivm:param insert=\"4\"/> is <kivm:param insert=\"5\"/> characters long; "
    "a value may have at most <kivm:param insert=\"6\"/>.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigUnknownImplementation,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param "
    "insert=\"3\"/>' names implementation '<kivm:param insert=\"4\"/>', which no writer "
    "class of this process has.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigWriterClassIdInvalid,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param "
    "insert=\"3\"/>': writerClassId '<kivm:param insert=\"4\"/>' is not a writer id from "
    "0 to 9; the writer is not built.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigWriterNotBuilt,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: Writer '<kivm:param "
    "insert=\"3\"/>' (<kivm:param insert=\"4\"/>) could not be set up: <kivm:param insert=\"5\"/>"
    "</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigWriterInitFailed,
    "<TEXT>its initialisation failed; the reason was reported just before.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigNotApplied,
    "<TEXT>The logging configuration <kivm:param insert=\"1\"/> was not applied: <kivm:param "
    "insert=\"2\"/> problem(s) found; the configuration in force stays.</TEXT>");

GDString boundedInsert(std::wstring_view text, std::size_t nMax) {
    if (text.size() <= nMax || nMax == 0) {
        return GDString(String(text));
    }
    String strCut(text.substr(0, nMax - 1));
    strCut += L"\u2026";
    return GDString(strCut);
}

KIV_CATALOGUE_MESSAGE(
    kmsgLogCrashSignal,
    "<TEXT>Fatal signal <kivm:param insert=\"1\"/> (<kivm:param insert=\"2\"/>): the lines "
    "logged before it were written out; the process goes on to the signal's own "
    "handling.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogCrashWritersSkipped,
    "<TEXT>Fatal signal <kivm:param insert=\"1\"/>: <kivm:param insert=\"2\"/> log writer(s) "
    "were busy and could not write out what they held.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogCrashTableFull,
    "<TEXT>More than <kivm:param insert=\"1\"/> file writers exist at once; the ones beyond "
    "are neither written out on a crash nor locked around a fork.</TEXT>");

KIV_CATALOGUE_MESSAGE(
    kmsgLogConfigFlushOnCrashInvalid,
    "<TEXT><kivm:param insert=\"1\"/>:<kivm:param insert=\"2\"/>: the attribute flushOnCrash "
    "of <kivm:param insert=\"3\"/> must be true or false (yes, no, 1, 0), not '<kivm:param "
    "insert=\"4\"/>'; the crash flush is not turned on.</TEXT>");

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
KIV_CATALOGUE_ENTRY(
    kmsgLogFormats,
    "<XML><Format name=\"Default\">Type: <MsgType/><LineBreak/>Severity: <MsgSeverity/>"
    "<LineBreak/>Time: <Time/><LineBreak/>File: <File/> Line: <Line/><LineBreak/>Properties: "
    "\n<Properties><ListElementFormat><PropertyName/>-\n<PropertyValues><Separator>,</Separator>"
    "</PropertyValues></ListElementFormat><Separator>;</Separator></Properties><LineBreak/>"
    "Location:<LineBreak/><LogSources><Prefix>\t</Prefix><Separator><LineBreak/></Separator>"
    "</LogSources><LineBreak/><LineBreak/><Backtrace/><MessageText/><LineBreak/"
    ">---------------------------------------<LineBreak/>"
    "</Format><Format name=\"Short\"><MsgType style=\"short\"/><MsgSeverity/>\t<CurrentLogSource/>"
    "\t<MessageText/>\t<LineBreak/></Format><Format name=\"xml\" Encoding=\"Xml\"><LineBreak/>"
    "&lt;Message&gt;\n<LineBreak/>   &lt;Type&gt;<MsgType "
    "style=\"short\"/>&lt;/Type&gt;\n<LineBreak/>"
    "   &lt;Severity&gt;<MsgSeverity/>&lt;/Severity&gt;\n<LineBreak/>   &lt;Time&gt;<Time "
    "style=\"short\"/>&lt;/Time&gt;\n<LineBreak/>   &lt;File&gt;<File style=\"short\"/>"
    "&lt;/File&gt;\n<LineBreak/>   &lt;Properties&gt;\n<Properties><ListElementFormat>"
    "<LineBreak/>      &lt;Property&gt;\n<LineBreak/>         &lt;Name&gt;<PropertyName/>"
    "&lt;/Name&gt;\n<LineBreak/>         &lt;Values&gt;\n<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>&lt;/Values&gt;\n<LineBreak/>      &lt;/Property&gt;</ListElementFormat>"
    "</Properties><LineBreak/>   &lt;/Properties&gt;\n<LineBreak/>   &lt;Location&gt;\n<LogSources>"
    "<Prefix><LineBreak/>      &lt;Logsource&gt;</Prefix><Suffix>&lt;/Logsource&gt;</Suffix>"
    "</LogSources><LineBreak/>   &lt;/Location&gt;\n<LineBreak/>   "
    "&lt;MessageText&gt;<MessageText/>"
    "&lt;/MessageText&gt;\n<LineBreak/>&lt;/Message&gt;<LineBreak/></Format></XML>");

KIV_CATALOGUE_ENTRY(kmsgExecutionContextInitCalled,
                    "<TEXT>ExecutionContextImpl::init called</TEXT>");

KIV_CATALOGUE_ENTRY(
    kmsgCtmNotInitialized,
    "<TEXT>CTM is not initialized by the calling process, ECID tracking is disabled</TEXT>");

KIV_CATALOGUE_ENTRY(kmsgEcidTrackingDisabledByConfig,
                    "<TEXT>ECID tracking is disabled by configuration</TEXT>");

KIV_CATALOGUE_MESSAGE(kmsgCtmUnwrapFailed,
                      "<TEXT>qamContextUnwrap failed for ctx: <kivm:param insert=\"1\"/></TEXT>");

KIV_CATALOGUE_ENTRY(kmsgCtmRestoreFailed, "<TEXT>Failed to restore ctx from reference</TEXT>");

LogConfigurationException::LogConfigurationException(const GDValue& message) : Exception(message) {}

LogFormatNotFound::LogFormatNotFound(const String& formatName)
    : LogConfigurationException(
          ParamMessage(kmsgFormatNotFound).setInsert(1, GDString(formatName))),
      m_strFormatName(formatName) {}

LoggerException::LoggerException(const GDValue& message) : Exception(message) {}

}  // namespace kiv
