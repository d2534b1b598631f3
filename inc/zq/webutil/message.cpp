#include "zq/webutil/message.h"

#include <unistd.h>

#include <cstdio>
#include <cwchar>
#include <unordered_map>

#include "zq/webkeel/assert.h"
#include "zq/webkeel/criticalsection.h"
#include "zq/webkeel/transcode.h"

namespace kiv {

const wchar_t* const kMessageNamespaceUri = L"urn:kiv:webmessages";

namespace {

constexpr unsigned kMaxFormatDepth = 8;
const wchar_t* const kWebMessageName = L"WebMessage";
const wchar_t* const kTextChildName = L"TEXT";
const wchar_t* const kXmlChildName = L"XML";
const wchar_t* const kParamName = L"kivm:param";

// Reads the text of a string value without copying it.
class StringViewReader : public GDValueVisitor {
public:
    void visitString(std::wstring_view text) override {
        m_view = text;
        m_bFound = true;
    }
    std::wstring_view m_view;
    bool m_bFound = false;
};

const XmlElement* findChildElement(const XmlElement& parent, const wchar_t* pszName) {
    for (const XmlElement* p = parent.getFirstChildElement(); p != nullptr;
         p = p->getNextSiblingElement()) {
        if (p->getName().equals(pszName)) {
            return p;
        }
    }
    return nullptr;
}

// The insert number of a kivm:param element; 0 when the attribute is not a number.
unsigned parseInsertIndex(const String& text) {
    unsigned n = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9' || n > 1000) {
            return 0;
        }
        n = n * 10 + static_cast<unsigned>(c - L'0');
    }
    return n;
}

const MessageBase* asMessage(const GDValue& value) {
    const GDValue* pTarget = value.target();
    return pTarget != nullptr && pTarget->kind() == GDValue::kKindMessage
               ? static_cast<const MessageBase*>(pTarget)
               : nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Catalogue entries

struct ExternalMessage::Entry : RefCountedBaseTemplate<MemAllocNewdel> {
    String m_strId;
    Option m_nOption = kNone;
    XmlDocument m_defaultDocument;
    const XmlElement* m_pDefault = nullptr;
    // The template resolved for the table generation m_nResolvedGeneration. Stale pointers stay
    // valid: the table keeps every document it ever loaded.
    mutable std::atomic<const XmlElement*> m_pResolved{nullptr};
    mutable std::atomic<std::uint64_t> m_nResolvedGeneration{0};
};

ExternalMessage::ExternalMessage(const wchar_t* pszId, Option nOption,
                                 const char* pszDefaultTemplateXml)
    : m_hEntry(new Entry) {
    m_hEntry->m_strId = String(pszId);
    m_hEntry->m_nOption = nOption;
    bool bValidDefaultTemplate = false;
    try {
        m_hEntry->m_defaultDocument = XmlDocument::parseString(
            std::string_view(pszDefaultTemplateXml != nullptr ? pszDefaultTemplateXml : ""),
            String(L"<message ") + m_hEntry->m_strId + L">");
        const XmlElement* pRoot = m_hEntry->m_defaultDocument.getDocumentElement();
        bValidDefaultTemplate =
            pRoot != nullptr && pRoot->getName().equals(kWebMessageName) &&
            pRoot->unchecked_getAttributeValue(L"name").equals(m_hEntry->m_strId);
        if (bValidDefaultTemplate) {
            m_hEntry->m_pDefault = pRoot;
        }
    } catch (const XmlException&) {
        bValidDefaultTemplate = false;
    }
    ZQ_ASSERT(bValidDefaultTemplate);
    MessageTable::getDefault().registerMessage(*this);
}

ExternalMessage::ExternalMessage(const ExternalMessage& other) = default;
ExternalMessage& ExternalMessage::operator=(const ExternalMessage& other) = default;
ExternalMessage::~ExternalMessage() = default;

const String& ExternalMessage::getId() const noexcept {
    return m_hEntry.get()->m_strId;
}

ExternalMessage::Option ExternalMessage::getOption() const noexcept {
    return m_hEntry.get()->m_nOption;
}

const XmlElement* ExternalMessage::getDefaultTemplate() const noexcept {
    return m_hEntry.get()->m_pDefault;
}

const XmlElement* ExternalMessage::getTemplate() const {
    return MessageTable::getDefault().resolveTemplate(*m_hEntry);
}

const XmlElement* ExternalMessage::getStructuredContent() const {
    const XmlElement* pTemplate = getTemplate();
    return pTemplate != nullptr ? findChildElement(*pTemplate, kXmlChildName) : nullptr;
}

// ---------------------------------------------------------------------------------------------
// Messages with inserts

ParamMessage::ParamMessage(const GDValue& templateValue) : m_template(templateValue) {}

ParamMessage& ParamMessage::setInsert(unsigned nIndex, const GDValue& value) {
    ZQ_ASSERT(nIndex >= 1 && nIndex <= kMaxInserts);
    if (nIndex >= 1 && nIndex <= kMaxInserts) {
        if (m_vecInserts.size() < nIndex) {
            m_vecInserts.resize(nIndex);
        }
        m_vecInserts[nIndex - 1].set(value);
    }
    return *this;
}

const ExternalMessage* ParamMessage::getCatalogueMessage() const noexcept {
    const MessageBase* pMessage = asMessage(*m_template);
    return pMessage != nullptr ? pMessage->getCatalogueMessage() : nullptr;
}

const GDValue* ParamMessage::getTemplateValue() const noexcept {
    return getCatalogueMessage() != nullptr ? nullptr : m_template.get();
}

const GDValue* ParamMessage::getInsert(unsigned nIndex) const noexcept {
    return nIndex >= 1 && nIndex <= m_vecInserts.size() ? m_vecInserts[nIndex - 1].get() : nullptr;
}

GDValue* ReferentialParameterizedMessage::clone() const {
    ParamMessage* pCopy = new ParamMessage(*m_pTemplate);
    for (unsigned i = 0; i < m_nInserts; ++i) {
        if (m_arrInserts[i] != nullptr) {
            pCopy->setInsert(i + 1, *m_arrInserts[i]);
        }
    }
    return pCopy;
}

// ---------------------------------------------------------------------------------------------
// The message table

struct MessageTable::State {
    mutable CriticalSection m_cs{0, "MessageTable"};
    // Copies of the defining objects: they share the entries and outlive their units.
    std::unordered_map<String, ExternalMessage, String::Hash> m_mapEntries;
    String m_strLanguage{L"en"};
    std::atomic<std::uint32_t> m_nLanguageGeneration{1};

    // Translations of m_strLoadedLanguage as read at registry generation m_nLoadedFiles.
    std::uint64_t m_nLoadedGeneration = 0;
    std::unordered_map<String, const XmlElement*, String::Hash> m_mapTranslations;
    // Every file ever read is kept for the table's lifetime, because entries may still hold
    // templates resolved from it; language and file changes are rare configuration events.
    std::vector<MessageFile> m_vecFiles;
    std::vector<String> m_vecLoadErrors;

    std::uint64_t currentGeneration() const noexcept {
        return (static_cast<std::uint64_t>(m_nLanguageGeneration.load(std::memory_order_acquire))
                << 32) |
               MessageFilesRegistry::getInstance().getGeneration();
    }

    // Called with m_cs held.
    void loadTranslations(std::uint64_t nGeneration) {
        if (m_nLoadedGeneration == nGeneration) {
            return;
        }
        m_mapTranslations.clear();
        const MessageFilesRegistry& registry = MessageFilesRegistry::getInstance();
        const std::string strLanguage = toUtf8(m_strLanguage.view()).std();
        for (const NString& directory : registry.getSearchDirectories()) {
            for (const String& file : registry.getRegisteredFiles()) {
                const std::string strPath =
                    directory.std() + "/" + strLanguage + "/" + toUtf8(file.view()).std();
                if (::access(strPath.c_str(), F_OK) != 0) {
                    continue;
                }
                readMessageFile(strPath);
            }
        }
        m_nLoadedGeneration = nGeneration;
    }

    void readMessageFile(const std::string& strPath) {
        try {
            MessageFile file = MessageFile::loadFromFile(NString(strPath.c_str()));
            for (const XmlElement* pTemplate : file.getTemplates()) {
                // The first file that translates an id wins, in search order.
                m_mapTranslations.emplace(pTemplate->getAttributeValue(L"name"), pTemplate);
            }
            m_vecFiles.push_back(std::move(file));
        } catch (const Exception& e) {
            String strError =
                String(L"Message file ") + fromUtf8(strPath) + L" ignored: " + fromUtf8(e.what());
            std::fprintf(stderr, "%s\n", toUtf8(strError.view()).c_str());
            m_vecLoadErrors.push_back(std::move(strError));
        }
    }
};

MessageTable::MessageTable() : m_pState(new State) {}

MessageTable::~MessageTable() {
    delete m_pState;
}

MessageTable& MessageTable::getDefault() {
    // Made by the first catalogue entry, so destroyed after every entry defined at load; freed
    // when the library that holds it is unloaded.
    static MessageTable s_table;
    return s_table;
}

void MessageTable::setLanguage(const String& language) {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    m_pState->m_strLanguage = language;
    m_pState->m_nLanguageGeneration.fetch_add(1, std::memory_order_acq_rel);
}

String MessageTable::getLanguage() const {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    return m_pState->m_strLanguage;
}

void MessageTable::registerMessage(const ExternalMessage& message) {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    // A later definition of the same id replaces the earlier one.
    auto [it, bInserted] = m_pState->m_mapEntries.try_emplace(message.getId(), message);
    if (!bInserted) {
        it->second = message;
    }
}

const ExternalMessage* MessageTable::findMessage(std::wstring_view id) const {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    const auto it = m_pState->m_mapEntries.find(String(id));
    return it != m_pState->m_mapEntries.end() ? &it->second : nullptr;
}

const XmlElement* MessageTable::resolveTemplate(const ExternalMessage::Entry& entry) const {
    const std::uint64_t nGeneration = m_pState->currentGeneration();
    if (entry.m_nResolvedGeneration.load(std::memory_order_acquire) == nGeneration) {
        return entry.m_pResolved.load(std::memory_order_acquire);
    }
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    m_pState->loadTranslations(nGeneration);
    const auto it = m_pState->m_mapTranslations.find(entry.m_strId);
    const XmlElement* pTemplate =
        it != m_pState->m_mapTranslations.end() ? it->second : entry.m_pDefault;
    entry.m_pResolved.store(pTemplate, std::memory_order_release);
    entry.m_nResolvedGeneration.store(nGeneration, std::memory_order_release);
    return pTemplate;
}

std::vector<String> MessageTable::getLoadErrors() const {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    return m_pState->m_vecLoadErrors;
}

// ---------------------------------------------------------------------------------------------
// Plain templates

bool PlainTemplate::textOf(const MessageBase& message, std::wstring_view& text,
                           std::uint64_t& nFingerprint) noexcept {
    if (message.getCatalogueMessage() != nullptr) {
        return false;
    }
    const GDValue* pTemplate = message.getTemplateValue();
    return pTemplate != nullptr && textOfTemplate(*pTemplate, text, nFingerprint);
}

bool PlainTemplate::textOfTemplate(const GDValue& templateValue, std::wstring_view& text,
                                   std::uint64_t& nFingerprint) noexcept {
    // A string (the template of nearly every message) hands its text over in one call, written
    // straight into text. Read back from a visitor's fields instead, the view's two halves,
    // stored one by one, came back in one wide load that the processor could not forward
    // from the stores: a stall on every message.
    if (templateValue.readyTemplateText(text, nFingerprint)) {
        return true;
    }
    nFingerprint = 0;
    const GDValue* pTarget = templateValue.target();
    if (pTarget == nullptr) {
        return false;
    }
    StringViewReader reader;
    pTarget->accept(reader);
    text = reader.m_view;
    return reader.m_bFound;
}

const MessageBase* MessageBase::plainTemplateMessage(std::wstring_view& text,
                                                     std::uint64_t& nFingerprint) const noexcept {
    return PlainTemplate::textOf(*this, text, nFingerprint) ? this : nullptr;
}

const ExternalMessage* ReferentialParameterizedMessage::getCatalogueMessage() const noexcept {
    const GDValue* pTarget = m_pTemplate->target();
    return pTarget != nullptr && pTarget->kind() == kKindMessage
               ? static_cast<const MessageBase*>(pTarget)->getCatalogueMessage()
               : nullptr;
}

// ---------------------------------------------------------------------------------------------
// The text formatter

const WebTextMessageFormatter& WebTextMessageFormatter::getInstance() noexcept {
    static const WebTextMessageFormatter s_formatter;
    return s_formatter;
}

void WebTextMessageFormatter::visitMessage(const MessageBase& message, Buffer& buffer,
                                           const MessageVisitorParams& params) const {
    if (params.nDepth >= kMaxFormatDepth) {
        return;
    }
    MessageVisitorParams inner = params;
    ++inner.nDepth;
    if (const ExternalMessage* pCatalogue = message.getCatalogueMessage()) {
        const XmlElement* pTemplate = pCatalogue->getTemplate();
        if (pTemplate == nullptr) {
            buffer.append(pCatalogue->getId());
            return;
        }
        formatTemplate(*pTemplate, message, buffer, inner);
        return;
    }
    const GDValue* pTemplate = message.getTemplateValue();
    if (pTemplate == nullptr) {
        return;
    }
    std::wstring_view text;
    std::uint64_t nFingerprint = 0;
    if (PlainTemplate::textOfTemplate(*pTemplate, text, nFingerprint)) {
        PlainTemplate::walk(
            text, message, [&buffer](const wchar_t* p, std::size_t n) { buffer.append(p, n); },
            [this, &buffer, &inner](const GDValue& insert) {
                insert.acceptMessageVisitor(*this, buffer, inner);
            });
    } else {
        pTemplate->acceptMessageVisitor(*this, buffer, inner);
    }
}

void WebTextMessageFormatter::formatTemplate(const XmlElement& webMessage,
                                             const MessageBase& message, Buffer& buffer,
                                             const MessageVisitorParams& params) const {
    if (const XmlElement* pText = findChildElement(webMessage, kTextChildName)) {
        expandCatalogueText(pText->getFirstChild(), message, buffer, params);
    } else if (const XmlElement* pXml = findChildElement(webMessage, kXmlChildName)) {
        for (const XmlNode* pNode = pXml->getFirstChild(); pNode != nullptr;
             pNode = pNode->getNextSibling()) {
            const XmlElement* pElement = pNode->asElement();
            buffer.append(pElement != nullptr ? pElement->toXmlString() : pNode->getNodeValue());
        }
    }
}

void WebTextMessageFormatter::expandCatalogueText(const XmlNode* pFirst, const MessageBase& message,
                                                  Buffer& buffer,
                                                  const MessageVisitorParams& params) const {
    for (const XmlNode* pNode = pFirst; pNode != nullptr; pNode = pNode->getNextSibling()) {
        const XmlElement* pElement = pNode->asElement();
        if (pElement == nullptr) {
            buffer.append(pNode->getNodeValue());
        } else if (pElement->getName().equals(kParamName)) {
            formatInsert(message,
                         parseInsertIndex(pElement->unchecked_getAttributeValue(L"insert")), buffer,
                         params);
        } else {
            expandCatalogueText(pElement->getFirstChild(), message, buffer, params);
        }
    }
}

void WebTextMessageFormatter::formatInsert(const MessageBase& message, unsigned nIndex,
                                           Buffer& buffer,
                                           const MessageVisitorParams& params) const {
    if (const GDValue* pInsert = message.getInsert(nIndex)) {
        pInsert->acceptMessageVisitor(*this, buffer, params);
    }
}

namespace {
// Messages render through the text formatter from library load on.
const bool g_bFormatterInstalled = [] {
    MessageFormatter::setDefault(&WebTextMessageFormatter::getInstance());
    return true;
}();
}  // namespace

}  // namespace kiv
