// A logging configuration looked at by an operator rather than applied to a running server:
// every problem of a document at once, each with its line and column, and where each threshold
// a source ends up with was written.
//
// ConfigReviewer reads a document the way reconfigure does (variables replaced in the file's
// own text, so places are the places as written) and runs the same checks, plus the ones the
// loader passes over silently: values that the numbers rules read as something else, formats
// that no writer could use, patterns that reach no source, two file writers sharing one ring.
// What the loader refuses is an error; what it accepts but reads differently from how it looks
// is a warning.
//
// Explaining thresholds needs the source tree of this process: applyThresholds creates the
// sources the document names (and the ones asked about) and applies the document's global
// records to the tree, as configAll would, without building any writer. An reviewer is meant
// for a process of its own, such as the operators' command-line tool; it is not thread-safe.
#pragma once

#include <cstdint>
#include <vector>

#include "weblogger/commonseverities.h"
#include "weblogger/logfilter.h"
#include "weblogger/replacementmap.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

class LogSource;

class ConfigFinding {
public:
    enum Severity { CF_ERROR = 1, CF_WARNING = 2 };

    Severity m_nSeverity;
    ZQWString m_strFile;
    // From 1; 0 when the problem has no place in the document.
    unsigned m_nLine;
    unsigned m_nColumn;
    // The catalogue's text for the problem, without the place it starts with.
    String m_strText;
};

class ConfigReviewer {
public:
    // Where a threshold of one source, writer id and message type came from.
    struct ThresholdOrigin {
        std::uint16_t m_nThreshold;
        // The source whose own record set it: the one asked about, or the ancestor it was
        // inherited from. Empty when no record of the path set it and the root's default (0)
        // holds.
        ZQWString m_strSource;
        // The FilterRecord that set it; null with the root's default.
        const XmlElement* m_pRecord;
    };

    // The answer of one writer's own filter for a source and severity, and why.
    struct WriterFilterOrigin {
        // Whether the Writer has FilterRecords of its own; without any it accepts every source.
        bool m_bHasFilter;
        bool m_bPasses;
        // The source (the one asked about or an ancestor) whose record decided, and that
        // record; empty and null when none did and the filter's default answered.
        ZQWString m_strSource;
        const XmlElement* m_pRecord;
        std::uint16_t m_nThreshold;
    };

    // Reads file; problems reading it (not well-formed, an unterminated "{%", unreadable) are
    // the first findings of check, and getRoot is then null.
    ConfigReviewer(const ZQWString& file, const ReplacementMap* pVariables);

    const ZQWString& getFile() const noexcept { return m_strFile; }
    const XmlElement* getRoot() const noexcept { return m_document.getDocumentElement(); }

    // Every problem of the document, in the order found. Creates the sources that the
    // document's exact paths name, so that patterns are checked against them.
    std::vector<ConfigFinding> check();

    // Creates the sources the document names by exact path and the ones in vecSources, then
    // applies the document's groups and global records to the source tree. Throws the
    // reader's LoggerException when they cannot be read (check names the problem).
    void applyThresholds(const std::vector<ZQWString>& vecSources);

    // The Writer elements, in document order.
    std::vector<const XmlElement*> getWriters() const;
    // A Writer's writerClassId as the factory reads it; -1 when it is not 0 to 9.
    static int writerIdOf(const XmlElement& writer);

    // Where the threshold of source for the writer id and type comes from, following the
    // loader's rules (an exact path beats every pattern, the first matching pattern wins, a
    // later record for the same path and writer id replaces all five thresholds). Needs
    // applyThresholds, whose result it reports the value of.
    ThresholdOrigin thresholdOrigin(const LogSource& source, int nWriterId,
                                    LogSeverity::MsgType nType) const;

    // The writer's own filter (its Filters/FilterRecord children) for source and severity.
    WriterFilterOrigin writerFilterOrigin(const XmlElement& writer, const LogSource& source,
                                          const LogSeverity& severity) const;

    // The Format element a writer's fmtName (default "Default") names: the document's own
    // formats first, then the built-in ones; null when none has that name.
    const XmlElement* findFormat(const String& name) const;

private:
    void addFinding(ConfigFinding::Severity nSeverity, const GDValue& message, unsigned nLine,
                    unsigned nColumn);
    void addFinding(ConfigFinding::Severity nSeverity, const GDValue& message,
                    const XmlElement* pElement);
    void createNamedSources() const;
    void checkFormats();
    void checkWriterFormatsAndRings();
    // The last global FilterRecord for exactly path whose group holds the id; null when none.
    const XmlElement* exactRecordFor(const ZQWString& path, int nWriterId, bool& bPathKnown) const;

    ZQWString m_strFile;
    XmlDocument m_document;
    std::vector<ConfigFinding> m_vecLoadFindings;
    std::vector<ConfigFinding> m_vecFindings;
};

}  // namespace kiv
