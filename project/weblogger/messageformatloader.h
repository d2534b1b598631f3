// Message formats: the compiled form and the compiler.
//
// A format is a small XML language in which literal text is mixed with empty elements that
// stand for parts of a message (type, severity, time, file, line, sources, properties, text,
// backtrace). MessageFormatLoader compiles one Format element into a CompiledMsgFormat: an
// ordered list of records that the renderer walks once per message, dispatching on each
// record's kind (m_nType) rather than on virtual calls. Rendering never looks at XML again.
//
// A compiled format is immutable once built and is owned by the message writer that renders it.
//
// Encodings. A Format element's Encoding attribute (compared ignoring case) says how rendered
// values are written: "Xml" escapes them for XML, "Plain" leaves them as they are, and "Json"
// escapes them for the inside of a JSON string (quotation mark, backslash and the C0 controls
// escaped; text that is not valid Unicode written as U+FFFD). The format's own text is never
// escaped, so a Json format writes the braces, quotes, keys and commas of its objects as literal
// text and puts the values between quotes. Unlike Xml, Json escapes every value, the current
// source, the message type text and property values included: an unescaped quotation mark
// would end the string early.
//
// A Property element may carry whenEmpty="omit": the property is then left out, literal text
// and all, when none of its values renders any text, as though it were not set. It is how a
// format leaves out the "ecid" of a thread that has no execution context, whose property is
// always set but renders empty text.
//
// The built-in formats are Default, Short, xml, KLF-XML, KLF-Text and JSON. JSON writes one JSON
// object per message on one line ("JSON Lines"), its keys fixed and in this order:
//
//   "time"        the moment of rendering, ISO 8601 with the zone offset, in the logging time
//                 zone, to the second: "2026-03-29T01:30:05+01:00"
//   "type"        the message type: "INCIDENT_ERROR", "ERROR", "WARNING", "NOTIFICATION",
//                 "TRACE" (the catalogue's long texts)
//   "importance"  the message's importance, a JSON number
//   "source"      the full dotted name of the current log source ("" without one)
//   "ecid"        the thread's execution context id, "<ecid>,<rid>"; absent when the thread
//                 has no context
//   "ThreadID", "SIName", "IDDName", "IDDGUID", "userId"
//                 these properties, each only when it is set
//   then every other property whose level reaches the message's importance, under its own
//   name, in no particular order
//   "file"        the source file of the call, shortened to its path within the project
//   "line"        the line of the call, as a string of decimal digits
//                 (both "" when the caller gave no location, which the renderer reports)
//   "message"     the message text
//
// Every value but the importance is a JSON string; a property with several values shows them
// joined by commas. Keys are the property names as they are: a property named like one of the
// fixed keys gives the object that key twice, which most readers resolve by keeping the last.
#pragma once

#include <vector>

#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

class CompiledMsgFormat : public MemAllocNewdel {
public:
    // How rendered values are escaped: for XML, not at all, or for a JSON string.
    enum Encoding : int { kEncodingXml = 0, kEncodingPlain = 1, kEncodingJson = 2 };

    // The kind of a record.
    enum MessagePart {
        kText = 0,
        kTimeStamp = 1,
        kLogSourcesList = 2,
        kCurLogSource = 3,
        kFile = 4,
        kFileName = 5,
        kLine = 6,
        kPropsList = 7,
        kPropName = 8,
        kPropValuesList = 9,
        kMsg = 10,
        kMsgType = 11,
        kSeverity = 12,
        kSpecificProperty = 13,
        kComponentID = 14,
        kExecTransactionID = 15,
        kMessageID = 16,
        kTimeStampKLFFormat = 17,
        kBacktrace = 18
    };

    // The only virtual operation of the record hierarchy is the destructor.
    class Record : public MemAllocNewdel {
    public:
        explicit Record(MessagePart nType) noexcept : m_nType(nType) {}
        virtual ~Record() = default;
        Record(const Record&) = delete;
        Record& operator=(const Record&) = delete;

        MessagePart m_nType;
    };

    // Format text, kept also as UTF-8: most lines go to files, and their renderer copies the
    // bytes instead of encoding the same text for every message.
    class TextRecord : public Record {
    public:
        explicit TextRecord(String strText);
        // Appends more text to both forms.
        void append(const String& strMore);
        String m_strText;
        NString m_strUtf8;
    };

    // The texts of the five message types, indexed by the type, and their UTF-8 forms.
    class EnumRecord : public Record {
    public:
        explicit EnumRecord(std::vector<String> vecValues);
        std::vector<String> m_vecValues;
        std::vector<NString> m_vecUtf8Values;
    };

    class ListRecordBase : public Record {
    public:
        ListRecordBase(MessagePart nType, String strSeparator)
            : Record(nType), m_strSeparator(std::move(strSeparator)) {}
        String m_strSeparator;
    };

    // A list whose items are written between a prefix and a suffix.
    class SimpleListRecord : public ListRecordBase {
    public:
        SimpleListRecord(MessagePart nType, String strSeparator, String strPrefix, String strSuffix)
            : ListRecordBase(nType, std::move(strSeparator)),
              m_strPrefix(std::move(strPrefix)),
              m_strSuffix(std::move(strSuffix)) {}
        String m_strPrefix;
        String m_strSuffix;
    };

    // A list whose items are each rendered by a nested format (owned).
    class ComplexListRecord : public ListRecordBase {
    public:
        ComplexListRecord(String strSeparator, CompiledMsgFormat* pFormat)
            : ListRecordBase(kPropsList, std::move(strSeparator)), m_pFormat(pFormat) {}
        ~ComplexListRecord() override { delete m_pFormat; }
        CompiledMsgFormat* m_pFormat;
    };

    // One named property, rendered by a nested format (owned). With m_bOmitWhenEmpty a property
    // whose values all render as empty text is treated as not set.
    class SingleValueFromListRecord : public Record {
    public:
        SingleValueFromListRecord(String strValueName, CompiledMsgFormat* pFormat,
                                  bool bOmitWhenEmpty = false);
        ~SingleValueFromListRecord() override { delete m_pFormat; }
        String m_strValueName;
        CompiledMsgFormat* m_pFormat;
        bool m_bOmitWhenEmpty;
        // When the nested format is its values alone (one PropertyValues without prefix or
        // suffix, as every built-in format has it), that list; otherwise null. A renderer then
        // writes the values without walking the nested format.
        const SimpleListRecord* m_pBareValues;
    };

    // No records, encoding kEncodingXml.
    CompiledMsgFormat() = default;
    ~CompiledMsgFormat();
    CompiledMsgFormat(const CompiledMsgFormat&) = delete;
    CompiledMsgFormat& operator=(const CompiledMsgFormat&) = delete;

    // Takes ownership. A text record that follows a text record is merged into it (its text
    // appended, the new record deleted); every other record is appended.
    void addRecord(Record* pRecord);
    // Exchanges records, separator and encoding.
    void swap(CompiledMsgFormat& other) noexcept;

    std::vector<Record*> m_records;
    String m_strMessageSeparator;
    Encoding m_Encoding = kEncodingXml;
};

class MessageFormatLoader {
public:
    // Compiles the children of formatElement (whatever the element's own name) and replaces
    // the whole content of format with the result; format is untouched when compiling throws.
    static void loadFormat(CompiledMsgFormat& format, const XmlElement& formatElement,
                           CompiledMsgFormat::Encoding defaultEncoding);
    // The root element (Formats) of the built-in formats document, parsed once at load.
    static const XmlElement* getFallbackLoggerFormats();
};

}  // namespace kiv
