#include "weblogger/configreview.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string_view>

#include "weblogger/internal/configcheck.h"
#include "weblogger/internal/configdocument.h"
#include "weblogger/internal/configvariables.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/messageformatloader.h"
#include "weblogger/xmlconfigreader.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"
#include "zq/webkeel/wildcard.h"

namespace kiv {
namespace {

const ZQWString kWriterClassGroupsPath(L"WriterClassGroups/WriterClassGroup");
const ZQWString kFormatPath(L"Formats/Format");
const ZQWString kGroupNameAttribute(L"name");
const ZQWString kGroupReferenceAttribute(L"writerClassGroup");
const ZQWString kPathAttribute(L"path");
const ZQWString kFormatNameAttribute(L"name");
const ZQWString kEncodingAttribute(L"Encoding");
const ZQWString kFmtNameAttribute(L"fmtName");
const ZQWString kDefaultFormatName(L"Default");
const ZQWString kFileWriterImplementation(L"FileLogWriter");
const ZQWString kDirAttribute(L"dir");
const ZQWString kFilePrefixAttribute(L"filePrefix");
const ZQWString kDefaultFilePrefix(L"kiv");

// The catalogue's texts of configuration problems begin with the place ("file:line: " or
// "file:line:column: "); a finding carries the place apart, so it is taken off the text.
String withoutPlace(const String& text, const ZQWString& file) {
    std::wstring_view rest = text.view();
    if (rest.substr(0, file.size()) != file.view() || rest.size() <= file.size() ||
        rest[file.size()] != L':') {
        return text;
    }
    rest.remove_prefix(file.size() + 1);
    for (int nNumbers = 0; nNumbers < 2; ++nNumbers) {
        const std::size_t nDigits = rest.find_first_not_of(L"0123456789");
        if (nDigits == 0 || nDigits == std::wstring_view::npos || rest[nDigits] != L':') {
            break;
        }
        rest.remove_prefix(nDigits + 1);
    }
    if (!rest.empty() && rest.front() == L' ') {
        rest.remove_prefix(1);
    }
    return String(rest);
}

LogWritersGroup groupNamed(const XmlElement& root, const String& name) {
    LogWritersGroup group;
    for (const XmlElement* pGroup : root.selectElements(kWriterClassGroupsPath.view())) {
        if (pGroup->unchecked_getAttributeValue(kGroupNameAttribute.view()) == name) {
            KivXmlConfigReader::populate(group, pGroup->getInnerText());
            break;
        }
    }
    return group;
}

int lowestId(const LogWritersGroup& group) {
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (group.contains(nId)) {
            return nId;
        }
    }
    return -1;
}

// Directory and prefix of a file writer's ring, the directory as the file system resolves it
// when it exists, so that two spellings of one directory are one ring.
String ringKeyOf(const String& dir, const String& prefix) {
    std::error_code error;
    std::filesystem::path path(toUtf8(dir.view()).std());
    const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, error);
    path = error ? path.lexically_normal() : canonical;
    return fromUtf8((path / toUtf8(prefix.view()).std()).string());
}

}  // namespace

ConfigReviewer::ConfigReviewer(const ZQWString& file, const ReplacementMap* pVariables)
    : m_strFile(file) {
    try {
        String text;
        if (logger_details::readUtf8Text(file, text)) {
            const std::size_t nAt = logger_details::findUnterminatedMarker(text.view());
            if (nAt != std::wstring_view::npos) {
                const logger_details::TextPosition pos =
                    logger_details::positionOf(text.view(), nAt);
                addFinding(ConfigFinding::CF_ERROR,
                           ParamMessage(kmsgLogConfigUnterminatedVariable)
                               .setInsert(1, boundedInsert(file.view()))
                               .setInsert(2, GDUInteger64(pos.nLine))
                               .setInsert(3, GDUInteger64(pos.nColumn)),
                           static_cast<unsigned>(pos.nLine), static_cast<unsigned>(pos.nColumn));
            } else {
                if (pVariables != nullptr) {
                    text = logger_details::makeReplacements(text, *pVariables);
                }
                m_document = XmlDocument::parseString(text, file);
            }
        } else {
            // UTF-16: the XML layer decodes it; variables are not replaced in such a file.
            m_document = XmlDocument::loadFromFile(toUtf8(file.view()));
        }
    } catch (const XmlException& e) {
        addFinding(ConfigFinding::CF_ERROR,
                   ParamMessage(kmsgLogConfigNotWellFormed)
                       .setInsert(1, boundedInsert(file.view()))
                       .setInsert(2, GDUInteger64(e.getXmlLine()))
                       .setInsert(3, GDUInteger64(e.getXmlColumn()))
                       .setInsert(4, boundedInsert(e.getText().view())),
                   e.getXmlLine(), e.getXmlColumn());
    }
    // Kept apart, so that every check starts again from them.
    m_vecLoadFindings.swap(m_vecFindings);
}

void ConfigReviewer::addFinding(ConfigFinding::Severity nSeverity, const GDValue& message,
                                unsigned nLine, unsigned nColumn) {
    m_vecFindings.push_back(
        ConfigFinding{nSeverity, m_strFile, nLine, nColumn,
                      withoutPlace(logger_details::textOf(message), m_strFile)});
}

void ConfigReviewer::addFinding(ConfigFinding::Severity nSeverity, const GDValue& message,
                                const XmlElement* pElement) {
    addFinding(nSeverity, message, pElement != nullptr ? pElement->getLine() : 0,
               pElement != nullptr ? pElement->getColumn() : 0);
}

std::vector<ConfigFinding> ConfigReviewer::check() {
    m_vecFindings = m_vecLoadFindings;
    const XmlElement* pRoot = getRoot();
    if (pRoot == nullptr) {
        return m_vecFindings;
    }
    // What the loader refuses, found the way reconfigure finds it.
    const logger_details::SourcePlace place{m_strFile, 0};
    std::vector<String> vecProblems;
    std::vector<const XmlElement*> vecElements;
    logger_details::DocumentCheck documentCheck(place, vecProblems);
    documentCheck.recordElementsInto(vecElements);
    const bool bLengthsFine = documentCheck.checkAttributeLengths(*pRoot);
    documentCheck.checkGroupsAndRecords(*pRoot);
    const bool bRecordsReadable = documentCheck.count() == 0;
    for (const XmlElement* pWriter : getWriters()) {
        documentCheck.checkWriter(*pWriter);
    }
    for (std::size_t i = 0; i < vecProblems.size(); ++i) {
        const XmlElement* pElement = vecElements[i];
        m_vecFindings.push_back(ConfigFinding{ConfigFinding::CF_ERROR, m_strFile,
                                              pElement != nullptr ? pElement->getLine() : 0,
                                              pElement != nullptr ? pElement->getColumn() : 0,
                                              withoutPlace(vecProblems[i], m_strFile)});
    }

    // What the loader accepts but reads differently from how it looks.
    createNamedSources();
    FilterConfigDiagnostics diagnostics(m_strFile);
    if (bLengthsFine && bRecordsReadable) {
        GlobalFilterConfiguration filters;
        KivXmlConfigReader::populate(filters, *pRoot, &diagnostics);
    } else {
        // The reader would stop at the first refused group or record: its diagnostics are
        // collected element by element instead (those that need the whole document, an
        // unreferenced group and a pattern without a source, are left out).
        for (const XmlElement* pGroup : pRoot->selectElements(kWriterClassGroupsPath.view())) {
            try {
                LogWritersGroup group;
                KivXmlConfigReader::populate(group, *pGroup, &diagnostics);
            } catch (const Exception&) {
                // Already an error above.
            }
        }
        for (const XmlElement* pRecord :
             pRoot->selectElements(logger_details::kFilterRecordsPath.view())) {
            KivXmlConfigReader::readRecordLevels(*pRecord, &diagnostics);
        }
    }
    for (const XmlElement* pWriter : getWriters()) {
        WriterFilter filter;
        KivXmlConfigReader::populate(filter, *pWriter, &diagnostics);
    }
    for (const FilterConfigDiagnostic& diagnostic : diagnostics.getDiagnostics()) {
        addFinding(ConfigFinding::CF_WARNING, diagnostic.getMessage(), diagnostic.m_nLine,
                   diagnostic.m_nColumn);
    }

    checkFormats();
    checkWriterFormatsAndRings();
    std::stable_sort(m_vecFindings.begin() + static_cast<std::ptrdiff_t>(m_vecLoadFindings.size()),
                     m_vecFindings.end(), [](const ConfigFinding& a, const ConfigFinding& b) {
                         return a.m_nLine != b.m_nLine ? a.m_nLine < b.m_nLine
                                                       : a.m_nColumn < b.m_nColumn;
                     });
    return m_vecFindings;
}

void ConfigReviewer::checkFormats() {
    for (const XmlElement* pFormat : getRoot()->selectElements(kFormatPath.view())) {
        const String& name = pFormat->unchecked_getAttributeValue(kFormatNameAttribute.view());
        const String& encoding = pFormat->unchecked_getAttributeValue(kEncodingAttribute.view());
        if (!encoding.empty() && encoding.compareNoCase(L"Xml") != 0 &&
            encoding.compareNoCase(L"Plain") != 0 && encoding.compareNoCase(L"Json") != 0) {
            // The compiler would stop at its assertion for this; the rest of the format is
            // compiled below only when the encoding is one it knows.
            addFinding(ConfigFinding::CF_WARNING,
                       ParamMessage(kmsgLogConfigFormatEncodingInvalid)
                           .setInsert(1, boundedInsert(m_strFile.view()))
                           .setInsert(2, GDUInteger64(pFormat->getLine()))
                           .setInsert(3, boundedInsert(name.view()))
                           .setInsert(4, boundedInsert(encoding.view())),
                       pFormat);
            continue;
        }
        GDString reason;
        try {
            CompiledMsgFormat compiled;
            MessageFormatLoader::loadFormat(compiled, *pFormat, CompiledMsgFormat::kEncodingXml);
            continue;
        } catch (const XmlException& e) {
            reason = boundedInsert(e.getText().view(), 4 * kMaxInsertLength);
        } catch (const Exception& e) {
            reason = logger_details::exceptionInsert(e);
        }
        addFinding(ConfigFinding::CF_ERROR,
                   ParamMessage(kmsgLogConfigFormatNotCompiled)
                       .setInsert(1, boundedInsert(m_strFile.view()))
                       .setInsert(2, GDUInteger64(pFormat->getLine()))
                       .setInsert(3, boundedInsert(name.view()))
                       .setInsert(4, reason),
                   pFormat);
    }
}

void ConfigReviewer::checkWriterFormatsAndRings() {
    const logger_details::SourcePlace place{m_strFile, 0};
    // Ring key to the name of the first writer on it.
    std::map<String, String> mapRings;
    for (const XmlElement* pWriter : getWriters()) {
        const String& name =
            pWriter->unchecked_getAttributeValue(logger_details::kWriterNameAttribute.view());
        const String* pFmtName = pWriter->findAttribute(kFmtNameAttribute.view());
        const String fmtName = pFmtName != nullptr ? *pFmtName : kDefaultFormatName;
        if (findFormat(fmtName) == nullptr) {
            addFinding(
                ConfigFinding::CF_ERROR,
                logger_details::problemAt(
                    place, pWriter->getLine(),
                    ParamMessage(kmsgFormatNotFound).setInsert(1, boundedInsert(fmtName.view()))),
                pWriter);
        }
        if (pWriter->unchecked_getAttributeValue(logger_details::kImplementationAttribute.view()) !=
            kFileWriterImplementation) {
            continue;
        }
        const String* pDir = pWriter->findAttribute(kDirAttribute.view());
        if (pDir == nullptr) {
            continue;
        }
        const String* pPrefix = pWriter->findAttribute(kFilePrefixAttribute.view());
        const String key = ringKeyOf(
            *pDir, pPrefix != nullptr && !pPrefix->empty() ? *pPrefix : kDefaultFilePrefix);
        const auto [it, bNew] = mapRings.emplace(key, name);
        if (!bNew) {
            addFinding(ConfigFinding::CF_ERROR,
                       logger_details::problemAt(place, pWriter->getLine(),
                                                 ParamMessage(kmsgLogWriterRingInUse)
                                                     .setInsert(1, boundedInsert(name.view()))
                                                     .setInsert(2, GDString(key + L"*.log"))
                                                     .setInsert(3, GDString(it->second))),
                       pWriter);
        }
    }
}

const XmlElement* ConfigReviewer::findFormat(const String& name) const {
    LogWritersFactory::ConfigChain chain;
    logger_details::buildFormatChain(*getRoot(), chain);
    return LogWritersFactory::findFormat(chain, name);
}

std::vector<const XmlElement*> ConfigReviewer::getWriters() const {
    if (getRoot() == nullptr) {
        return {};
    }
    return getRoot()->selectElements(logger_details::kWritersPath.view());
}

int ConfigReviewer::writerIdOf(const XmlElement& writer) {
    const String& id =
        writer.unchecked_getAttributeValue(logger_details::kWriterClassAttribute.view());
    if (!writer.hasAttribute(logger_details::kWriterClassAttribute.view()) ||
        !logger_details::isValidClassId(id)) {
        return -1;
    }
    return static_cast<int>(std::wcstol(id.c_str(), nullptr, 10));
}

void ConfigReviewer::createNamedSources() const {
    LogSourcesMan& sources = LogSourcesMan::getLogSourcesMan();
    for (const XmlElement* pRecord :
         getRoot()->selectElements(logger_details::kFilterRecordsPath.view())) {
        const String& path = pRecord->unchecked_getAttributeValue(kPathAttribute.view());
        if (!path.empty() && !hasWildcard(path.view())) {
            sources.getLogSource(nullptr, path);
        }
    }
    for (const XmlElement* pWriter : getWriters()) {
        for (const XmlElement* pRecord :
             pWriter->selectElements(logger_details::kFilterRecordsPath.view())) {
            const String& path = pRecord->unchecked_getAttributeValue(kPathAttribute.view());
            if (!path.empty()) {
                sources.getLogSource(nullptr, path);
            }
        }
    }
}

void ConfigReviewer::applyThresholds(const std::vector<ZQWString>& vecSources) {
    createNamedSources();
    for (const ZQWString& source : vecSources) {
        LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, source);
    }
    XmlLogConfiguration::configGlobalFilters(*getRoot());
}

const XmlElement* ConfigReviewer::exactRecordFor(const ZQWString& path, int nWriterId,
                                                 bool& bPathKnown) const {
    const XmlElement* pLast = nullptr;
    bPathKnown = false;
    for (const XmlElement* pRecord :
         getRoot()->selectElements(logger_details::kFilterRecordsPath.view())) {
        if (pRecord->unchecked_getAttributeValue(kPathAttribute.view()) != path) {
            continue;
        }
        const LogWritersGroup group = groupNamed(
            *getRoot(), pRecord->unchecked_getAttributeValue(kGroupReferenceAttribute.view()));
        // A record whose group is empty makes no entry for its path.
        if (lowestId(group) < 0) {
            continue;
        }
        bPathKnown = true;
        if (group.contains(nWriterId)) {
            pLast = pRecord;
        }
    }
    return pLast;
}

ConfigReviewer::ThresholdOrigin ConfigReviewer::thresholdOrigin(const LogSource& source,
                                                                int nWriterId,
                                                                LogSeverity::MsgType nType) const {
    const std::uint16_t nThreshold =
        source.getLogFilter().getLogLevels(nWriterId).m_arrLogLevels[nType];
    const std::vector<const XmlElement*> vecRecords =
        getRoot()->selectElements(logger_details::kFilterRecordsPath.view());
    for (const LogSource* pNode = &source; pNode != nullptr; pNode = pNode->getParent()) {
        const ZQWString& path = pNode->getPath();
        bool bPathKnown = false;
        const XmlElement* pAssigned = exactRecordFor(path, nWriterId, bPathKnown);
        if (!bPathKnown) {
            // The first pattern entry that matches supplies the node's whole filter, and each
            // entry carries one writer id: the lowest of its record's group.
            for (const XmlElement* pRecord : vecRecords) {
                const String& pattern = pRecord->unchecked_getAttributeValue(kPathAttribute.view());
                if (!hasWildcard(pattern.view())) {
                    continue;
                }
                const int nFirstId =
                    lowestId(groupNamed(*getRoot(), pRecord->unchecked_getAttributeValue(
                                                        kGroupReferenceAttribute.view())));
                if (nFirstId >= 0 && matchesWildcard(pattern.view(), path.view())) {
                    pAssigned = nFirstId == nWriterId ? pRecord : nullptr;
                    break;
                }
            }
        }
        if (pAssigned != nullptr &&
            KivXmlConfigReader::readRecordLevels(*pAssigned).m_arrLogLevels[nType] !=
                LogLevels::kNotSet) {
            return ThresholdOrigin{nThreshold, path, pAssigned};
        }
    }
    return ThresholdOrigin{nThreshold, ZQWString(), nullptr};
}

ConfigReviewer::WriterFilterOrigin ConfigReviewer::writerFilterOrigin(
    const XmlElement& writer, const LogSource& source, const LogSeverity& severity) const {
    const std::vector<const XmlElement*> vecRecords =
        writer.selectElements(logger_details::kFilterRecordsPath.view());
    WriterFilterOrigin origin{!vecRecords.empty(), true, ZQWString(), nullptr, LogLevels::kNotSet};
    if (!origin.m_bHasFilter) {
        return origin;
    }
    WriterFilter filter;
    KivXmlConfigReader::populate(filter, writer);
    origin.m_bPasses = filter.isLogEnabled(severity, source);
    for (const LogSource* pNode = &source; pNode != nullptr; pNode = pNode->getParent()) {
        // A later record for the same source replaces an earlier one.
        const XmlElement* pLast = nullptr;
        for (const XmlElement* pRecord : vecRecords) {
            if (pRecord->unchecked_getAttributeValue(kPathAttribute.view()) == pNode->getPath()) {
                pLast = pRecord;
            }
        }
        if (pLast == nullptr) {
            continue;
        }
        const std::uint16_t nThreshold =
            KivXmlConfigReader::readRecordLevels(*pLast).m_arrLogLevels[severity.m_nType];
        if (nThreshold != LogLevels::kNotSet) {
            origin.m_strSource = pNode->getPath();
            origin.m_pRecord = pLast;
            origin.m_nThreshold = nThreshold;
            break;
        }
    }
    return origin;
}

}  // namespace kiv
