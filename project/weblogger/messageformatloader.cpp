#include "weblogger/messageformatloader.h"

#include <iterator>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "weblogger/loggermessages.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/stringbuffer.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/message.h"

namespace kiv {
namespace {

using Encoding = CompiledMsgFormat::Encoding;

// The names of the format language, built once. A function-local instance rather than
// namespace-scope strings, so that a format compiled during another unit's static
// initialisation never meets unconstructed names.
struct FormatNames {
    // Elements.
    const String m_strFile{L"File"};
    const String m_strLine{L"Line"};
    const String m_strTime{L"Time"};
    const String m_strLogSources{L"LogSources"};
    const String m_strCurrentLogSource{L"CurrentLogSource"};
    const String m_strBacktrace{L"Backtrace"};
    const String m_strProperties{L"Properties"};
    const String m_strPropertyName{L"PropertyName"};
    const String m_strPropertyValues{L"PropertyValues"};
    const String m_strMessageText{L"MessageText"};
    const String m_strMsgType{L"MsgType"};
    const String m_strMsgSeverity{L"MsgSeverity"};
    const String m_strProperty{L"Property"};
    const String m_strLineBreak{L"LineBreak"};
    const String m_strListElementFormat{L"ListElementFormat"};
    const String m_strSeparator{L"Separator"};
    const String m_strPrefix{L"Prefix"};
    const String m_strSuffix{L"Suffix"};
    // Reserved: the ISO 8601 stamp is asked for as Time style="KLFTimeFormat". Nothing
    // matches this name, so an element so named is ignored like any unknown one.
    const String m_strTimeKLFFormat{L"TimeKLFFormat"};

    // Attributes.
    const String m_strEncoding{L"Encoding"};
    const String m_strStyle{L"style"};
    const String m_strName{L"name"};
    const String m_strWhenEmpty{L"whenEmpty"};

    // Attribute values, compared ignoring case.
    const String m_strXml{L"Xml"};
    const String m_strPlain{L"Plain"};
    const String m_strJson{L"Json"};
    const String m_strOmit{L"omit"};
    const String m_strShort{L"short"};
    const String m_strKLFTimeFormat{L"KLFTimeFormat"};
};

const FormatNames& formatNames() {
    static const FormatNames s_names;
    return s_names;
}

// The formats every installation has, whatever its configuration holds. The text rules make
// the line ends and the indentation after them immaterial; line breaks in the output come
// from LineBreak elements only.
constexpr std::string_view kBuiltInFormats =
    "<Formats>\n"
    "<Format name=\"Default\">\n"
    "\tType: <MsgType/><LineBreak/>\n"
    "\tSeverity: <MsgSeverity/><LineBreak/>\n"
    "\tTime: <Time/><LineBreak/>\n"
    "\tFile: <File/> Line: <Line/><LineBreak/>\n"
    "\tProperties: \n"
    "\t<Properties>\n"
    "\t\t<ListElementFormat>\n"
    "\t\t\t<PropertyName/>-\n"
    "\t\t\t<PropertyValues>\n"
    "\t\t\t\t<Separator>,</Separator>\n"
    "\t\t\t</PropertyValues>\n"
    "\t\t</ListElementFormat>\n"
    "\t\t<Separator>;</Separator>\n"
    "\t</Properties><LineBreak/>\n"
    "\tLocation:<LineBreak/>\n"
    "\t<LogSources>\n"
    "\t\t<Prefix>\t</Prefix>\n"
    "\t\t<Separator><LineBreak/></Separator>\n"
    "\t</LogSources><LineBreak/>\n"
    "\t<Backtrace/>\n"
    "\t<LineBreak/>\n"
    "\t<MessageText/><LineBreak/><Backtrace/>\n"
    "\t---------------------------------------<LineBreak/>\n"
    "</Format>\n"
    "<Format name=\"Short\">\n"
    "\t<MsgType style=\"short\" /><MsgSeverity/>\t<CurrentLogSource/>\t<MessageText/>"
    "\t<LineBreak/>\n"
    "</Format>\n"
    "<Format name=\"xml\" Encoding=\"Xml\">\n"
    "\t<LineBreak/>&lt;Message&gt;\n"
    "\t<LineBreak/>   &lt;Type&gt;<MsgType style=\"short\"/>&lt;/Type&gt;\n"
    "\t<LineBreak/>   &lt;Severity&gt;<MsgSeverity/>&lt;/Severity&gt;\n"
    "\t<LineBreak/>   &lt;Time&gt;<Time style=\"short\"/>&lt;/Time&gt;\n"
    "\t<LineBreak/>   &lt;File&gt;<File style=\"short\"/>&lt;/File&gt;\n"
    "\t<LineBreak/>   &lt;Line&gt;<Line/> &lt;/Line&gt;\n"
    "\t<LineBreak/>   &lt;Properties&gt;\n"
    "\t<Properties>\n"
    "\t<ListElementFormat>\n"
    "\t<LineBreak/>      &lt;Property&gt;\n"
    "\t<LineBreak/>         &lt;Name&gt;<PropertyName/>&lt;/Name&gt;\n"
    "\t<LineBreak/>         &lt;Values&gt;\n"
    "\t<PropertyValues>\n"
    "\t<Separator>,</Separator>\n"
    "\t</PropertyValues>\n"
    "\t&lt;/Values&gt;\n"
    "\t<LineBreak/>      &lt;/Property&gt;\n"
    "\t</ListElementFormat>\n"
    "\t</Properties>\n"
    "\t<LineBreak/>   &lt;/Properties&gt;\n"
    "\t<LineBreak/>   &lt;Location&gt;\n"
    "\t<LogSources>\n"
    "\t<Prefix>\n"
    "\t<LineBreak/>      &lt;Logsource&gt;\n"
    "\t</Prefix>\n"
    "\t<Suffix>&lt;/Logsource&gt;</Suffix>\n"
    "\t</LogSources>\n"
    "\t<LineBreak/>   &lt;/Location&gt;\n"
    "\t<LineBreak/>   &lt;MessageText&gt;<MessageText/>&lt;/MessageText&gt;\n"
    "\t<LineBreak/>&lt;/Message&gt;<LineBreak/>\n"
    "</Format>"
    "<Format name=\"KLF-XML\" Encoding=\"Xml\">\n"
    "\t<!--Start message tag(msg) KLF standard attr-->\n"
    "\t<LineBreak/>&lt;msg time=\"<Time style=\"KLFTimeFormat\"/>\" comp_id=\"KVWEB\" "
    "module=\"<CurrentLogSource/>\" msg_id=\"\" type=\"<MsgType style=\"long\"/>\" "
    "level=\"<MsgSeverity/>\" ecid=\"<Property name=\"ecid\"><PropertyValues/></Property>\" "
    "tid=\"<Property name=\"ThreadID\"><PropertyValues/></Property>\"&gt;SI-Name=\"<Property "
    "name=\"SIName\"><PropertyValues/></Property>\" IDD-GUID=\"<Property name=\"IDDGUID\">"
    "<PropertyValues/></Property>\" IDD-Name=\"<Property name=\"IDDName\"><PropertyValues/>"
    "</Property>\" userId=\"<Property name=\"userId\"><PropertyValues/></Property>\" \n"
    "\t<!--Log's Message (txt)-->\n"
    "\t<LineBreak/> &lt;txt&gt;<MessageText/>&lt;/txt&gt;\n"
    "\t<!-- Supplemental Detail/Properties (suppl_detail)-->\n"
    "\t<LineBreak/>   &lt;suppl_detail&gt;\n"
    "\t<LineBreak/>   &lt;File&gt;<File style=\"short\"/>&lt;/File&gt;\n"
    "\t<LineBreak/>   &lt;Line&gt;<Line/>&lt;/Line&gt;\n"
    "\t<LineBreak/>   &lt;Location&gt;\n"
    "\t<LogSources>\n"
    "\t<Prefix>\n"
    "\t<LineBreak/>      &lt;Logsource&gt;\n"
    "\t</Prefix>\n"
    "\t<Suffix>&lt;/Logsource&gt;</Suffix>\n"
    "\t</LogSources>\n"
    "\t<LineBreak/>   &lt;/Location&gt;\n"
    "\t<LineBreak/>   &lt;Properties&gt;\n"
    "\t<Properties>\n"
    "\t<ListElementFormat>\n"
    "\t<LineBreak/>      &lt;Property&gt;\n"
    "\t<LineBreak/>         &lt;Name&gt;<PropertyName/>&lt;/Name&gt;\n"
    "\t<LineBreak/>         &lt;Values&gt;\n"
    "\t<PropertyValues>\n"
    "\t<Separator>,</Separator>\n"
    "\t</PropertyValues>\n"
    "\t&lt;/Values&gt;\n"
    "\t<LineBreak/>      &lt;/Property&gt;\n"
    "\t</ListElementFormat>\n"
    "\t</Properties>\n"
    "\t<LineBreak/>   &lt;/Properties&gt;\n"
    "\t<!--end suppl_detail-->\n"
    "\t<LineBreak/> &lt;/suppl_detail&gt;\n"
    "\t<LineBreak/>&lt;/msg&gt;<LineBreak/> <!--End msg tag-->\n"
    "\t</Format>"
    "<Format name=\"KLF-Text\">[<Time style=\"KLFTimeFormat\"/>] [KVWEB] [<MsgType "
    "style=\"long\"/>:<MsgSeverity/>] [] [<CurrentLogSource/>] [ecid: <Property name=\"ecid\">"
    "<PropertyValues/></Property>] [tid: <Property name=\"ThreadID\"><PropertyValues/>"
    "</Property>] [SI-Name: <Property name=\"SIName\"><PropertyValues/></Property>] [IDD-Name: "
    "<Property name=\"IDDName\"><PropertyValues/></Property>] [IDD-GUID: <Property "
    "name=\"IDDGUID\"><PropertyValues/></Property>] [userId: <Property name=\"userId\">"
    "<PropertyValues/></Property>] \n"
    "\t<MessageText/>[[\n"
    "\t<LineBreak/>\n"
    "\t File:<File style=\"short\"/><LineBreak/>\n"
    "\n"
    "\t Line:<Line/><LineBreak/>\n"
    "\n"
    "\t Location:<LineBreak/>\n"
    "\t<LogSources>\n"
    "\t\t<Prefix>\t</Prefix>\n"
    "\t\t<Separator><LineBreak/></Separator>\n"
    "\t</LogSources><LineBreak/>\n"
    "\n"
    "\t<Properties>\n"
    "\t\t<ListElementFormat>\n"
    "\t\t\t<PropertyName/>: <PropertyValues> <Separator>,</Separator> </PropertyValues> "
    "<LineBreak/>\n"
    "\t\t</ListElementFormat>\n"
    "\t</Properties>]]\n"
    "\t<LineBreak/>\n"
    "</Format>\n"
    // One object per line. The keys are fixed: a reader of the logs depends on them, and they
    // are listed in messageformatloader.h. Values are escaped by the Json encoding; the
    // importance is the only value outside quotes, so a number is all that can stand there.
    "<Format name=\"JSON\" Encoding=\"Json\">\n"
    "\t{\"time\":\"<Time style=\"KLFTimeFormat\"/>\",\n"
    "\t\"type\":\"<MsgType style=\"long\"/>\",\n"
    "\t\"importance\":<MsgSeverity/>,\n"
    "\t\"source\":\"<CurrentLogSource/>\"\n"
    "\t<Property name=\"ecid\" whenEmpty=\"omit\">,\"ecid\":\"<PropertyValues>"
    "<Separator>,</Separator></PropertyValues>\"</Property>\n"
    "\t<Property name=\"ThreadID\">,\"ThreadID\":\"<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>\"</Property>\n"
    "\t<Property name=\"SIName\">,\"SIName\":\"<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>\"</Property>\n"
    "\t<Property name=\"IDDName\">,\"IDDName\":\"<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>\"</Property>\n"
    "\t<Property name=\"IDDGUID\">,\"IDDGUID\":\"<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>\"</Property>\n"
    "\t<Property name=\"userId\">,\"userId\":\"<PropertyValues><Separator>,</Separator>"
    "</PropertyValues>\"</Property>\n"
    // Each property brings its own leading comma: the list's separator is not written before
    // the first property shown but is written after a reserved one that is not shown, which
    // would leave a comma with nothing before it.
    "\t<Properties><ListElementFormat>,\"<PropertyName/>\":\"<PropertyValues>"
    "<Separator>,</Separator></PropertyValues>\"</ListElementFormat></Properties>\n"
    "\t,\"file\":\"<File/>\",\n"
    "\t\"line\":\"<Line/>\",\n"
    "\t\"message\":\"<MessageText/>\"}<LineBreak/>\n"
    "</Format>\n"
    "</Formats>";

// Parsed while the library loads and kept until it unloads. Reached through a function so
// that a unit initialised before this one still finds the document parsed.
const XmlDocument& builtInFormatsDocument() {
    static const XmlDocument s_document =
        XmlDocument::parseString(kBuiltInFormats, String(L"<built-in formats>"));
    return s_document;
}

// Forces the parse at load time, so that no writer pays for it (or meets a parse failure)
// while it is being configured.
const XmlElement* const g_pBuiltInFormatsRoot = MessageFormatLoader::getFallbackLoggerFormats();

bool attributeIs(const XmlElement& element, const String& attributeName, const String& value) {
    return element.unchecked_getAttributeValue(attributeName).compareNoCase(value) == 0;
}

// Formats are written indented over many lines for readability, so a line end and the blanks
// that follow it are layout, not output; blanks inside a line are kept.
String stripEndOfLines(std::wstring_view text) {
    StringBufferTemplate<511, wchar_t> buffer;
    bool bAfterLineEnd = false;
    for (const wchar_t c : text) {
        if (c == L'\r' || c == L'\n') {
            bAfterLineEnd = true;
        } else if (bAfterLineEnd && (c == L' ' || c == L'\t')) {
            continue;
        } else {
            buffer.append(c);
            bAfterLineEnd = false;
        }
    }
    return buffer.toString();
}

bool isText(const XmlNode& node) noexcept {
    return node.getNodeType() == XmlNode::kTypeText ||
           node.getNodeType() == XmlNode::kTypeCDataSection;
}

// The value of a Separator, Prefix or Suffix element. These hold decoration text only, so
// LineBreak is the one element that means something here; others are dropped.
String xmlToString(const XmlElement& element) {
    const FormatNames& names = formatNames();
    String strValue;
    for (const XmlNode* pNode = element.getFirstChild(); pNode != nullptr;
         pNode = pNode->getNextSibling()) {
        if (isText(*pNode)) {
            strValue.append(stripEndOfLines(pNode->getNodeValue()));
        } else if (const XmlElement* pChild = pNode->asElement();
                   pChild != nullptr && pChild->getName() == names.m_strLineBreak) {
            strValue.append(L'\n');
        }
    }
    return strValue;
}

void addRecordOfKind(CompiledMsgFormat& format, CompiledMsgFormat::MessagePart nType) {
    format.addRecord(new CompiledMsgFormat::Record(nType));
}

void addText(CompiledMsgFormat& format, String strText) {
    format.addRecord(new CompiledMsgFormat::TextRecord(std::move(strText)));
}

// The texts are read now, in the catalogue's current language; compiled formats do not follow
// later changes of the catalogue.
CompiledMsgFormat::EnumRecord* loadMsgTypes(bool bShortStyle) {
    // The short list keeps the long trace text on purpose: a trace line reads "TRACE" in
    // every style.
    const ExternalMessage* const arrLong[] = {&kmsgLogIncidentErrorLong, &kmsgLogErrorLong,
                                              &kmsgLogWarningLong, &kmsgLogInformationLong,
                                              &kmsgLogTraceLong};
    const ExternalMessage* const arrShort[] = {&kmsgLogIncidentErrorShort, &kmsgLogErrorShort,
                                               &kmsgLogWarningShort, &kmsgLogInformationShort,
                                               &kmsgLogTraceLong};
    const WebTextMessageFormatter& formatter = WebTextMessageFormatter::getInstance();
    StringBufferTemplate<511, wchar_t> buffer;
    std::vector<String> vecValues;
    vecValues.reserve(std::size(arrLong));
    for (const ExternalMessage* pMessage : bShortStyle ? arrShort : arrLong) {
        buffer.clear();
        formatter.FormatBuffer(buffer, *pMessage);
        vecValues.push_back(buffer.toString());
    }
    return new CompiledMsgFormat::EnumRecord(std::move(vecValues));
}

void addSimpleListRecordToFmt(CompiledMsgFormat& format, const XmlElement& element,
                              CompiledMsgFormat::MessagePart nType) {
    const FormatNames& names = formatNames();
    String strSeparator;
    String strPrefix;
    String strSuffix;
    for (const XmlElement* pChild = element.getFirstChildElement(); pChild != nullptr;
         pChild = pChild->getNextSiblingElement()) {
        if (pChild->getName() == names.m_strSeparator) {
            strSeparator = xmlToString(*pChild);
        } else if (pChild->getName() == names.m_strPrefix) {
            strPrefix = xmlToString(*pChild);
        } else if (pChild->getName() == names.m_strSuffix) {
            strSuffix = xmlToString(*pChild);
        }
    }
    format.addRecord(new CompiledMsgFormat::SimpleListRecord(
        nType, std::move(strSeparator), std::move(strPrefix), std::move(strSuffix)));
}

void addComplexListRecordToFmt(CompiledMsgFormat& format, const XmlElement& element) {
    const FormatNames& names = formatNames();
    // Owned here until the record takes it, so that a throw on the way deletes it.
    std::unique_ptr<CompiledMsgFormat> pNested(new CompiledMsgFormat);
    String strSeparator;
    for (const XmlElement* pChild = element.getFirstChildElement(); pChild != nullptr;
         pChild = pChild->getNextSiblingElement()) {
        if (pChild->getName() == names.m_strSeparator) {
            strSeparator = xmlToString(*pChild);
        } else if (pChild->getName() == names.m_strListElementFormat) {
            MessageFormatLoader::loadFormat(*pNested, *pChild, format.m_Encoding);
        }
    }
    CompiledMsgFormat::Record* pRecord =
        new CompiledMsgFormat::ComplexListRecord(std::move(strSeparator), pNested.get());
    pNested.release();
    format.addRecord(pRecord);
}

// nTargetEncoding: what the target of the enclosing load held when that load began. A
// property's nested format receives it, where a list element format receives the encoding
// being compiled. The renderer never reads a nested format's encoding, so the difference has
// no effect; it is kept so that compiled formats stay exactly as they have always been.
void addSpecificPropertyToFmt(CompiledMsgFormat& format, const XmlElement& element,
                              Encoding nTargetEncoding) {
    const FormatNames& names = formatNames();
    String strName = element.getAttributeValue(names.m_strName, true);
    const bool bOmitWhenEmpty = attributeIs(element, names.m_strWhenEmpty, names.m_strOmit);
    std::unique_ptr<CompiledMsgFormat> pNested(new CompiledMsgFormat);
    MessageFormatLoader::loadFormat(*pNested, element, nTargetEncoding);
    CompiledMsgFormat::Record* pRecord = new CompiledMsgFormat::SingleValueFromListRecord(
        std::move(strName), pNested.get(), bOmitWhenEmpty);
    pNested.release();
    format.addRecord(pRecord);
}

void compileElement(CompiledMsgFormat& format, const XmlElement& element,
                    Encoding nTargetEncoding) {
    using Format = CompiledMsgFormat;
    const FormatNames& names = formatNames();
    const String& strName = element.getName();
    if (strName == names.m_strFile) {
        addRecordOfKind(format, attributeIs(element, names.m_strStyle, names.m_strShort)
                                    ? Format::kFileName
                                    : Format::kFile);
    } else if (strName == names.m_strLine) {
        addRecordOfKind(format, Format::kLine);
    } else if (strName == names.m_strTime) {
        addRecordOfKind(format, attributeIs(element, names.m_strStyle, names.m_strKLFTimeFormat)
                                    ? Format::kTimeStampKLFFormat
                                    : Format::kTimeStamp);
    } else if (strName == names.m_strLogSources) {
        addSimpleListRecordToFmt(format, element, Format::kLogSourcesList);
    } else if (strName == names.m_strCurrentLogSource) {
        addRecordOfKind(format, Format::kCurLogSource);
    } else if (strName == names.m_strBacktrace) {
        addRecordOfKind(format, Format::kBacktrace);
    } else if (strName == names.m_strProperties) {
        addComplexListRecordToFmt(format, element);
    } else if (strName == names.m_strPropertyName) {
        addRecordOfKind(format, Format::kPropName);
    } else if (strName == names.m_strPropertyValues) {
        addSimpleListRecordToFmt(format, element, Format::kPropValuesList);
    } else if (strName == names.m_strMessageText) {
        addRecordOfKind(format, Format::kMsg);
    } else if (strName == names.m_strMsgType) {
        format.addRecord(loadMsgTypes(attributeIs(element, names.m_strStyle, names.m_strShort)));
    } else if (strName == names.m_strMsgSeverity) {
        addRecordOfKind(format, Format::kSeverity);
    } else if (strName == names.m_strProperty) {
        addSpecificPropertyToFmt(format, element, nTargetEncoding);
    } else if (strName == names.m_strLineBreak) {
        addText(format, String(L"\n"));
    }
}

}  // namespace

CompiledMsgFormat::TextRecord::TextRecord(String strText)
    : Record(kText), m_strText(std::move(strText)), m_strUtf8(toUtf8(m_strText.view())) {}

void CompiledMsgFormat::TextRecord::append(const String& strMore) {
    NString strUtf8 = m_strUtf8;
    strUtf8.append(toUtf8(strMore.view()));
    m_strText.append(strMore);
    m_strUtf8 = std::move(strUtf8);
}

CompiledMsgFormat::EnumRecord::EnumRecord(std::vector<String> vecValues)
    : Record(kMsgType), m_vecValues(std::move(vecValues)) {
    m_vecUtf8Values.reserve(m_vecValues.size());
    for (const String& strValue : m_vecValues) {
        m_vecUtf8Values.push_back(toUtf8(strValue.view()));
    }
}

CompiledMsgFormat::SingleValueFromListRecord::SingleValueFromListRecord(String strValueName,
                                                                        CompiledMsgFormat* pFormat,
                                                                        bool bOmitWhenEmpty)
    : Record(kSpecificProperty),
      m_strValueName(std::move(strValueName)),
      m_pFormat(pFormat),
      m_bOmitWhenEmpty(bOmitWhenEmpty),
      m_pBareValues(nullptr) {
    if (pFormat != nullptr && pFormat->m_records.size() == 1 &&
        pFormat->m_records.front()->m_nType == kPropValuesList) {
        const auto* pList = static_cast<const SimpleListRecord*>(pFormat->m_records.front());
        if (pList->m_strPrefix.empty() && pList->m_strSuffix.empty()) {
            m_pBareValues = pList;
        }
    }
}

CompiledMsgFormat::~CompiledMsgFormat() {
    for (Record* pRecord : m_records) {
        delete pRecord;
    }
}

void CompiledMsgFormat::addRecord(Record* pRecord) {
    // Owned from here on, even when appending fails.
    std::unique_ptr<Record> hRecord(pRecord);
    if (pRecord->m_nType == kText && !m_records.empty() && m_records.back()->m_nType == kText) {
        // One text record per run of text keeps the renderer's walk short.
        static_cast<TextRecord*>(m_records.back())
            ->append(static_cast<TextRecord*>(pRecord)->m_strText);
        return;
    }
    m_records.push_back(pRecord);
    hRecord.release();
}

void CompiledMsgFormat::swap(CompiledMsgFormat& other) noexcept {
    m_records.swap(other.m_records);
    std::swap(m_strMessageSeparator, other.m_strMessageSeparator);
    std::swap(m_Encoding, other.m_Encoding);
}

void MessageFormatLoader::loadFormat(CompiledMsgFormat& format, const XmlElement& formatElement,
                                     CompiledMsgFormat::Encoding defaultEncoding) {
    const FormatNames& names = formatNames();
    const Encoding nTargetEncoding = format.m_Encoding;
    // Built aside and swapped in at the end, so that a throw leaves the target as it was.
    CompiledMsgFormat working;
    working.m_Encoding = defaultEncoding;
    const String& strEncoding = formatElement.unchecked_getAttributeValue(names.m_strEncoding);
    if (!strEncoding.empty()) {
        if (strEncoding.compareNoCase(names.m_strXml) == 0) {
            working.m_Encoding = CompiledMsgFormat::kEncodingXml;
        } else if (strEncoding.compareNoCase(names.m_strPlain) == 0) {
            working.m_Encoding = CompiledMsgFormat::kEncodingPlain;
        } else if (strEncoding.compareNoCase(names.m_strJson) == 0) {
            working.m_Encoding = CompiledMsgFormat::kEncodingJson;
        } else {
            // A misspelt encoding must not cost the writer its output: report it and go on
            // with the default.
            ZQ_ASSERT(false);
        }
    }
    for (const XmlNode* pNode = formatElement.getFirstChild(); pNode != nullptr;
         pNode = pNode->getNextSibling()) {
        if (isText(*pNode)) {
            addText(working, stripEndOfLines(pNode->getNodeValue()));
        } else if (const XmlElement* pElement = pNode->asElement()) {
            compileElement(working, *pElement, nTargetEncoding);
        }
    }
    format.swap(working);
}

const XmlElement* MessageFormatLoader::getFallbackLoggerFormats() {
    return builtInFormatsDocument().getDocumentElement();
}

}  // namespace kiv
