#include "weblogger/internal/configcheck.h"

#include <optional>
#include <set>
#include <string>

#include "weblogger/internal/configvariables.h"
#include "weblogger/internal/fatalsignalflush.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/logfilterconfig.h"
#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "weblogger/xmlconfigreader.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace logger_details {
namespace {

const ZQWString kWriterClassGroupsPath(L"WriterClassGroups/WriterClassGroup");
const ZQWString kGroupNameAttribute(L"name");
const ZQWString kGroupReferenceAttribute(L"writerClassGroup");
const ZQWString kPathAttribute(L"path");

}  // namespace

void DocumentCheck::addAt(const XmlElement& element, const GDValue& what) {
    add(problemAt(m_place, m_place.lineOf(element), what), &element);
}

void DocumentCheck::addMissing(const XmlElement& element, const ZQWString& attribute) {
    add(ParamMessage(kmsgLogConfigAttributeMissing)
            .setInsert(1, boundedInsert(m_place.strFile.view()))
            .setInsert(2, GDUInteger64(m_place.lineOf(element)))
            .setInsert(3, GDString(element.getName()))
            .setInsert(4, GDString(attribute)),
        &element);
}

// Every attribute of element and below it longer than the loader accepts; whether there
// was none.
bool DocumentCheck::checkAttributeLengths(const XmlElement& element) {
    return forEachOversizedAttribute(
        element, [this](const XmlElement& owner, const XmlElement::Attribute& attribute) {
            add(attributeTooLong(m_place, owner, attribute));
        });
}

// Groups and global records: what the filter-records reader would throw for, found all at
// once and with their lines.
void DocumentCheck::checkGroupsAndRecords(const XmlElement& root) {
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
bool DocumentCheck::checkWriter(const XmlElement& writer) {
    const std::size_t nBefore = count();
    const String strName = writer.getAttributeValue(kWriterNameAttribute.view());
    if (!writer.hasAttribute(kWriterNameAttribute.view())) {
        addMissing(writer, kWriterNameAttribute);
    }
    const String* pImplementation = writer.findAttribute(kImplementationAttribute.view());
    if (pImplementation == nullptr) {
        addMissing(writer, kImplementationAttribute);
    } else if (LogWritersMan::getLogWritersMan().getLogWritersFactory(*pImplementation).isNull()) {
        add(ParamMessage(kmsgLogConfigUnknownImplementation)
                .setInsert(1, boundedInsert(m_place.strFile.view()))
                .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
                .setInsert(3, boundedInsert(strName.view()))
                .setInsert(4, boundedInsert(pImplementation->view())),
            &writer);
    }
    const String* pClassId = writer.findAttribute(kWriterClassAttribute.view());
    if (pClassId == nullptr) {
        addMissing(writer, kWriterClassAttribute);
    } else if (!isValidClassId(*pClassId)) {
        add(ParamMessage(kmsgLogConfigWriterClassIdInvalid)
                .setInsert(1, boundedInsert(m_place.strFile.view()))
                .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
                .setInsert(3, boundedInsert(strName.view()))
                .setInsert(4, boundedInsert(pClassId->view())),
            &writer);
    }
    return count() == nBefore;
}

void DocumentCheck::addNotBuilt(const XmlElement& writer, const GDValue& reason) {
    add(ParamMessage(kmsgLogConfigWriterNotBuilt)
            .setInsert(1, boundedInsert(m_place.strFile.view()))
            .setInsert(2, GDUInteger64(m_place.lineOf(writer)))
            .setInsert(3,
                       boundedInsert(writer.getAttributeValue(kWriterNameAttribute.view()).view()))
            .setInsert(
                4, boundedInsert(writer.getAttributeValue(kImplementationAttribute.view()).view()))
            .setInsert(5, reason),
        &writer);
}

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

namespace {

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

    std::optional<ParamMessage> flushOnCrashProblem;
    const FatalSignalFlush::FlushOnCrashSetting eFlushOnCrash = FatalSignalFlush::readSetting(
        *pRoot, place.strFile, place.lineOf(*pRoot), flushOnCrashProblem);
    if (flushOnCrashProblem) {
        check.add(*flushOnCrashProblem);
    }

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
    if (eFlushOnCrash == FatalSignalFlush::FC_ON) {
        FatalSignalFlush::install();
    }
    // The message file may have changed with the document: the crash texts follow it.
    FatalSignalFlush::renderTexts();
    report.m_bApplied = true;
    report.m_vecWritersAfter = describeWriters(vecNew);
    return report;
}

}  // namespace
}  // namespace logger_details

ConfigurationReport XmlLogConfiguration::reconfigure(const ZQWString& file,
                                                     const ReplacementMap* pReplacements,
                                                     const ZQWString& selectPath) {
    const std::lock_guard<std::recursive_mutex> lock(logger_details::configurationMutex());
    ConfigurationReport failed;
    failed.m_vecWritersBefore =
        logger_details::describeWriters(logger_details::currentGlobalWriters());
    failed.m_vecWritersAfter = failed.m_vecWritersBefore;
    XmlDocument document;
    try {
        String text;
        // Variables are replaced in the file's own text, so that every problem names the line
        // where the operator wrote it (a reserialised element loses comments and their lines).
        if (pReplacements != nullptr && logger_details::readUtf8Text(file, text)) {
            const std::size_t nAt = logger_details::findUnterminatedMarker(text.view());
            if (nAt != std::wstring_view::npos) {
                const logger_details::TextPosition pos =
                    logger_details::positionOf(text.view(), nAt);
                failed.m_vecProblems.push_back(
                    logger_details::textOf(ParamMessage(kmsgLogConfigUnterminatedVariable)
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
            logger_details::textOf(ParamMessage(kmsgLogConfigNotWellFormed)
                                       .setInsert(1, boundedInsert(file.view()))
                                       .setInsert(2, GDUInteger64(e.getXmlLine()))
                                       .setInsert(3, GDUInteger64(e.getXmlColumn()))
                                       .setInsert(4, boundedInsert(e.getText().view()))));
        return failed;
    }
    const XmlElement* pElement =
        document.getDocumentElement()->selectSingleElement(selectPath.view());
    if (pElement == nullptr) {
        failed.m_vecProblems.push_back(
            logger_details::textOf(ParamMessage(kmsgLogConfigElementMissing)
                                       .setInsert(1, boundedInsert(file.view()))
                                       .setInsert(2, boundedInsert(selectPath.view()))));
        return failed;
    }
    return logger_details::reconfigureLocked(*pElement, pReplacements,
                                             logger_details::SourcePlace{file, 0});
}

ConfigurationReport XmlLogConfiguration::reconfigure(const XmlElement& root,
                                                     const ReplacementMap* pReplacements,
                                                     const ZQWString& sourceName) {
    const std::lock_guard<std::recursive_mutex> lock(logger_details::configurationMutex());
    return logger_details::reconfigureLocked(root, pReplacements,
                                             logger_details::SourcePlace{sourceName, 0});
}

}  // namespace kiv
