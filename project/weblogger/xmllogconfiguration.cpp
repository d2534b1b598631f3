// The configuration loader. See xmllogconfiguration.h for the two ways a document is applied
// and for the lock order; what follows are the pieces both ways share (variables, the format
// chain, building one writer) and the checks that let reconfigure name every problem with its
// file and line before anything changes.
#include "weblogger/xmllogconfiguration.h"

#include <cstdint>
#include <cwchar>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "weblogger/internal/configvariables.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/internal/genericwriter.h"
#include "weblogger/keelloggerlogimpl.h"
#include "weblogger/logfilterconfig.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmlconfigreader.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/keellogger.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/timezone.h"

namespace kiv {
namespace {

const ZQWString kLoggingSectionPath(L"Logging");
const ZQWString kTimeZonePath(L"TimeZone/Logging");
const ZQWString kWriterClassGroupsPath(L"WriterClassGroups/WriterClassGroup");
const ZQWString kFilterRecordsPath(L"Filters/FilterRecord");
const ZQWString kWritersPath(L"Writers/Writer");
const ZQWString kFormatsPath(L"Formats");
const ZQWString kGroupNameAttribute(L"name");
const ZQWString kGroupReferenceAttribute(L"writerClassGroup");
const ZQWString kPathAttribute(L"path");
const ZQWString kImplementationAttribute(L"implementation");
const ZQWString kWriterClassAttribute(L"writerClassId");
const ZQWString kWriterNameAttribute(L"name");
const ZQWString kFileWriterClass(L"FileLogWriter");
const ZQWString kFilePrefixAttribute(L"filePrefix");

using logger_details::LogWritersMan;

// Serialises the operations of the loader: two reconfigurations must not interleave their
// building and installing. Recursive because initialize and configAll call the other forms.
// Taken before the writer registry's monitor.
std::recursive_mutex& configurationMutex() {
    static std::recursive_mutex s_mutex;
    return s_mutex;
}

// The file that the file forms of configAll and configWriters are reading on this thread, so
// that the element forms they call name it in what they report.
thread_local const ZQWString* t_pFileBeingRead = nullptr;

class FileBeingRead {
public:
    explicit FileBeingRead(const ZQWString& file) noexcept : m_pPrevious(t_pFileBeingRead) {
        t_pFileBeingRead = &file;
    }
    ~FileBeingRead() { t_pFileBeingRead = m_pPrevious; }
    FileBeingRead(const FileBeingRead&) = delete;
    FileBeingRead& operator=(const FileBeingRead&) = delete;

    // What an element form names as its file.
    static ZQWString current() {
        return t_pFileBeingRead != nullptr ? *t_pFileBeingRead : ZQWString(L"<element>");
    }

private:
    const ZQWString* m_pPrevious;
};

// Where the elements being read were written: the file named in problems, and how far the
// lines of a document that was serialised and parsed again are from the lines of the original.
struct SourcePlace {
    ZQWString strFile;
    unsigned nLineOffset = 0;

    unsigned lineOf(const XmlElement& element) const noexcept {
        return element.getLine() + nLineOffset;
    }
};

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
    const std::size_t nAt = logger_details::findUnterminatedMarker(text.view());
    if (nAt != std::wstring_view::npos) {
        const logger_details::TextPosition pos = logger_details::positionOf(text.view(), nAt);
        ZQ_THROW(
            LogConfigurationException(ParamMessage(kmsgLogConfigUnterminatedVariable)
                                          .setInsert(1, boundedInsert(place.strFile.view()))
                                          .setInsert(2, GDUInteger64(pos.nLine + place.nLineOffset))
                                          .setInsert(3, GDUInteger64(pos.nColumn))));
    }
    holder = XmlDocument::parseString(logger_details::makeReplacements(text, map), place.strFile);
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

// Calls onOversized(element, attribute) for every attribute of element and below it that is
// longer than the loader accepts; whether there was none.
template <class OnOversized>
bool forEachOversizedAttribute(const XmlElement& element, OnOversized&& onOversized) {
    bool bFine = true;
    for (const XmlElement::Attribute& attribute : element.getAttributes()) {
        if (attribute.second.size() > XmlLogConfiguration::kMaxAttributeLength) {
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

ParamMessage attributeTooLong(const SourcePlace& place, const XmlElement& element,
                              const XmlElement::Attribute& attribute) {
    return ParamMessage(kmsgLogConfigAttributeTooLong)
        .setInsert(1, boundedInsert(place.strFile.view()))
        .setInsert(2, GDUInteger64(place.lineOf(element)))
        .setInsert(3, boundedInsert(element.getName().view()))
        .setInsert(4, boundedInsert(attribute.first.view()))
        .setInsert(5, GDUInteger64(attribute.second.size()))
        .setInsert(6, GDUInteger64(XmlLogConfiguration::kMaxAttributeLength));
}

// Logs through the lower library's logger, or on standard error when none is installed. A
// text longer than an error line should be is logged cut, in an exception of the same place.
void logInitializationFailure(Exception& original) {
    const String text = textOf(original.getMsg());
    Exception cut(boundedInsert(text.view(), 4 * kMaxInsertLength));
    cut.setLocation(original.getFile(), original.getLine());
    Exception& failure = text.size() > 4 * kMaxInsertLength ? cut : original;
    failure.setSeverity(Exception::kSeverityCritical);
    KeelLogger* pLogger = KeelLogger::getKeelLogger();
    if (pLogger == nullptr) {
        reportLoggerProblem(failure.getMsg());
        reportLoggerProblem(kmsgLoggerInitializationFailed);
        return;
    }
    pLogger->logException(failure, Exception::kSeverityCritical);
    pLogger->log(KeelLogger::kError, KeelLogger::kSeverityCritical,
                 widen(std::string(__FILE__)).c_str(), __LINE__, kmsgLoggerInitializationFailed);
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

// ---------------------------------------------------------------------------------------------
// The checks of reconfigure: each adds what it finds to problems and never throws the
// configuration's exceptions.

class DocumentCheck {
public:
    DocumentCheck(const SourcePlace& place, std::vector<String>& vecProblems)
        : m_place(place), m_vecProblems(vecProblems) {}

    void add(const GDValue& message) { m_vecProblems.push_back(textOf(message)); }
    void addAt(const XmlElement& element, const GDValue& what) {
        add(problemAt(m_place, m_place.lineOf(element), what));
    }
    void addMissing(const XmlElement& element, const ZQWString& attribute) {
        add(ParamMessage(kmsgLogConfigAttributeMissing)
                .setInsert(1, boundedInsert(m_place.strFile.view()))
                .setInsert(2, GDUInteger64(m_place.lineOf(element)))
                .setInsert(3, GDString(element.getName()))
                .setInsert(4, GDString(attribute)));
    }
    std::size_t count() const noexcept { return m_vecProblems.size(); }

    // Every attribute of element and below it longer than the loader accepts; whether there
    // was none.
    bool checkAttributeLengths(const XmlElement& element) {
        return forEachOversizedAttribute(
            element, [this](const XmlElement& owner, const XmlElement::Attribute& attribute) {
                add(attributeTooLong(m_place, owner, attribute));
            });
    }

    // Groups and global records: what the filter-records reader would throw for, found all at
    // once and with their lines.
    void checkGroupsAndRecords(const XmlElement& root) {
        std::set<String> setGroups;
        for (const XmlElement* pGroup : root.selectElements(kWriterClassGroupsPath.view())) {
            const String* pName = pGroup->findAttribute(kGroupNameAttribute.view());
            if (pName == nullptr) {
                addMissing(*pGroup, kGroupNameAttribute);
                continue;
            }
            if (!setGroups.insert(*pName).second) {
                addAt(*pGroup, ParamMessage(kmsgLogConfigClassDefinedMoreThenOnce)
                                   .setInsert(1, boundedInsert(pName->view())));
            }
            try {
                LogWritersGroup group;
                KivXmlConfigReader::populate(group, pGroup->getInnerText());
            } catch (const Exception& e) {
                addAt(*pGroup, exceptionInsert(e));
            }
        }
        for (const XmlElement* pRecord : root.selectElements(kFilterRecordsPath.view())) {
            const String* pGroupName = pRecord->findAttribute(kGroupReferenceAttribute.view());
            if (pGroupName == nullptr) {
                addMissing(*pRecord, kGroupReferenceAttribute);
            } else if (setGroups.count(*pGroupName) == 0) {
                addAt(*pRecord, ParamMessage(kmsgLogConfigClassNotDefined)
                                    .setInsert(1, boundedInsert(pGroupName->view())));
            }
            if (!pRecord->hasAttribute(kPathAttribute.view())) {
                addMissing(*pRecord, kPathAttribute);
            }
        }
        for (const XmlElement* pWriter : root.selectElements(kWritersPath.view())) {
            for (const XmlElement* pRecord : pWriter->selectElements(kFilterRecordsPath.view())) {
                if (!pRecord->hasAttribute(kPathAttribute.view())) {
                    addMissing(*pRecord, kPathAttribute);
                }
            }
        }
    }

    // The writer's name, implementation and id as the factory will read them; whether it can
    // be built.
    bool checkWriter(const XmlElement& writer) {
        const std::size_t nBefore = count();
        const String strName = writer.getAttributeValue(kWriterNameAttribute.view());
        if (!writer.hasAttribute(kWriterNameAttribute.view())) {
            addMissing(writer, kWriterNameAttribute);
        }
        const String* pImplementation = writer.findAttribute(kImplementationAttribute.view());
        if (pImplementation == nullptr) {
            addMissing(writer, kImplementationAttribute);
        } else if (LogWritersMan::getLogWritersMan()
                       .getLogWritersFactory(*pImplementation)
                       .isNull()) {
            add(ParamMessage(kmsgLogConfigUnknownImplementation)
                    .setInsert(1, boundedInsert(m_place.strFile.view()))
                    .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
                    .setInsert(3, boundedInsert(strName.view()))
                    .setInsert(4, boundedInsert(pImplementation->view())));
        }
        const String* pClassId = writer.findAttribute(kWriterClassAttribute.view());
        if (pClassId == nullptr) {
            addMissing(writer, kWriterClassAttribute);
        } else if (!isValidClassId(*pClassId)) {
            add(ParamMessage(kmsgLogConfigWriterClassIdInvalid)
                    .setInsert(1, boundedInsert(m_place.strFile.view()))
                    .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
                    .setInsert(3, boundedInsert(strName.view()))
                    .setInsert(4, boundedInsert(pClassId->view())));
        }
        return count() == nBefore;
    }

    void addNotBuilt(const XmlElement& writer, const GDValue& reason) {
        add(ParamMessage(kmsgLogConfigWriterNotBuilt)
                .setInsert(1, boundedInsert(m_place.strFile.view()))
                .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
                .setInsert(
                    3, boundedInsert(writer.getAttributeValue(kWriterNameAttribute.view()).view()))
                .setInsert(4, boundedInsert(
                                  writer.getAttributeValue(kImplementationAttribute.view()).view()))
                .setInsert(5, reason));
    }

private:
    const SourcePlace& m_place;
    std::vector<String>& m_vecProblems;
};

// Builds every writer of root for reconfigure, not installed: they are WT_SHARED until the
// install puts them into the registry's list. Null in the result when any writer failed.
std::vector<Handle<LogWriter>> buildWritersChecked(const XmlElement& root, DocumentCheck& check,
                                                   unsigned& nRecords) {
    std::vector<Handle<LogWriter>> vecBuilt;
    LogWritersFactory::ConfigChain chain;
    buildFormatChain(root, chain);
    for (const XmlElement* pWriter : root.selectElements(kWritersPath.view())) {
        nRecords +=
            static_cast<unsigned>(pWriter->selectElements(kFilterRecordsPath.view()).size());
        if (!check.checkWriter(*pWriter)) {
            continue;
        }
        const String strClassId = pWriter->getAttributeValue(kWriterClassAttribute.view());
        try {
            const Handle<const LogWritersFactory> hFactory =
                LogWritersMan::getLogWritersMan().getLogWritersFactory(
                    pWriter->getAttributeValue(kImplementationAttribute.view()));
            Handle<LogWriter> hWriter =
                hFactory->create(pWriter, chain, LogWriter::WT_SHARED,
                                 buildWriterFilter(root, *pWriter, strClassId, false));
            if (hWriter.isNull()) {
                check.addNotBuilt(*pWriter, kmsgLogConfigWriterInitFailed);
                continue;
            }
            vecBuilt.push_back(std::move(hWriter));
        } catch (const XmlException& e) {
            check.addNotBuilt(*pWriter, boundedInsert(e.getText().view(), 4 * kMaxInsertLength));
        } catch (const Exception& e) {
            check.addNotBuilt(*pWriter, exceptionInsert(e));
        } catch (const std::exception& e) {
            check.addNotBuilt(*pWriter, boundedInsert(widen(std::string(e.what())).view()));
        }
    }
    return vecBuilt;
}

ConfigurationReport reconfigureLocked(const XmlElement& root, const ReplacementMap* pReplacements,
                                      SourcePlace place) {
    ConfigurationReport report;
    report.m_vecWritersBefore = describeWriters(currentGlobalWriters());
    report.m_vecWritersAfter = report.m_vecWritersBefore;
    DocumentCheck check(place, report.m_vecProblems);

    XmlDocument replaced;
    const XmlElement* pRoot = &root;
    if (pReplacements != nullptr) {
        try {
            pRoot = &replaceVariables(root, *pReplacements, place, replaced);
        } catch (const XmlException& e) {
            check.add(ParamMessage(kmsgLogConfigNotWellFormed)
                          .setInsert(1, boundedInsert(place.strFile.view()))
                          .setInsert(2, GDUInteger64(e.getXmlLine() + place.nLineOffset))
                          .setInsert(3, GDUInteger64(e.getXmlColumn()))
                          .setInsert(4, boundedInsert(e.getText().view())));
            return report;
        } catch (const Exception& e) {
            check.add(e.getMsg());
            return report;
        }
    }

    const bool bLengthsFine = check.checkAttributeLengths(*pRoot);
    const std::size_t nBeforeFilters = check.count();
    check.checkGroupsAndRecords(*pRoot);
    GlobalFilterConfiguration filters;
    if (bLengthsFine && check.count() == nBeforeFilters) {
        try {
            KivXmlConfigReader::populate(filters, *pRoot);
        } catch (const Exception& e) {
            check.addAt(*pRoot, exceptionInsert(e));
        }
    }
    report.m_nFilterRecords =
        static_cast<unsigned>(pRoot->selectElements(kFilterRecordsPath.view()).size());

    std::vector<Handle<LogWriter>> vecOld = currentGlobalWriters();
    std::vector<Handle<LogWriter>> vecNew;
    if (bLengthsFine) {
        // The new writers may take over the rings of the ones they replace.
        const FileLogWriter::RingHandOver handOver(vecOld);
        vecNew = buildWritersChecked(*pRoot, check, report.m_nFilterRecords);
    }
    if (check.count() > 0) {
        // vecNew goes with its writers; nothing of the running configuration was touched.
        return report;
    }

    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    {
        LockGuard<CriticalSection> lock(registry.getMonitor());
        LogSourcesMan::getLogSourcesMan().applyConfigSettled(filters);
        vecOld = currentGlobalWriters();
        retireWriters(vecOld);
        registry.clearWriters();
        for (const Handle<LogWriter>& hNew : vecNew) {
            registry.addLogWriter(hNew.get());
        }
        registry.versionIncrement();
    }
    report.m_bApplied = true;
    report.m_vecWritersAfter = describeWriters(vecNew);
    return report;
}

}  // namespace

// ---------------------------------------------------------------------------------------------

void XmlLogConfiguration::initialize(const ConfigReader& config, const PathFilter* pSectionPath) {
    const std::lock_guard<std::recursive_mutex> lock(configurationMutex());
    const String strZone = config.getString(kTimeZonePath.view());
    if (!strZone.empty()) {
        TimeZone zone(TimeZone::kServerOS);
        if (TimeZoneRegistry::getInstance().findTimeZone(strZone, zone)) {
            TmLogger::setTimeZone(zone);
        }
    }
    try {
        const XmlElement* pElement = pSectionPath != nullptr
                                         ? config.getElement(*pSectionPath)
                                         : config.getElement(kLoggingSectionPath.view());
        ZQ_ASSERT_TEXT(pElement != nullptr, "pElement != NULL");
        if (pElement == nullptr) {
            return;
        }
        configAll(*pElement, nullptr);
        KeelLoggerLogImpl::plugMeIn();
    } catch (Exception& e) {
        logInitializationFailure(e);
    } catch (const std::exception& e) {
        StdException wrapped(e);
        logInitializationFailure(wrapped);
    }
}

void XmlLogConfiguration::configAll(const XmlElement& root, const ReplacementMap* pReplacements) {
    const std::lock_guard<std::recursive_mutex> lock(configurationMutex());
    XmlDocument replaced;
    SourcePlace place{FileBeingRead::current(), 0};
    const XmlElement& element =
        pReplacements != nullptr ? replaceVariables(root, *pReplacements, place, replaced) : root;
    configGlobalFilters(element);
    LogWritersState state;
    configWriters(element, state, WT_GLOBAL, WD_GLOBAL, nullptr, nullptr);
}

void XmlLogConfiguration::configAll(const ZQWString& file, const ZQWString& selectPath,
                                    const ReplacementMap* pReplacements) {
    const XmlDocument document = XmlDocument::loadFromFile(toUtf8(file.view()));
    const XmlElement* lpConfigNode =
        document.getDocumentElement()->selectSingleElement(selectPath.view());
    ZQ_ASSERT_TEXT(lpConfigNode != nullptr, "lpConfigNode != NULL");
    if (lpConfigNode != nullptr) {
        const FileBeingRead reading(file);
        configAll(*lpConfigNode, pReplacements);
    }
}

void XmlLogConfiguration::configGlobalFilters(const XmlElement& root) {
    const std::lock_guard<std::recursive_mutex> lock(configurationMutex());
    GlobalFilterConfiguration cfg;
    KivXmlConfigReader::populate(cfg, root);
    LogSourcesMan::getLogSourcesMan().applyConfig(cfg);
}

void XmlLogConfiguration::configWriters(const XmlElement& root, LogWritersState& state,
                                        WriterType type, WriterDomain domain,
                                        const ReplacementMap* pReplacements,
                                        const ZQWString* pFilePrefix) {
    const std::lock_guard<std::recursive_mutex> configLock(configurationMutex());
    XmlDocument replaced;
    SourcePlace place{FileBeingRead::current(), 0};
    const XmlElement& element =
        pReplacements != nullptr ? replaceVariables(root, *pReplacements, place, replaced) : root;

    LogWritersFactory::ConfigChain chain;
    buildFormatChain(element, chain);

    LogWritersMan& registry = LogWritersMan::getLogWritersMan();
    const bool bGlobal = type == WT_GLOBAL;
    // With WT_GLOBAL the whole loop runs under the registry's monitor, and the version is
    // bumped however it ends, so that no thread keeps using a retired list.
    std::optional<LockGuard<CriticalSection>> registryLock;
    struct VersionBump {
        LogWritersMan* pRegistry;
        ~VersionBump() {
            if (pRegistry != nullptr) {
                pRegistry->versionIncrement();
            }
        }
    };
    if (bGlobal) {
        registryLock.emplace(registry.getMonitor());
        retireWriters(currentGlobalWriters());
        registry.clearWriters();
    }
    const VersionBump bump{bGlobal ? &registry : nullptr};

    const bool bPrefixed = pFilePrefix != nullptr && (domain == WD_TENANT || domain == WD_SESSION);
    for (const XmlElement* pWriter : element.selectElements(kWritersPath.view())) {
        const String strImplementation =
            pWriter->getAttributeValue(kImplementationAttribute.view());
        const String strClassId = pWriter->getAttributeValue(kWriterClassAttribute.view());
        const String strName = pWriter->getAttributeValue(kWriterNameAttribute.view());
        // A writer that cannot be what it says is reported and skipped; the others are built.
        const bool bLengthsFine = forEachOversizedAttribute(
            *pWriter, [&place](const XmlElement& owner, const XmlElement::Attribute& attribute) {
                reportLoggerProblem(attributeTooLong(place, owner, attribute));
            });
        if (!bLengthsFine) {
            continue;
        }
        if (!isValidClassId(strClassId)) {
            reportLoggerProblem(ParamMessage(kmsgLogConfigWriterClassIdInvalid)
                                    .setInsert(1, boundedInsert(place.strFile.view()))
                                    .setInsert(2, GDUInteger64(place.lineOf(*pWriter)))
                                    .setInsert(3, boundedInsert(strName.view()))
                                    .setInsert(4, boundedInsert(strClassId.view())));
            continue;
        }
        const Handle<const LogWritersFactory> hFactory =
            registry.getLogWritersFactory(strImplementation);
        if (hFactory.isNull()) {
            reportLoggerProblem(ParamMessage(kmsgLogConfigUnknownImplementation)
                                    .setInsert(1, boundedInsert(place.strFile.view()))
                                    .setInsert(2, GDUInteger64(place.lineOf(*pWriter)))
                                    .setInsert(3, boundedInsert(strName.view()))
                                    .setInsert(4, boundedInsert(strImplementation.view())));
            continue;
        }
        // A tenant or session configuration with a prefix keeps file writers only, and gives
        // them the prefix before they open anything: the ring without it may belong to a
        // global writer of the same document.
        XmlDocument prefixed;
        const XmlElement* pBuildFrom = pWriter;
        if (bPrefixed) {
            if (!strImplementation.equals(kFileWriterClass)) {
                continue;
            }
            prefixed = XmlDocument::parseString(pWriter->toXmlString(), place.strFile);
            XmlElement* pCopy = prefixed.getDocumentElementHandle().get();
            pCopy->setAttribute(
                kFilePrefixAttribute,
                FileLogWriter::prefixWithPart(
                    pWriter->getAttributeValue(kFilePrefixAttribute.view()), *pFilePrefix));
            pCopy->setLine(pWriter->getLine());
            pBuildFrom = pCopy;
        }
        const std::size_t nListed = bGlobal ? currentGlobalWriters().size() : 0;
        Handle<LogWriter> hWriter;
        try {
            hWriter = hFactory->create(
                pBuildFrom, chain, static_cast<LogWriter::WriterType>(type),
                buildWriterFilter(element, *pWriter, strClassId, pFilePrefix != nullptr));
        } catch (...) {
            // A global writer enters the registry when it is constructed: one that failed
            // afterwards must leave it again, or it would write half-configured.
            if (bGlobal) {
                dropWritersAfter(nListed);
            }
            throw;
        }
        if (hWriter.isNull()) {
            if (bGlobal) {
                dropWritersAfter(nListed);
            }
            reportLoggerProblem(ParamMessage(kmsgLogConfigWriterNotBuilt)
                                    .setInsert(1, boundedInsert(place.strFile.view()))
                                    .setInsert(2, GDUInteger64(place.lineOf(*pWriter)))
                                    .setInsert(3, boundedInsert(strName.view()))
                                    .setInsert(4, boundedInsert(strImplementation.view()))
                                    .setInsert(5, kmsgLogConfigWriterInitFailed));
            continue;
        }
        state.m_list.push_back(std::move(hWriter));
    }
}

void XmlLogConfiguration::configWriters(const ZQWString& file, const ZQWString& selectPath,
                                        LogWritersState& state, WriterType type,
                                        WriterDomain domain, const ReplacementMap* pReplacements,
                                        const ZQWString* pFilePrefix) {
    const XmlDocument document = XmlDocument::loadFromFile(toUtf8(file.view()));
    const XmlElement* lpConfigNode =
        document.getDocumentElement()->selectSingleElement(selectPath.view());
    ZQ_ASSERT_TEXT(lpConfigNode != nullptr, "lpConfigNode != __null");
    if (lpConfigNode != nullptr) {
        const FileBeingRead reading(file);
        configWriters(*lpConfigNode, state, type, domain, pReplacements, pFilePrefix);
    }
}

ConfigurationReport XmlLogConfiguration::reconfigure(const ZQWString& file,
                                                     const ReplacementMap* pReplacements,
                                                     const ZQWString& selectPath) {
    const std::lock_guard<std::recursive_mutex> lock(configurationMutex());
    ConfigurationReport failed;
    failed.m_vecWritersBefore = describeWriters(currentGlobalWriters());
    failed.m_vecWritersAfter = failed.m_vecWritersBefore;
    XmlDocument document;
    try {
        String text;
        // Variables are replaced in the file's own text, so that every problem names the line
        // where the operator wrote it (a reserialised element loses comments and their lines).
        if (pReplacements != nullptr && readUtf8Text(file, text)) {
            const std::size_t nAt = logger_details::findUnterminatedMarker(text.view());
            if (nAt != std::wstring_view::npos) {
                const logger_details::TextPosition pos =
                    logger_details::positionOf(text.view(), nAt);
                failed.m_vecProblems.push_back(
                    textOf(ParamMessage(kmsgLogConfigUnterminatedVariable)
                               .setInsert(1, boundedInsert(file.view()))
                               .setInsert(2, GDUInteger64(pos.nLine))
                               .setInsert(3, GDUInteger64(pos.nColumn))));
                return failed;
            }
            document = XmlDocument::parseString(
                logger_details::makeReplacements(text, *pReplacements), file);
            pReplacements = nullptr;
        } else {
            document = XmlDocument::loadFromFile(toUtf8(file.view()));
        }
    } catch (const XmlException& e) {
        failed.m_vecProblems.push_back(
            textOf(ParamMessage(kmsgLogConfigNotWellFormed)
                       .setInsert(1, boundedInsert(file.view()))
                       .setInsert(2, GDUInteger64(e.getXmlLine()))
                       .setInsert(3, GDUInteger64(e.getXmlColumn()))
                       .setInsert(4, boundedInsert(e.getText().view()))));
        return failed;
    }
    const XmlElement* pElement =
        document.getDocumentElement()->selectSingleElement(selectPath.view());
    if (pElement == nullptr) {
        failed.m_vecProblems.push_back(textOf(ParamMessage(kmsgLogConfigElementMissing)
                                                  .setInsert(1, boundedInsert(file.view()))
                                                  .setInsert(2, boundedInsert(selectPath.view()))));
        return failed;
    }
    return reconfigureLocked(*pElement, pReplacements, SourcePlace{file, 0});
}

ConfigurationReport XmlLogConfiguration::reconfigure(const XmlElement& root,
                                                     const ReplacementMap* pReplacements,
                                                     const ZQWString& sourceName) {
    const std::lock_guard<std::recursive_mutex> lock(configurationMutex());
    return reconfigureLocked(root, pReplacements, SourcePlace{sourceName, 0});
}

}  // namespace kiv
