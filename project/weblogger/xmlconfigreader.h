// Reading thresholds out of the logging configuration.
//
// KivXmlConfigReader turns the WriterClassGroups and Filters elements of a logging element into
// a GlobalFilterConfiguration (thresholds per source path and writer id, applied to the source
// tree by LogSourcesMan::applyConfig), and the Filters of one Writer element, or the global
// records that concern one writer id, into that writer's WriterFilter. All operations are
// static; the reader keeps nothing between calls.
//
// Numbers are read the way the platform's decimal conversions read them, with no error checks,
// and the results are kept even where they surprise: a line break does not separate writer ids,
// a threshold of 65536 is stored as 0 and one of -1 as "not set". Because those surprises are
// silent, every reading operation can also fill a FilterConfigDiagnostics with the places where
// the text reads as something other than it appears to say. Collecting them changes no result,
// and without a collector reading does no extra work.
#pragma once

#include <string_view>
#include <utility>
#include <vector>

#include "weblogger/logfilter.h"
#include "weblogger/logfilterconfig.h"
#include "weblogger/writerfilter.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/message.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

// One place in a logging configuration whose text is read as something it does not look like.
class FilterConfigDiagnostic {
public:
    enum Kind {
        // A writer id token that holds a line break or tab (which do not separate ids).
        FD_ID_TOKEN_WHITE_SPACE,
        // A threshold that is not a plain run of decimal digits ("-1", " 5", "5x").
        FD_THRESHOLD_NOT_DECIMAL,
        // A threshold of plain digits above 65535, of which only the low 16 bits are kept.
        FD_THRESHOLD_OUT_OF_RANGE,
        // A WriterClassGroup that no FilterRecord names.
        FD_GROUP_NOT_REFERENCED,
        // A FilterRecord pattern that matches none of the sources that exist when it is read.
        FD_PATTERN_MATCHES_NO_SOURCE
    };

    // The catalogue message that describes it, with the six inserts set (file, line, element,
    // attribute, text with line breaks and tabs shown as \n, \r and \t, what it was read as).
    ParamMessage getMessage() const;

    Kind m_nKind;
    // The file named to the collector, or empty.
    ZQWString m_strFile;
    // The line of the element's start tag; 0 for an element that was built in code.
    unsigned m_nLine;
    ZQWString m_strElement;
    // Empty for the inner text of an element.
    ZQWString m_strAttribute;
    // The text as written.
    ZQWString m_strText;
    // What the reader made of it: a writer id, a stored threshold, or a list of writer ids.
    ZQWString m_strReadAs;
    // The column of the element's start tag; 0 for an element that was built in code.
    unsigned m_nColumn = 0;
};

// Collects diagnostics for one document, in the order the reader meets them.
class FilterConfigDiagnostics {
public:
    // file: what the diagnostics name as their file; the file forms of the reader set it to the
    // file they load when it is empty.
    explicit FilterConfigDiagnostics(ZQWString file = ZQWString()) : m_strFile(std::move(file)) {}

    const ZQWString& getFile() const noexcept { return m_strFile; }
    void setFile(const ZQWString& file) { m_strFile = file; }
    const std::vector<FilterConfigDiagnostic>& getDiagnostics() const noexcept {
        return m_vecDiagnostics;
    }
    bool empty() const noexcept { return m_vecDiagnostics.empty(); }

    void add(FilterConfigDiagnostic::Kind nKind, const XmlElement& element,
             std::wstring_view attribute, const ZQWString& text, const ZQWString& readAs);

private:
    ZQWString m_strFile;
    std::vector<FilterConfigDiagnostic> m_vecDiagnostics;
};

class KivXmlConfigReader {
public:
    // The five thresholds of one FilterRecord element as every reader below reads them
    // (absent or empty attributes unset), for code that explains where a threshold came from
    // or checks records one by one.
    static LogLevels readRecordLevels(const XmlElement& record,
                                      FilterConfigDiagnostics* pDiagnostics = nullptr);
    // The writer ids of one WriterClassGroup element's text, with the diagnostics of the list;
    // throws as the list form does, after the diagnostics of the ids before the bad one.
    static void populate(LogWritersGroup& group, const XmlElement& groupElement,
                         FilterConfigDiagnostics* pDiagnostics);

    // Adds the writer ids of a list such as "0, 3;5" to the group. Only the blank, the comma
    // and the semicolon separate ids; an id above 9 throws LoggerException
    // (kmsgLogConfigClassIdOutOfRange).
    static void populate(LogWritersGroup& group, const ZQWString& ids);

    // Reads every WriterClassGroup and every global FilterRecord of a logging element. Throws
    // LoggerException for a group defined twice (kmsgLogConfigClassDefinedMoreThenOnce), an id
    // out of range, or a record naming an undefined group (kmsgLogConfigClassNotDefined); the
    // configuration is then incomplete and must be discarded.
    static void populate(GlobalFilterConfiguration& cfg, const XmlElement& root,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
    // The same for the root element of a file, or the first element at selectPath below it.
    static void populate(GlobalFilterConfiguration& cfg, const ZQWString& file,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
    static void populate(GlobalFilterConfiguration& cfg, const ZQWString& file,
                         const ZQWString& selectPath,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);

    // Reads the Filters/FilterRecord children of one Writer element into its filter, creating
    // the sources they name (a "*" in such a path is part of a source name, not a pattern).
    // Returns whether there was any record.
    static bool populate(WriterFilter& filter, const XmlElement& writer,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
    // Fills a writer's filter from the global records of root whose group holds writerClassId.
    // Returns whether root has any global FilterRecord.
    static bool populate(WriterFilter& filter, const XmlElement& root,
                         const ZQWString& writerClassId,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
    // The Writer-element form for the root element of a file, or the first element at
    // selectPath below it.
    static bool populate(WriterFilter& filter, const ZQWString& file,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
    static bool populate(WriterFilter& filter, const ZQWString& file, const ZQWString& selectPath,
                         FilterConfigDiagnostics* pDiagnostics = nullptr);
};

}  // namespace kiv
