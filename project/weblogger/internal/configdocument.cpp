#include "weblogger/internal/configdocument.h"

#include <cstdint>
#include <cwchar>
#include <fstream>
#include <iterator>
#include <string>

#include "weblogger/internal/configvariables.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/internal/genericwriter.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/xmlconfigreader.h"
#include "zq/webkeel/transcode.h"

namespace kiv::logger_details {

const ZQWString kWritersPath(L"Writers/Writer");
const ZQWString kFilterRecordsPath(L"Filters/FilterRecord");
const ZQWString kImplementationAttribute(L"implementation");
const ZQWString kWriterClassAttribute(L"writerClassId");
const ZQWString kWriterNameAttribute(L"name");

namespace {

const ZQWString kFormatsPath(L"Formats");

}  // namespace

// Serialises the operations of the loader: two reconfigurations must not interleave their
// building and installing. Recursive because initialize and configAll call the other forms.
// Taken before the writer registry's monitor.
std::recursive_mutex& configurationMutex() {
    static std::recursive_mutex s_mutex;
    return s_mutex;
}

String textOf(const GDValue& value) {
    return value.toString();
}

ParamMessage problemAt(const SourcePlace& place, unsigned nLine, const GDValue& what) {
    return ParamMessage(kmsgLogConfigProblemAt)
        .setInsert(1, boundedInsert(place.strFile.view()))
        .setInsert(2, GDUInteger64(nLine))
        .setInsert(3, what);
}

// An exception's text as an insert: longer than one value may be, but still bounded.
GDString exceptionInsert(const Exception& e) {
    return boundedInsert(textOf(e.getMsg()).view(), 4 * kMaxInsertLength);
}

// Root with its variables replaced, parsed again into holder. Throws
// LogConfigurationException for an unterminated marker (before the scanner sees it) and
// XmlException when the replaced text does not parse.
const XmlElement& replaceVariables(const XmlElement& root, const ReplacementMap& map,
                                   SourcePlace& place, XmlDocument& holder) {
    const String text = root.toXmlString();
    // The serialised element starts with its own start tag on line 1.
    place.nLineOffset += root.getLine() > 0 ? root.getLine() - 1 : 0;
    const std::size_t nAt = findUnterminatedMarker(text.view());
    if (nAt != std::wstring_view::npos) {
        const TextPosition pos = positionOf(text.view(), nAt);
        ZQ_THROW(
            LogConfigurationException(ParamMessage(kmsgLogConfigUnterminatedVariable)
                                          .setInsert(1, boundedInsert(place.strFile.view()))
                                          .setInsert(2, GDUInteger64(pos.nLine + place.nLineOffset))
                                          .setInsert(3, GDUInteger64(pos.nColumn))));
    }
    holder = XmlDocument::parseString(makeReplacements(text, map), place.strFile);
    return *holder.getDocumentElement();
}

// The format sources of a document, in the order a writer's format name is looked up: the
// document's own Formats, the catalogue's formats, the library's built-in ones.
void buildFormatChain(const XmlElement& root, LogWritersFactory::ConfigChain& chain) {
    for (const XmlElement* pFormats : root.selectElements(kFormatsPath.view())) {
        chain.push_back(pFormats);
    }
    if (const XmlElement* pCatalogue = kmsgLogFormats.getStructuredContent()) {
        chain.push_back(pCatalogue);
    }
    chain.push_back(MessageFormatLoader::getFallbackLoggerFormats());
}

// The writer id as the factory reads it; false when it is outside 0 to 9 (negative included).
bool isValidClassId(const String& strClassId) noexcept {
    const auto nId = static_cast<std::uint32_t>(std::wcstol(strClassId.c_str(), nullptr, 10));
    return nId < 10;
}

// The writer's filter: its own records, or with a file prefix the global records of its id;
// null when there is no record at all (the writer then accepts every source).
Handle<const WriterFilter> buildWriterFilter(const XmlElement& root, const XmlElement& writer,
                                             const String& strClassId, bool bFromGlobal) {
    Handle<WriterFilter> hFilter(new WriterFilter());
    const bool bAny = bFromGlobal ? KivXmlConfigReader::populate(*hFilter, root, strClassId)
                                  : KivXmlConfigReader::populate(*hFilter, writer);
    return bAny ? Handle<const WriterFilter>(hFilter) : Handle<const WriterFilter>();
}

String describeWriter(const LogWriter& writer) {
    String text = writer.getName();
    text += L" (id ";
    text += widen(std::to_string(writer.getClassId()));
    if (const auto* pFile = dynamic_cast<const FileLogWriter*>(&writer)) {
        text += L", files ";
        text += pFile->getFilePrefix();
        text += L"*.log";
    } else if (dynamic_cast<const CoutWriter*>(&writer) != nullptr) {
        text += L", standard output";
    }
    text += L")";
    return text;
}

std::vector<String> describeWriters(const std::vector<Handle<LogWriter>>& vecWriters) {
    std::vector<String> vecText;
    for (const Handle<LogWriter>& hWriter : vecWriters) {
        vecText.push_back(describeWriter(*hWriter));
    }
    return vecText;
}

std::vector<Handle<LogWriter>> currentGlobalWriters() {
    std::vector<Handle<LogWriter>> vecWriters;
    AtomicEntity<int> version(0);
    LogWritersMan::getLogWritersMan().getWriters(vecWriters, version);
    return vecWriters;
}

// Takes writers out of service: when this returns none of them writes any more, and what the
// file writers among them still buffered is in their files (before a replacement resumes the
// same ring, and without waiting for the last thread that holds one to let it go). Called
// under the registry's monitor.
void retireWriters(const std::vector<Handle<LogWriter>>& vecWriters) {
    for (const Handle<LogWriter>& hWriter : vecWriters) {
        hWriter->retire();
    }
    for (const Handle<LogWriter>& hWriter : vecWriters) {
        if (auto* pFile = dynamic_cast<FileLogWriter*>(hWriter.get())) {
            pFile->flush();
        }
    }
}

// Takes global writers that entered the registry after its first nKeep entries out of service
// and out of the list: a writer whose initialisation failed must never write. Called under the
// registry's monitor.
void dropWritersAfter(std::size_t nKeep) {
    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    const std::vector<Handle<LogWriter>> vecWriters = currentGlobalWriters();
    for (std::size_t i = nKeep; i < vecWriters.size(); ++i) {
        vecWriters[i]->setIsEnabled(false);
        registry.removeLogWriter(vecWriters[i].get());
    }
}

ParamMessage attributeTooLong(const SourcePlace& place, const XmlElement& element,
                              const XmlElement::Attribute& attribute) {
    return ParamMessage(kmsgLogConfigAttributeTooLong)
        .setInsert(1, boundedInsert(place.strFile.view()))
        .setInsert(2, GDUInteger64(place.lineOf(element)))
        .setInsert(3, boundedInsert(element.getName().view()))
        .setInsert(4, boundedInsert(attribute.first.view()))
        .setInsert(5, GDUInteger64(attribute.second.size()))
        .setInsert(6, GDUInteger64(kMaxAttributeLength));
}

// The text of a UTF-8 file (byte-order mark or not); false for a UTF-16 file, which the XML
// layer reads itself. Throws XmlException when the file cannot be read.
bool readUtf8Text(const ZQWString& file, String& text) {
    std::ifstream in(toUtf8(file.view()).c_str(), std::ios::binary);
    if (!in) {
        throw XmlException(String(L"the file cannot be read"), file);
    }
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() >= 2 && ((bytes[0] == '\xFF' && bytes[1] == '\xFE') ||
                              (bytes[0] == '\xFE' && bytes[1] == '\xFF'))) {
        return false;
    }
    std::string_view view(bytes);
    if (view.substr(0, 3) == "\xEF\xBB\xBF") {
        view.remove_prefix(3);
    }
    text = fromUtf8(view);
    return true;
}

}  // namespace kiv::logger_details
