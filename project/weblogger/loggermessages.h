// The library's user-visible texts and its exceptions.
//
// Texts are catalogue messages with a default template; the message file "loggermessages.xml"
// may translate them per language (it is registered with the message-files registry when the
// library loads, before any message is used). Configuration errors are exceptions built from
// these messages, so what an operator reads is always the catalogue's text with its inserts.
#pragma once

#include <cstddef>
#include <string_view>

#include "zq/webkeel/exception.h"
#include "zq/webutil/message.h"

namespace kiv {

// The message file that translates the texts below.
extern const wchar_t* const kLoggerMessagesFile;

// "File:  " insert 1 ". Line:  " insert 2 ". Core dumped in " insert 3
extern const ExternalMessage kmsgCoreDumped;
// "Failed to init log writer. The following log format is not found: " insert 1
extern const ExternalMessage kmsgFormatNotFound;
// "Failed to load configuration. Writers Class " insert 1 " is defined more then once."
extern const ExternalMessage kmsgLogConfigClassDefinedMoreThenOnce;
// "Failed to load configuration. Class id " insert 1 " is out of range."
extern const ExternalMessage kmsgLogConfigClassIdOutOfRange;
// "Failed to load configuration. Writers Class " insert 1 " is not defined."
extern const ExternalMessage kmsgLogConfigClassNotDefined;
// "Failed to log the following message. " insert 1 " "
extern const ExternalMessage kmsgLogFromLogger;
// Structured content: the catalogue's Format definitions ("Default", "Short", "xml").
extern const ExternalMessage kmsgLogFormats;

// "Failed to init log writer " insert 1 ". The attribute filesN of its Writer element must be
// a number of at least 1, not '" insert 2 "'."
extern const ExternalMessage kmsgLogConfigFilesNInvalid;
// "Log writer " insert 1 " stopped writing to " insert 2 " and is disabled: " insert 3
extern const ExternalMessage kmsgLogWriterFileFailure;
// "Failed to init log writer " insert 1 ". The attribute filesN of its Writer element must be
// at most " insert 2 ", not '" insert 3 "'."
extern const ExternalMessage kmsgLogConfigFilesNTooLarge;
// "Failed to init log writer " insert 1 ". The attribute fileMode of its Writer element must be
// permission bits in octal such as 0640, not '" insert 2 "'."
extern const ExternalMessage kmsgLogConfigFileModeInvalid;
// "Failed to init log writer " insert 1 ". The log files " insert 2 " already belong to log
// writer " insert 3 " of this process."
extern const ExternalMessage kmsgLogWriterRingInUse;
// "Log writer " insert 1 " cannot write to " insert 2 " and tries again every second, keeping
// what its buffer holds: " insert 3
extern const ExternalMessage kmsgLogWriterWriteStopped;
// "Log writer " insert 1 " writes to " insert 2 " again; " insert 3 " messages were dropped
// meanwhile."
extern const ExternalMessage kmsgLogWriterWriteResumed;
// "Log writer " insert 1 " found its file " insert 2 " removed or replaced; it goes on with a
// new file."
extern const ExternalMessage kmsgLogWriterFileVanished;
// "Log writer " insert 1 " does not write to " insert 2 ": it is a symbolic link or not a
// regular file. The writer skips it."
extern const ExternalMessage kmsgLogWriterFileNotRegular;

// Diagnostics of the filter-records reader: values that read as something other than what
// they look like. Inserts: 1 file, 2 line, 3 element, 4 attribute, 5 text as written, 6 what
// it was read as.
// insert 1 ":" insert 2 ": the writer id token '" insert 5 "' in " insert 3 " holds a line break
// or tab; only blanks, commas and semicolons separate ids, so it is read as writer id " insert 6
// "."
extern const ExternalMessage kmsgLogConfigIdTokenWhiteSpace;
// insert 1 ":" insert 2 ": " insert 3 " attribute " insert 4 "='" insert 5 "' is not a plain
// decimal number; it is read as " insert 6 "."
extern const ExternalMessage kmsgLogConfigThresholdNotDecimal;
// insert 1 ":" insert 2 ": " insert 3 " attribute " insert 4 "='" insert 5 "' is outside 0 to
// 65535; only its low 16 bits are kept, so it is read as " insert 6 "."
extern const ExternalMessage kmsgLogConfigThresholdOutOfRange;
// insert 1 ":" insert 2 ": " insert 3 " " insert 4 "='" insert 5 "' (writer ids " insert 6 ") is
// not referenced by any FilterRecord."
extern const ExternalMessage kmsgLogConfigGroupNotReferenced;
// insert 1 ":" insert 2 ": " insert 3 " " insert 4 "='" insert 5 "' (writer ids " insert 6 ") is
// a pattern that matches no existing log source."
extern const ExternalMessage kmsgLogConfigPatternMatchesNoSource;

// "Failed to init log writer " insert 1 ". Its Writer element needs the attribute " insert 2
// "."
extern const ExternalMessage kmsgLogWriterAttributeMissing;
// "Failed to init log writer " insert 1 ". The attribute " insert 2 " of its Writer element
// cannot be '" insert 3 "'."
extern const ExternalMessage kmsgLogConfigAttributeInvalid;
// "Log writer " insert 1 " cannot reach the system log at " insert 2 " (" insert 3 "); the
// messages it cannot send are dropped and counted."
extern const ExternalMessage kmsgLogWriterSystemLogDropping;

// The crash flush (see crashflush.h). Rendered before any crash: the handler only copies them.
// "Fatal signal " insert 1 " (" insert 2 "): the lines logged before it were written out; the
// process goes on to the signal's own handling."
extern const ExternalMessage kmsgLogCrashSignal;
// "Fatal signal " insert 1 ": " insert 2 " log writer(s) were busy and could not write out
// what they held."
extern const ExternalMessage kmsgLogCrashWritersSkipped;
// "More than " insert 1 " file writers exist at once; the ones beyond are neither written out
// on a crash nor locked around a fork."
extern const ExternalMessage kmsgLogCrashTableFull;
// insert 1 ":" insert 2 ": the attribute flushOnCrash of " insert 3 " must be true or false
// (yes, no, 1, 0), not '" insert 4 "'; the crash flush is not turned on."
extern const ExternalMessage kmsgLogConfigFlushOnCrashInvalid;

// The configuration loader's texts. Places are "file:line" (with ":column" where the parser
// or the variable scanner gives one); values from the document are cut by boundedInsert.
// "Logger initialization failed"
extern const ExternalMessage kmsgLoggerInitializationFailed;
// insert 1 ":" insert 2 ": the Format '" insert 3 "' does not compile: " insert 4
extern const ExternalMessage kmsgLogConfigFormatNotCompiled;
// insert 1 ":" insert 2 ": the Format '" insert 3 "' has Encoding '" insert 4 "', which is
// none of Xml, Plain and Json; it is compiled with the default encoding."
extern const ExternalMessage kmsgLogConfigFormatEncodingInvalid;
// insert 1 ":" insert 2 ": " insert 3 (what is wrong, as the reader or a writer said it)
extern const ExternalMessage kmsgLogConfigProblemAt;
// insert 1 ":" insert 2 ":" insert 3 ": a variable marker \"{%\" is not closed by \"%}\"; no
// variable of the document is replaced and the document is not applied."
extern const ExternalMessage kmsgLogConfigUnterminatedVariable;
// insert 1 ":" insert 2 ":" insert 3 ": the document is not well-formed XML: " insert 4
extern const ExternalMessage kmsgLogConfigNotWellFormed;
// insert 1 ": the document has no element '" insert 2 "' below its root element."
extern const ExternalMessage kmsgLogConfigElementMissing;
// insert 1 ":" insert 2 ": " insert 3 " has no attribute " insert 4 ", which it needs."
extern const ExternalMessage kmsgLogConfigAttributeMissing;
// insert 1 ":" insert 2 ": " insert 3 " attribute " insert 4 " is " insert 5 " characters long;
// a value may have at most " insert 6 "."
extern const ExternalMessage kmsgLogConfigAttributeTooLong;
// insert 1 ":" insert 2 ": Writer '" insert 3 "' names implementation '" insert 4 "', which no
// writer class of this process has."
extern const ExternalMessage kmsgLogConfigUnknownImplementation;
// insert 1 ":" insert 2 ": Writer '" insert 3 "': writerClassId '" insert 4 "' is not a writer
// id from 0 to 9; the writer is not built."
extern const ExternalMessage kmsgLogConfigWriterClassIdInvalid;
// insert 1 ":" insert 2 ": Writer '" insert 3 "' (" insert 4 ") could not be set up: " insert 5
extern const ExternalMessage kmsgLogConfigWriterNotBuilt;
// "its initialisation failed; the reason was reported just before."
extern const ExternalMessage kmsgLogConfigWriterInitFailed;
// "The logging configuration " insert 1 " was not applied: " insert 2 " problem(s) found; the
// configuration in force stays."
extern const ExternalMessage kmsgLogConfigNotApplied;

// The longest text of one insert taken from a document or an exception in the loader's
// messages; a longer one is cut and ends with an ellipsis.
constexpr std::size_t kMaxInsertLength = 256;
// text as a message insert, at most nMax characters: a longer text keeps its first nMax - 1
// characters followed by "\u2026".
GDString boundedInsert(std::wstring_view text, std::size_t nMax = kMaxInsertLength);

// The long and short names of the five message types.
extern const ExternalMessage kmsgLogIncidentErrorLong;   // "INCIDENT_ERROR"
extern const ExternalMessage kmsgLogIncidentErrorShort;  // "I_E"
extern const ExternalMessage kmsgLogErrorLong;           // "ERROR"
extern const ExternalMessage kmsgLogErrorShort;          // "E"
extern const ExternalMessage kmsgLogWarningLong;         // "WARNING"
extern const ExternalMessage kmsgLogWarningShort;        // "W"
extern const ExternalMessage kmsgLogInformationLong;     // "NOTIFICATION"
extern const ExternalMessage kmsgLogInformationShort;    // "N"
extern const ExternalMessage kmsgLogTraceLong;           // "TRACE"
extern const ExternalMessage kmsgLogTraceShort;          // "T"

// Execution context tracking: its configuration load and the client's refusals.
// "ExecutionContextImpl::init called"
extern const ExternalMessage kmsgExecutionContextInitCalled;
// "CTM is not initialized by the calling process, ECID tracking is disabled"
extern const ExternalMessage kmsgCtmNotInitialized;
// "ECID tracking is disabled by configuration"
extern const ExternalMessage kmsgEcidTrackingDisabledByConfig;
// "qamContextUnwrap failed for ctx: " insert 1
extern const ExternalMessage kmsgCtmUnwrapFailed;
// "Failed to restore ctx from reference"
extern const ExternalMessage kmsgCtmRestoreFailed;

// Writes a problem of the logger itself (a writer that disabled itself, a configuration value
// refused) as one line on standard error, where an operator sees it even when no writer works.
// Never throws.
[[gnu::cold]] void reportLoggerProblem(const GDValue& message) noexcept;

class LogConfigurationException : public Exception {
public:
    // From a catalogue message, or a message with inserts.
    explicit LogConfigurationException(const GDValue& message);
    ZQ_EXCEPTION_COMMON(LogConfigurationException)
};

class LogFormatNotFound : public LogConfigurationException {
public:
    // kmsgFormatNotFound with insert 1 set to the name.
    explicit LogFormatNotFound(const String& formatName);
    const String& getFormatName() const noexcept { return m_strFormatName; }
    ZQ_EXCEPTION_COMMON(LogFormatNotFound)

private:
    String m_strFormatName;
};

class LoggerException : public Exception {
public:
    // From a catalogue message; the reader sets its inserts before it throws.
    explicit LoggerException(const GDValue& message);
    ZQ_EXCEPTION_COMMON(LoggerException)
};

}  // namespace kiv
