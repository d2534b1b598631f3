// The configuration loader: from a logging element (or a file such as logconfig.xml) to running
// state — the time zone, per-source thresholds, and the writers with their compiled formats.
//
// Two ways to apply a document:
// - configAll / configWriters apply it as they read it: with WT_GLOBAL the current global
//   writers are retired before the first new one is built, and a failure ends the loop with
//   what was built so far. initialize (start-up) goes this way, and never throws.
// - reconfigure reads and checks the whole document first (XML, variables, groups, records,
//   every writer built but not yet installed) and collects every problem it finds. Only when
//   there is none does it install the thresholds and swap the writers in one step; otherwise
//   the running configuration stays exactly as it was.
//
// Locking: one process-wide configuration lock serialises every operation here; it is taken
// before the writer registry's monitor, which is taken before the source registry's monitor
// and before any writer's own lock (retiring a writer passes through its lock). No writer lock
// is ever held while either monitor is taken.
#pragma once

#include <cstddef>
#include <vector>

#include "weblogger/logwriters.h"
#include "weblogger/replacementmap.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/configreader.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

// What a reconfiguration did, or why it did nothing.
class ConfigurationReport {
public:
    // Whether the document was installed.
    bool m_bApplied = false;
    // Every problem found, in document order, each naming file and line: "file:line: what".
    std::vector<String> m_vecProblems;
    // The global writers before and after, each described as "name (implementation, id N)";
    // the same when nothing was applied.
    std::vector<String> m_vecWritersBefore;
    std::vector<String> m_vecWritersAfter;
    // Filter records read from the document (global and per writer).
    unsigned m_nFilterRecords = 0;
};

class XmlLogConfiguration {
public:
    enum WriterType { WT_GLOBAL = 1, WT_SHARED = 2, WT_SINGLE_THREADED = 3 };
    enum WriterDomain { WD_GLOBAL = 1, WD_TENANT = 2, WD_SESSION = 3 };

    // The conventional name of a stand-alone logging file, and a select path beside it; no
    // operation here reads either (callers name their files and paths).
    static constexpr const wchar_t* kDefaultFileName = L"logconfig.xml";
    static constexpr const wchar_t* kDefaultSelectPath = L"Default";

    // Attribute values longer than this are refused: no path, name or threshold needs more, and
    // a runaway value must not reach the writers (or the error texts) whole.
    static constexpr std::size_t kMaxAttributeLength = 4096;

    // Start-up: the time zone at "TimeZone/Logging", then the logging element at pSectionPath
    // ("Logging" when null) through configAll, then the bridge from the lower library. A
    // failure is logged through the lower library's logger with "Logger initialization
    // failed" and swallowed; what was applied before it stays.
    static void initialize(const ConfigReader& config, const PathFilter* pSectionPath);

    // Thresholds, then the global writers of root (variables replaced first when a map is
    // given). Throws the configuration's exceptions.
    static void configAll(const XmlElement& root, const ReplacementMap* pReplacements);
    // The same for the element at selectPath below the root of file (the root itself when
    // selectPath is empty).
    static void configAll(const ZQWString& file, const ZQWString& selectPath,
                          const ReplacementMap* pReplacements);

    // Builds the writers of root into state. With WT_GLOBAL the previous global writers are
    // retired first (file writers flushed) and the new ones enter the writer registry. With a
    // file prefix and a tenant or session domain only file writers are built, each with the
    // prefix in its file names before it opens any; their filters then come from the global
    // records of their writer id. A writer whose implementation is unknown, whose
    // "writerClassId" is outside 0 to 9, which has an attribute longer than
    // kMaxAttributeLength, or whose initialisation fails is reported on standard error and
    // skipped (a global one leaves the registry again, so it never writes); an exception from
    // a factory (unknown format, missing attribute) ends the loop and passes on.
    static void configWriters(const XmlElement& root, LogWritersState& state, WriterType type,
                              WriterDomain domain, const ReplacementMap* pReplacements,
                              const ZQWString* pFilePrefix);
    static void configWriters(const ZQWString& file, const ZQWString& selectPath,
                              LogWritersState& state, WriterType type, WriterDomain domain,
                              const ReplacementMap* pReplacements, const ZQWString* pFilePrefix);

    // Reads the groups and global records of root and applies them to the source tree.
    static void configGlobalFilters(const XmlElement& root);

    // Checks the whole document first; installs thresholds and global writers together only
    // when nothing is wrong. Never throws the configuration's exceptions: every problem is in
    // the report. selectPath as for configAll. With a replacement map, the variables of a
    // UTF-8 file are replaced in the file's own text, so problems name the lines as written;
    // an unterminated "{%" is refused before any replacement. New writers are built as
    // WT_SHARED (outside the registry) and enter its list only when installed; a file writer
    // that replaces one on the same ring takes the ring over (see FileLogWriter). Writers built
    // for a document that is then refused may have created their directories and files.
    static ConfigurationReport reconfigure(const ZQWString& file,
                                           const ReplacementMap* pReplacements,
                                           const ZQWString& selectPath = ZQWString());
    // The element form; sourceName is what problems name as their file.
    static ConfigurationReport reconfigure(const XmlElement& root,
                                           const ReplacementMap* pReplacements,
                                           const ZQWString& sourceName = ZQWString(L"<element>"));
};

}  // namespace kiv
