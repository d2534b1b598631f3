// Message files: the translations of catalogue texts, and where they are looked for.
//
// A message file holds WebMessage elements by name; the message table (message.h) asks the
// registry which files to read and in which directories, and reads them per language.
//
// Threads: the registry is process-wide and guards its lists with its own lock; its generation
// is read without the lock so that a table notices a change with one load.
#pragma once

#include <atomic>
#include <cstddef>
#include <string_view>
#include <vector>

#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

// One message file: the WebMessage children of the root (or the root itself, when it is one)
// by their "name" attribute; the first element of a name wins.
class MessageFile {
public:
    static MessageFile loadFromFile(const NString& path);
    static MessageFile parseString(std::string_view utf8, const String& sourceName = String());

    // The WebMessage element translating id, or null.
    const XmlElement* findTemplate(std::wstring_view id) const;
    std::size_t size() const noexcept { return m_vecTemplates.size(); }
    const std::vector<const XmlElement*>& getTemplates() const noexcept { return m_vecTemplates; }

private:
    explicit MessageFile(XmlDocument document);
    XmlDocument m_document;
    std::vector<const XmlElement*> m_vecTemplates;
};

// The message file names that the message table looks for, and where it looks: for language
// L and file F, each search directory D is tried as D/L/F. Directories come from
// addSearchDirectory and from the colon-separated environment variable
// WEBLOGGER_MESSAGE_DIRS, read when the registry is first used.
class MessageFilesRegistry {
public:
    static MessageFilesRegistry& getInstance();

    void registerMessageFiles(const String& fileName);
    void addSearchDirectory(const NString& directory);
    // Forgets the search directories (including the environment's) and files; for tests.
    void reset();

    std::vector<String> getRegisteredFiles() const;
    std::vector<NString> getSearchDirectories() const;
    // Changes whenever a file or directory is added, so that tables reload translations.
    unsigned getGeneration() const noexcept {
        return m_nGeneration.load(std::memory_order_acquire);
    }

    ~MessageFilesRegistry();
    MessageFilesRegistry(const MessageFilesRegistry&) = delete;
    MessageFilesRegistry& operator=(const MessageFilesRegistry&) = delete;

private:
    MessageFilesRegistry();
    struct State;
    State* m_pState;
    std::atomic<unsigned> m_nGeneration{1};
};

}  // namespace kiv
