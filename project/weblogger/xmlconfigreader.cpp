#include "weblogger/xmlconfigreader.h"

#include <cstdint>
#include <cwchar>
#include <memory>
#include <string>

#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "zq/tl/hashmap.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/exception.h"
#include "zq/webkeel/transcode.h"
#include "zq/webkeel/wildcard.h"

namespace kiv {
namespace {

// Exceptions and assertions name the unit, not the build path, so that what an operator or a
// test sees does not depend on where the library was built.
constexpr const char* kUnitFileName = "./project/weblogger/xmlconfigreader";

const ZQWString kWriterClassGroupsPath(L"WriterClassGroups/WriterClassGroup");
const ZQWString kFilterRecordsPath(L"Filters/FilterRecord");
const ZQWString kGroupNameAttribute(L"name");
const ZQWString kGroupReferenceAttribute(L"writerClassGroup");
const ZQWString kPathAttribute(L"path");
const ZQWString kIdDelimiters(L" ,;");
// In message-type order, so the index is the LogLevels slot.
const ZQWString kThresholdAttributes[LogSeverity::kMsgTypeCount] = {
    ZQWString(L"incident_error"), ZQWString(L"error"), ZQWString(L"warning"),
    ZQWString(L"information"), ZQWString(L"trace")};

[[noreturn]] void throwLoggerException(const ExternalMessage& message, const GDValue& insert,
                                       unsigned nLine) {
    preThrow(LoggerException(ParamMessage(message).setInsert(1, insert)), kUnitFileName, nLine);
}

bool isIdDelimiter(wchar_t c) noexcept {
    return kIdDelimiters.view().find(c) != std::wstring_view::npos;
}

ZQWString numberText(std::uint64_t n) {
    return widen(std::to_string(n));
}

ZQWString idsText(const LogWritersGroup& group) {
    ZQWString strIds;
    for (int nId = 0; nId < kMaxWriterIds; ++nId) {
        if (group.m_arrIsInGroup[nId]) {
            if (!strIds.empty()) {
                strIds += L", ";
            }
            strIds += numberText(static_cast<std::uint64_t>(nId));
        }
    }
    return strIds;
}

// Where diagnostics about an id list go: the collector and the element that holds the list.
struct IdListContext {
    FilterConfigDiagnostics* pDiagnostics;
    const XmlElement* pElement;
};

void parseIds(LogWritersGroup& group, const ZQWString& ids, const IdListContext* pContext) {
    bool bInToken = false;
    for (ZQWString::size_type i = 0; i < ids.size(); ++i) {
        const wchar_t c = ids[i];
        if (isIdDelimiter(c)) {
            bInToken = false;
            continue;
        }
        if (bInToken) {
            continue;
        }
        // The conversion reads from here as far as it can, past the token's end if the token
        // begins with white space that is not a delimiter.
        const auto nId = static_cast<std::uint32_t>(std::wcstol(ids.c_str() + i, nullptr, 10));
        if (nId > 9) {
            throwLoggerException(kmsgLogConfigClassIdOutOfRange,
                                 GDInteger64(static_cast<std::int32_t>(nId)), __LINE__);
        }
        group.add(static_cast<int>(nId));
        bInToken = true;
        if (pContext != nullptr) {
            ZQWString::size_type iEnd = i;
            while (iEnd < ids.size() && !isIdDelimiter(ids[iEnd])) {
                ++iEnd;
            }
            const ZQWString token = ids.substr(i, iEnd - i);
            if (token.view().find_first_of(L"\n\r\t") != std::wstring_view::npos) {
                pContext->pDiagnostics->add(FilterConfigDiagnostic::FD_ID_TOKEN_WHITE_SPACE,
                                            *pContext->pElement, std::wstring_view(), token,
                                            numberText(nId));
            }
        }
    }
}

// A threshold as the platform's unsigned conversion reads it, keeping the low 16 bits; absent
// or empty stays unset.
std::uint16_t readThreshold(const XmlElement& record, const ZQWString& attribute,
                            FilterConfigDiagnostics* pDiagnostics) {
    const ZQWString* pText = record.findAttribute(attribute.view());
    if (pText == nullptr || pText->empty()) {
        return LogLevels::kNotSet;
    }
    const unsigned long nValue = std::wcstoul(pText->c_str(), nullptr, 10);
    const auto nLevel = static_cast<std::uint16_t>(nValue);
    if (pDiagnostics != nullptr) {
        const bool bPlainDecimal =
            pText->view().find_first_not_of(L"0123456789") == std::wstring_view::npos;
        if (!bPlainDecimal) {
            pDiagnostics->add(FilterConfigDiagnostic::FD_THRESHOLD_NOT_DECIMAL, record,
                              attribute.view(), *pText, numberText(nLevel));
        } else if (nValue > LogLevels::kNotSet) {
            // Digits beyond the conversion's range read as its largest value, also above 65535.
            pDiagnostics->add(FilterConfigDiagnostic::FD_THRESHOLD_OUT_OF_RANGE, record,
                              attribute.view(), *pText, numberText(nLevel));
        }
    }
    return nLevel;
}

LogLevels readLevels(const XmlElement& record, FilterConfigDiagnostics* pDiagnostics) {
    LogLevels levels;
    for (int nType = 0; nType < LogSeverity::kMsgTypeCount; ++nType) {
        levels.m_arrLogLevels[nType] =
            readThreshold(record, kThresholdAttributes[nType], pDiagnostics);
    }
    return levels;
}

// Reads the groups of root in document order into groups; vecElements receives each group's
// element (for the diagnostics that need them) when given.
void readGroups(const XmlElement& root, LogWritersGroupMap& groups,
                FilterConfigDiagnostics* pDiagnostics,
                std::vector<const XmlElement*>* pVecElements) {
    for (const XmlElement* pElement : root.selectElements(kWriterClassGroupsPath.view())) {
        const ZQWString& name =
            pElement->unchecked_getAttributeValue(kGroupNameAttribute.view(), true);
        if (groups.contains(name)) {
            throwLoggerException(kmsgLogConfigClassDefinedMoreThenOnce, GDString(name), __LINE__);
        }
        const bool bLogWriterNotAlreadyExist =
            groups.emplace(name, std::make_unique<LogWritersGroup>()).second;
        ZQ_ASSERT_TEXT_IN(bLogWriterNotAlreadyExist, "bLogWriterNotAlreadyExist", kUnitFileName);
        const IdListContext context{pDiagnostics, pElement};
        parseIds(*groups[name], pElement->getInnerText(),
                 pDiagnostics != nullptr ? &context : nullptr);
        if (pVecElements != nullptr) {
            pVecElements->push_back(pElement);
        }
    }
}

const LogWritersGroup& findGroup(const LogWritersGroupMap& groups, const ZQWString& name) {
    const auto it = groups.find(name);
    if (it == groups.end()) {
        throwLoggerException(kmsgLogConfigClassNotDefined, GDString(name), __LINE__);
    }
    return *it->second;
}

FilterConfigurationRecord& exactRecord(GlobalFilterConfiguration& cfg, const ZQWString& path) {
    const auto it = cfg.m_lstSetLogLevels.find(path);
    if (it != cfg.m_lstSetLogLevels.end()) {
        ZQ_ASSERT_TEXT_IN(it->second != nullptr, "pConfig != NULL", kUnitFileName);
        if (it->second != nullptr) {
            return *it->second;
        }
    }
    std::unique_ptr<FilterConfigurationRecord> pRecord(new FilterConfigurationRecord);
    cfg.m_lstSetLogLevels[path] = pRecord.get();
    return *pRecord.release();
}

FilterConfigurationRecord& newPatternRecord(GlobalFilterConfiguration& cfg,
                                            const ZQWString& pattern) {
    std::unique_ptr<FilterConfigurationRecord> pRecord(new FilterConfigurationRecord);
    cfg.m_lstWildCardSetLogLevels.emplace_back(pattern, pRecord.get());
    return *pRecord.release();
}

// The diagnostics that need the whole document, or the source tree, before they can be told.
void diagnoseAfterRead(const LogWritersGroupMap& groups,
                       const std::vector<const XmlElement*>& vecGroupElements,
                       const tl::hash_map<ZQWString, bool, ZQWString::Hash>& mapReferenced,
                       const std::vector<const XmlElement*>& vecPatternRecords,
                       FilterConfigDiagnostics& diagnostics) {
    for (const XmlElement* pElement : vecGroupElements) {
        const ZQWString& name = pElement->unchecked_getAttributeValue(kGroupNameAttribute.view());
        if (!mapReferenced.contains(name)) {
            diagnostics.add(FilterConfigDiagnostic::FD_GROUP_NOT_REFERENCED, *pElement,
                            kGroupNameAttribute.view(), name, idsText(*groups.find(name)->second));
        }
    }
    if (vecPatternRecords.empty()) {
        return;
    }
    std::vector<ZQWString> vecSources;
    LogSourcesMan::getLogSourcesMan().getAllLogSourceNames(vecSources);
    for (const XmlElement* pRecord : vecPatternRecords) {
        const ZQWString& pattern = pRecord->unchecked_getAttributeValue(kPathAttribute.view());
        bool bMatched = false;
        for (const ZQWString& source : vecSources) {
            if (matchesWildcard(pattern.view(), source.view())) {
                bMatched = true;
                break;
            }
        }
        if (!bMatched) {
            const ZQWString& groupName =
                pRecord->unchecked_getAttributeValue(kGroupReferenceAttribute.view());
            diagnostics.add(FilterConfigDiagnostic::FD_PATTERN_MATCHES_NO_SOURCE, *pRecord,
                            kPathAttribute.view(), pattern,
                            idsText(*groups.find(groupName)->second));
        }
    }
}

// The root element of a file, or the first element at selectPath below it; null (reported)
// when there is no such element.
const XmlElement* selectConfigElement(const XmlDocument& document, const ZQWString* pSelectPath) {
    const XmlElement* pRoot = document.getDocumentElement();
    const XmlElement* lpConfigNode = pSelectPath != nullptr && pRoot != nullptr
                                         ? pRoot->selectSingleElement(pSelectPath->view())
                                         : pRoot;
    ZQ_ASSERT_TEXT_IN(lpConfigNode != nullptr, "lpConfigNode != NULL", kUnitFileName);
    return lpConfigNode;
}

XmlDocument loadDocument(const ZQWString& file, FilterConfigDiagnostics* pDiagnostics) {
    if (pDiagnostics != nullptr && pDiagnostics->getFile().empty()) {
        pDiagnostics->setFile(file);
    }
    return XmlDocument::loadFromFile(toUtf8(file.view()));
}

LogSource* resolveSource(const ZQWString& path) {
    LogSource* pLogSrc = LogSourcesMan::getLogSourcesMan().getLogSource(nullptr, path);
    ZQ_ASSERT_TEXT_IN(pLogSrc != nullptr, "pLogSrc != __null", kUnitFileName);
    return pLogSrc;
}

// Shows the characters that would break a one-line message as escapes.
ZQWString visibleText(const ZQWString& text) {
    ZQWString strVisible;
    strVisible.reserve(text.size());
    for (const wchar_t c : text) {
        switch (c) {
            case L'\n':
                strVisible += L"\\n";
                break;
            case L'\r':
                strVisible += L"\\r";
                break;
            case L'\t':
                strVisible += L"\\t";
                break;
            default:
                strVisible += c;
                break;
        }
    }
    return strVisible;
}

}  // namespace

ParamMessage FilterConfigDiagnostic::getMessage() const {
    const ExternalMessage* pTemplate = &kmsgLogConfigIdTokenWhiteSpace;
    switch (m_nKind) {
        case FD_ID_TOKEN_WHITE_SPACE:
            break;
        case FD_THRESHOLD_NOT_DECIMAL:
            pTemplate = &kmsgLogConfigThresholdNotDecimal;
            break;
        case FD_THRESHOLD_OUT_OF_RANGE:
            pTemplate = &kmsgLogConfigThresholdOutOfRange;
            break;
        case FD_GROUP_NOT_REFERENCED:
            pTemplate = &kmsgLogConfigGroupNotReferenced;
            break;
        case FD_PATTERN_MATCHES_NO_SOURCE:
            pTemplate = &kmsgLogConfigPatternMatchesNoSource;
            break;
    }
    ParamMessage message(*pTemplate);
    message.setInsert(1, GDString(m_strFile))
        .setInsert(2, GDUInteger64(m_nLine))
        .setInsert(3, GDString(m_strElement))
        .setInsert(4, GDString(m_strAttribute))
        .setInsert(5, GDString(visibleText(m_strText)))
        .setInsert(6, GDString(m_strReadAs));
    return message;
}

void FilterConfigDiagnostics::add(FilterConfigDiagnostic::Kind nKind, const XmlElement& element,
                                  std::wstring_view attribute, const ZQWString& text,
                                  const ZQWString& readAs) {
    m_vecDiagnostics.push_back(FilterConfigDiagnostic{nKind, m_strFile, element.getLine(),
                                                      element.getName(), ZQWString(attribute), text,
                                                      readAs, element.getColumn()});
}

LogLevels KivXmlConfigReader::readRecordLevels(const XmlElement& record,
                                               FilterConfigDiagnostics* pDiagnostics) {
    return kiv::readLevels(record, pDiagnostics);
}

void KivXmlConfigReader::populate(LogWritersGroup& group, const XmlElement& groupElement,
                                  FilterConfigDiagnostics* pDiagnostics) {
    const IdListContext context{pDiagnostics, &groupElement};
    parseIds(group, groupElement.getInnerText(), pDiagnostics != nullptr ? &context : nullptr);
}

void KivXmlConfigReader::populate(LogWritersGroup& group, const ZQWString& ids) {
    parseIds(group, ids, nullptr);
}

void KivXmlConfigReader::populate(GlobalFilterConfiguration& cfg, const XmlElement& root,
                                  FilterConfigDiagnostics* pDiagnostics) {
    LogWritersGroupMap groups;
    std::vector<const XmlElement*> vecGroupElements;
    readGroups(root, groups, pDiagnostics, pDiagnostics != nullptr ? &vecGroupElements : nullptr);

    tl::hash_map<ZQWString, bool, ZQWString::Hash> mapReferenced;
    std::vector<const XmlElement*> vecPatternRecords;
    for (const XmlElement* pRecord : root.selectElements(kFilterRecordsPath.view())) {
        const ZQWString& groupName =
            pRecord->unchecked_getAttributeValue(kGroupReferenceAttribute.view(), true);
        const ZQWString& path = pRecord->unchecked_getAttributeValue(kPathAttribute.view(), true);
        const LogWritersGroup& group = findGroup(groups, groupName);
        const LogLevels levels = readLevels(*pRecord, pDiagnostics);
        const bool bPattern = hasWildcard(path.view());
        for (int nId = 0; nId < kMaxWriterIds; ++nId) {
            if (!group.m_arrIsInGroup[nId]) {
                continue;
            }
            // A pattern gets one entry per writer id; the first matching entry supplies a
            // source's whole filter, so of a group only the lowest id acts through a pattern.
            FilterConfigurationRecord& record =
                bPattern ? newPatternRecord(cfg, path) : exactRecord(cfg, path);
            record.m_ThisFilter.setLogLevelsForId(nId, levels);
        }
        if (pDiagnostics != nullptr) {
            mapReferenced[groupName] = true;
            if (bPattern) {
                vecPatternRecords.push_back(pRecord);
            }
        }
    }
    if (pDiagnostics != nullptr) {
        diagnoseAfterRead(groups, vecGroupElements, mapReferenced, vecPatternRecords,
                          *pDiagnostics);
    }
}

void KivXmlConfigReader::populate(GlobalFilterConfiguration& cfg, const ZQWString& file,
                                  FilterConfigDiagnostics* pDiagnostics) {
    const XmlDocument document = loadDocument(file, pDiagnostics);
    if (const XmlElement* pElement = selectConfigElement(document, nullptr)) {
        populate(cfg, *pElement, pDiagnostics);
    }
}

void KivXmlConfigReader::populate(GlobalFilterConfiguration& cfg, const ZQWString& file,
                                  const ZQWString& selectPath,
                                  FilterConfigDiagnostics* pDiagnostics) {
    const XmlDocument document = loadDocument(file, pDiagnostics);
    if (const XmlElement* pElement = selectConfigElement(document, &selectPath)) {
        populate(cfg, *pElement, pDiagnostics);
    }
}

bool KivXmlConfigReader::populate(WriterFilter& filter, const XmlElement& writer,
                                  FilterConfigDiagnostics* pDiagnostics) {
    bool bAnyRecord = false;
    for (const XmlElement* pRecord : writer.selectElements(kFilterRecordsPath.view())) {
        const ZQWString& path = pRecord->unchecked_getAttributeValue(kPathAttribute.view(), true);
        const LogLevels levels = readLevels(*pRecord, pDiagnostics);
        if (LogSource* pLogSrc = resolveSource(path)) {
            filter.setLogLevels(*pLogSrc, levels);
        }
        bAnyRecord = true;
    }
    return bAnyRecord;
}

bool KivXmlConfigReader::populate(WriterFilter& filter, const XmlElement& root,
                                  const ZQWString& writerClassId,
                                  FilterConfigDiagnostics* pDiagnostics) {
    LogWritersGroupMap groups;
    readGroups(root, groups, pDiagnostics, nullptr);
    const auto nId = static_cast<int>(std::wcstol(writerClassId.c_str(), nullptr, 10));
    // An id out of range is in no group, so every record is skipped.
    ZQ_ASSERT_TEXT_IN(nId < 10, "nId < 10", kUnitFileName);
    bool bAnyRecord = false;
    for (const XmlElement* pRecord : root.selectElements(kFilterRecordsPath.view())) {
        bAnyRecord = true;
        const ZQWString& groupName =
            pRecord->unchecked_getAttributeValue(kGroupReferenceAttribute.view(), true);
        if (!findGroup(groups, groupName).contains(nId)) {
            continue;
        }
        const ZQWString& path = pRecord->unchecked_getAttributeValue(kPathAttribute.view(), true);
        const LogLevels levels = readLevels(*pRecord, pDiagnostics);
        if (LogSource* pLogSrc = resolveSource(path)) {
            filter.setLogLevels(*pLogSrc, levels);
        }
    }
    return bAnyRecord;
}

bool KivXmlConfigReader::populate(WriterFilter& filter, const ZQWString& file,
                                  FilterConfigDiagnostics* pDiagnostics) {
    const XmlDocument document = loadDocument(file, pDiagnostics);
    const XmlElement* pElement = selectConfigElement(document, nullptr);
    return pElement != nullptr && populate(filter, *pElement, pDiagnostics);
}

bool KivXmlConfigReader::populate(WriterFilter& filter, const ZQWString& file,
                                  const ZQWString& selectPath,
                                  FilterConfigDiagnostics* pDiagnostics) {
    const XmlDocument document = loadDocument(file, pDiagnostics);
    const XmlElement* pElement = selectConfigElement(document, &selectPath);
    return pElement != nullptr && populate(filter, *pElement, pDiagnostics);
}

}  // namespace kiv
