// What both ways of applying a logging document share: where its elements were written, the
// problems named with that place, variables, the format chain, the writers' filters and the
// registry's global writers. reconfigure checks a document with the same pieces that
// configAll and configWriters apply it with, so that a document that passes the check is read
// the same way when it is installed.
#pragma once

#include <cstddef>
#include <mutex>
#include <vector>

#include "weblogger/loggermessages.h"
#include "weblogger/logwriter.h"
#include "weblogger/replacementmap.h"
#include "weblogger/writerfilter.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv::logger_details {

// XmlLogConfiguration::kMaxAttributeLength, which the loader's unit checks to be the same: the
// public header cannot be included here without tying the two units in a circle.
inline constexpr std::size_t kMaxAttributeLength = 4096;

// Paths and attributes both ways read.
extern const ZQWString kWritersPath;
extern const ZQWString kFilterRecordsPath;
extern const ZQWString kImplementationAttribute;
extern const ZQWString kWriterClassAttribute;
extern const ZQWString kWriterNameAttribute;

// Serialises the operations of the loader: two reconfigurations must not interleave their
// building and installing. Recursive because initialize and configAll call the other forms.
// Taken before the writer registry's monitor.
std::recursive_mutex& configurationMutex();

// Where the elements being read were written: the file named in problems, and how far the
// lines of a document that was serialised and parsed again are from the lines of the original.
struct SourcePlace {
    ZQWString strFile;
    unsigned nLineOffset = 0;

    unsigned lineOf(const XmlElement& element) const noexcept {
        return element.getLine() + nLineOffset;
    }
};

String textOf(const GDValue& value);

// "file:line: what".
ParamMessage problemAt(const SourcePlace& place, unsigned nLine, const GDValue& what);

// An exception's text as an insert: longer than one value may be, but still bounded.
GDString exceptionInsert(const Exception& e);

// Root with its variables replaced, parsed again into holder; place's line offset grows by
// root's line. Throws LogConfigurationException for an unterminated marker and XmlException
// when the replaced text does not parse.
const XmlElement& replaceVariables(const XmlElement& root, const ReplacementMap& map,
                                   SourcePlace& place, XmlDocument& holder);

// The format sources of a document, in the order a writer's format name is looked up.
void buildFormatChain(const XmlElement& root, LogWritersFactory::ConfigChain& chain);

// The writer id as the factory reads it; false when it is outside 0 to 9 (negative included).
bool isValidClassId(const String& strClassId) noexcept;

// The writer's filter: its own records, or with a file prefix the global records of its id;
// null when there is no record at all.
Handle<const WriterFilter> buildWriterFilter(const XmlElement& root, const XmlElement& writer,
                                             const String& strClassId, bool bFromGlobal);

// "name (id N, files prefix*.log)", "name (id N, standard output)" or "name (id N)".
String describeWriter(const LogWriter& writer);
std::vector<String> describeWriters(const std::vector<Handle<LogWriter>>& vecWriters);

std::vector<Handle<LogWriter>> currentGlobalWriters();

// Takes writers out of service and flushes the file writers among them. Called under the
// registry's monitor.
void retireWriters(const std::vector<Handle<LogWriter>>& vecWriters);

// Takes the global writers after the registry's first nKeep entries out of service and out of
// the list. Called under the registry's monitor.
void dropWritersAfter(std::size_t nKeep);

// Calls onOversized(element, attribute) for every attribute of element and below it that is
// longer than the loader accepts; whether there was none.
template <class OnOversized>
bool forEachOversizedAttribute(const XmlElement& element, OnOversized&& onOversized) {
    bool bFine = true;
    for (const XmlElement::Attribute& attribute : element.getAttributes()) {
        if (attribute.second.size() > kMaxAttributeLength) {
            onOversized(element, attribute);
            bFine = false;
        }
    }
    for (const XmlElement* pChild = element.getFirstChildElement(); pChild != nullptr;
         pChild = pChild->getNextSiblingElement()) {
        bFine = forEachOversizedAttribute(*pChild, onOversized) && bFine;
    }
    return bFine;
}

// The problem of one attribute that forEachOversizedAttribute found.
ParamMessage attributeTooLong(const SourcePlace& place, const XmlElement& element,
                              const XmlElement::Attribute& attribute);

// The text of a UTF-8 file (byte-order mark or not); false for a UTF-16 file, which the XML
// layer reads itself. Throws XmlException when the file cannot be read.
bool readUtf8Text(const ZQWString& file, String& text);

}  // namespace kiv::logger_details
