// The checks reconfigure makes before it changes anything. A running configuration is replaced
// only by a document found whole and sound, so every problem is collected, each with its file
// and line, instead of stopping at the first; the checks are kept apart from the two ways of
// applying a document so that each can be tried on a document of its own. The unit also
// defines XmlLogConfiguration::reconfigure, the one operation made of these checks.
#pragma once

#include <cstddef>
#include <vector>

#include "weblogger/internal/configdocument.h"

namespace kiv::logger_details {

// Each check adds what it finds to problems and never throws the configuration's exceptions.
class DocumentCheck {
public:
    DocumentCheck(const SourcePlace& place, std::vector<String>& vecProblems)
        : m_place(place), m_vecProblems(vecProblems) {}

    // pElement: where the problem was written, when it has a place in the document.
    void add(const GDValue& message, const XmlElement* pElement = nullptr) {
        m_vecProblems.push_back(textOf(message));
        if (m_pvecElements != nullptr) {
            m_pvecElements->push_back(pElement);
        }
    }
    // Also records, beside each problem, the element it was found at (null when none), for a
    // caller that shows columns as well as lines.
    void recordElementsInto(std::vector<const XmlElement*>& vecElements) {
        m_pvecElements = &vecElements;
    }
    // "file:line: what", the line being element's.
    void addAt(const XmlElement& element, const GDValue& what);
    void addMissing(const XmlElement& element, const ZQWString& attribute);
    std::size_t count() const noexcept { return m_vecProblems.size(); }

    // Every attribute of element and below it longer than the loader accepts; whether there
    // was none.
    bool checkAttributeLengths(const XmlElement& element);

    // Groups and global records: what the filter-records reader would throw for, found all at
    // once and with their lines.
    void checkGroupsAndRecords(const XmlElement& root);

    // The writer's name, implementation and id as the factory will read them; whether it can
    // be built.
    bool checkWriter(const XmlElement& writer);

    void addNotBuilt(const XmlElement& writer, const GDValue& reason);

private:
    const SourcePlace& m_place;
    std::vector<String>& m_vecProblems;
    std::vector<const XmlElement*>* m_pvecElements = nullptr;
};

// Builds every writer of root for reconfigure, not installed: they are WT_SHARED until the
// install puts them into the registry's list. What fails is added to check and left out;
// nRecords grows by the filter records of every writer.
std::vector<Handle<LogWriter>> buildWritersChecked(const XmlElement& root, DocumentCheck& check,
                                                   unsigned& nRecords);

}  // namespace kiv::logger_details
