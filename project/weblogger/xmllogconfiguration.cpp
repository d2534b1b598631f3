// The configuration loader. See xmllogconfiguration.h for the two ways a document is applied
// and for the lock order; the pieces both ways share (variables, the format chain, building one
// writer) are in internal/configdocument, and the checks that let reconfigure name every
// problem with its file and line before anything changes, with reconfigure itself, in
// internal/configcheck.
#include "weblogger/xmllogconfiguration.h"

#include <exception>
#include <mutex>
#include <optional>
#include <string>

#include "weblogger/internal/configdocument.h"
#include "weblogger/internal/fatalsignalflush.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/keelloggerlogimpl.h"
#include "weblogger/logfilterconfig.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
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
const ZQWString kFileWriterClass(L"FileLogWriter");
const ZQWString kFilePrefixAttribute(L"filePrefix");

using logger_details::attributeTooLong;
using logger_details::buildFormatChain;
using logger_details::buildWriterFilter;
using logger_details::configurationMutex;
using logger_details::currentGlobalWriters;
using logger_details::dropWritersAfter;
using logger_details::forEachOversizedAttribute;
using logger_details::isValidClassId;
using logger_details::kImplementationAttribute;
using logger_details::kWriterClassAttribute;
using logger_details::kWriterNameAttribute;
using logger_details::kWritersPath;
using logger_details::LogWritersMan;
using logger_details::replaceVariables;
using logger_details::retireWriters;
using logger_details::SourcePlace;
using logger_details::textOf;

static_assert(XmlLogConfiguration::kMaxAttributeLength == logger_details::kMaxAttributeLength);

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
    // First: it does not depend on the rest, and a writer that fails below must not keep it off.
    logger_details::FatalSignalFlush::applySetting(element, place.strFile, place.lineOf(element));
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

}  // namespace kiv
