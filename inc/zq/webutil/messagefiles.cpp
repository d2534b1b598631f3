#include "zq/webutil/messagefiles.h"

#include <cstdlib>
#include <unordered_set>

#include "zq/webkeel/criticalsection.h"

namespace kiv {
namespace {

const wchar_t* const kWebMessageName = L"WebMessage";

}  // namespace

MessageFile::MessageFile(XmlDocument document) : m_document(std::move(document)) {
    const XmlElement* pRoot = m_document.getDocumentElement();
    if (pRoot == nullptr) {
        return;
    }
    std::vector<const XmlElement*> vecCandidates;
    if (pRoot->getName().equals(kWebMessageName)) {
        vecCandidates.push_back(pRoot);
    } else {
        vecCandidates = pRoot->selectElements(kWebMessageName);
    }
    std::unordered_set<std::wstring_view> setSeen;
    for (const XmlElement* pCandidate : vecCandidates) {
        if (pCandidate->hasAttribute(L"name") &&
            setSeen.insert(pCandidate->unchecked_getAttributeValue(L"name").view()).second) {
            m_vecTemplates.push_back(pCandidate);
        }
    }
}

MessageFile MessageFile::loadFromFile(const NString& path) {
    return MessageFile(XmlDocument::loadFromFile(path));
}

MessageFile MessageFile::parseString(std::string_view utf8, const String& sourceName) {
    return MessageFile(XmlDocument::parseString(utf8, sourceName));
}

const XmlElement* MessageFile::findTemplate(std::wstring_view id) const {
    for (const XmlElement* pTemplate : m_vecTemplates) {
        if (pTemplate->unchecked_getAttributeValue(L"name").view() == id) {
            return pTemplate;
        }
    }
    return nullptr;
}

struct MessageFilesRegistry::State {
    mutable CriticalSection m_cs{0, "MessageFilesRegistry"};
    std::vector<String> m_vecFiles;
    std::vector<NString> m_vecDirectories;
};

MessageFilesRegistry::MessageFilesRegistry() : m_pState(new State) {
    if (const char* pszDirs = std::getenv("WEBLOGGER_MESSAGE_DIRS")) {
        std::string_view dirs(pszDirs);
        while (!dirs.empty()) {
            const std::size_t nColon = dirs.find(':');
            const std::string_view dir = dirs.substr(0, nColon);
            if (!dir.empty()) {
                m_pState->m_vecDirectories.emplace_back(dir);
            }
            dirs = nColon == std::string_view::npos ? std::string_view() : dirs.substr(nColon + 1);
        }
    }
}

MessageFilesRegistry::~MessageFilesRegistry() {
    delete m_pState;
}

MessageFilesRegistry& MessageFilesRegistry::getInstance() {
    // Made before the catalogue entries that it translates, so destroyed after them; freed
    // when the library that holds it is unloaded.
    static MessageFilesRegistry s_instance;
    return s_instance;
}

void MessageFilesRegistry::registerMessageFiles(const String& fileName) {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    for (const String& existing : m_pState->m_vecFiles) {
        if (existing.equals(fileName)) {
            return;
        }
    }
    m_pState->m_vecFiles.push_back(fileName);
    m_nGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void MessageFilesRegistry::addSearchDirectory(const NString& directory) {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    m_pState->m_vecDirectories.push_back(directory);
    m_nGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void MessageFilesRegistry::reset() {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    m_pState->m_vecDirectories.clear();
    m_pState->m_vecFiles.clear();
    m_nGeneration.fetch_add(1, std::memory_order_acq_rel);
}

std::vector<String> MessageFilesRegistry::getRegisteredFiles() const {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    return m_pState->m_vecFiles;
}

std::vector<NString> MessageFilesRegistry::getSearchDirectories() const {
    LockGuard<CriticalSection> lock(m_pState->m_cs);
    return m_pState->m_vecDirectories;
}

}  // namespace kiv
