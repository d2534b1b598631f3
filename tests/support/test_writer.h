// The shared test writer: records every message it receives (type, importance, text, current
// source) so that tests can assert on what reached a writer. Its "initialize" fails when the
// configuration element has fail="true", and remembers the name of the Format element it was
// given. Header-only: it is compiled into the library's test programs, which link
// libweblogger.so.
#pragma once

#include <cstddef>
#include <vector>

#include "weblogger/logsource.h"
#include "weblogger/logwriter.h"

namespace kiv::test {

class RecordingWriter : public LogWriter {
public:
    struct Record {
        LogSeverity severity;
        String text;
        String source;
    };

    RecordingWriter(const String& name, short id, WriterType type,
                    const Handle<const WriterFilter>& filter)
        : LogWriter(name, id, type, filter) {}

    bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) override {
        m_pFormat = pFormat;
        m_strFormatId = pFormat != nullptr ? pFormat->getAttributeValue(L"id") : String();
        return pConfig == nullptr || !pConfig->getAttributeValue(L"fail").equals(L"true");
    }

    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation*) override {
        const WriteGuard guard(*this);
        if (!guard) {
            return;
        }
        const LogSource* pSource = state.getCurSource();
        m_vecRecords.push_back(Record{severity, message.toString(),
                                      pSource != nullptr ? pSource->getPath() : String()});
    }

    std::vector<Record> records() const {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        return m_vecRecords;
    }
    std::size_t recordCount() const {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        return m_vecRecords.size();
    }
    const XmlElement* formatElement() const { return m_pFormat; }
    const String& formatId() const { return m_strFormatId; }

private:
    std::vector<Record> m_vecRecords;
    const XmlElement* m_pFormat = nullptr;
    String m_strFormatId;
};

}  // namespace kiv::test
