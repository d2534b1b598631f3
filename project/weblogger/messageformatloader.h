// Message formats: the compiled form and the compiler.
//
// A format is a small XML language in which literal text is mixed with empty elements that
// stand for parts of a message (type, severity, time, file, line, sources, properties, text,
// backtrace). MessageFormatLoader compiles one Format element into a CompiledMsgFormat: an
// ordered list of records that the renderer walks once per message, dispatching on each
// record's kind (m_nType) rather than on virtual calls. Rendering never looks at XML again.
//
// A compiled format is immutable once built and is owned by the message writer that renders it.
#pragma once

#include <vector>

#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

class CompiledMsgFormat : public MemAllocNewdel {
public:
    // Whether rendered values are escaped for XML.
    enum Encoding : int { kEncodingXml = 0, kEncodingPlain = 1 };

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

    class TextRecord : public Record {
    public:
        explicit TextRecord(String strText) : Record(kText), m_strText(std::move(strText)) {}
        String m_strText;
    };

    // The texts of the five message types, indexed by the type.
    class EnumRecord : public Record {
    public:
        explicit EnumRecord(std::vector<String> vecValues)
            : Record(kMsgType), m_vecValues(std::move(vecValues)) {}
        std::vector<String> m_vecValues;
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

    // One named property, rendered by a nested format (owned).
    class SingleValueFromListRecord : public Record {
    public:
        SingleValueFromListRecord(String strValueName, CompiledMsgFormat* pFormat)
            : Record(kSpecificProperty),
              m_strValueName(std::move(strValueName)),
              m_pFormat(pFormat) {}
        ~SingleValueFromListRecord() override { delete m_pFormat; }
        String m_strValueName;
        CompiledMsgFormat* m_pFormat;
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
