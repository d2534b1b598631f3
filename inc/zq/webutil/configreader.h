// Reading settings out of an XML configuration document.
//
// A ConfigReader wraps a parsed document and answers questions by element path relative to the
// document element: "TimeZone/Logging" is the element Logging inside TimeZone inside the root,
// "Logging/@name" the attribute name of Logging. Every getter takes a default that stands for
// a setting that is absent, so code reading an optional setting needs no branches; a reader
// without a document (default-constructed) answers every question with its default.
//
// The host may publish one reader process-wide (setGlobal); the library consults it when it
// loads. The reader itself is immutable and may be read from many threads.
#pragma once

#include <string_view>
#include <vector>

#include "zq/webkeel/string.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

// A slash-separated element path, split once into its segments. Leading, trailing and doubled
// slashes are ignored, so "/A//B/" has the segments A and B.
class PathFilter {
public:
    explicit PathFilter(String path);

    const String& getPath() const noexcept { return m_strPath; }
    const std::vector<String>& getSegments() const noexcept { return m_vecSegments; }
    bool isEmpty() const noexcept { return m_vecSegments.empty(); }

private:
    String m_strPath;
    std::vector<String> m_vecSegments;
};

class ConfigReader {
public:
    ConfigReader() = default;
    explicit ConfigReader(XmlDocument document);

    // Both throw XmlException when the document cannot be read or parsed.
    static ConfigReader loadFromFile(const NString& path);
    static ConfigReader parseString(std::string_view utf8);

    // Null for a reader without a document.
    const XmlElement* getRootElement() const noexcept { return m_document.getDocumentElement(); }

    // The first element at the path below the root (an empty path is the root), or null.
    const XmlElement* getElement(std::wstring_view path) const;
    const XmlElement* getElement(const PathFilter& path) const;

    // The inner text of the element at path, or the value of the attribute when the last
    // segment is "@name", without leading and trailing white space; strDefault when absent.
    String getString(std::wstring_view path, const String& strDefault = String()) const;

    // true/yes/on/1 and false/no/off/0, in any case; bDefault when the setting is absent or
    // says something else.
    bool getBoolean(std::wstring_view path, bool bDefault) const;

    // The process-wide reader; null unless the host has set one. The reader must outlive its
    // publication.
    static const ConfigReader* getGlobal() noexcept;
    static void setGlobal(const ConfigReader* pReader) noexcept;

private:
    // The text of the setting at path; false when it is absent.
    bool findValue(const PathFilter& path, String& strValue) const;

    XmlDocument m_document;
};

}  // namespace kiv
