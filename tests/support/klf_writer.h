// A test writer that renders every message through the built-in "KLF-Text" format, as a file
// writer configured with it would, and keeps the rendered texts; with ecidOf a test reads the
// ECID a line shows. Header-only; compiled into programs that link libweblogger.so.
#pragma once

#include <string>
#include <vector>

#include "weblogger/internal/messagewriter.h"
#include "weblogger/logwriter.h"
#include "weblogger/messageformatloader.h"
#include "zq/webkeel/transcode.h"

namespace kiv::test {

class KlfTextWriter : public LogWriter {
public:
    using WideBuffer = StringBufferBaseTemplate<wchar_t>;
    using Factory = MessageWriterFactory<WideBuffer, WriterAdapter<WideBuffer>>;

    KlfTextWriter(short id, WriterType type)
        : LogWriter(String(L"klf"), id, type, Handle<const WriterFilter>()) {
        auto* pFormat = new CompiledMsgFormat;
        MessageFormatLoader::loadFormat(*pFormat, *klfTextElement(),
                                        CompiledMsgFormat::kEncodingPlain);
        m_hWriter = Factory::createMessageWriter(pFormat, true);
    }

    static const XmlElement* klfTextElement() {
        for (const XmlElement* p :
             MessageFormatLoader::getFallbackLoggerFormats()->selectElements(L"Format")) {
            if (p->getAttributeValue(L"name").equals(L"KLF-Text")) {
                return p;
            }
        }
        return nullptr;
    }

    bool initialize(const XmlElement*, const XmlElement*) override { return true; }

    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override {
        const WriteGuard guard(*this);
        if (!guard) {
            return;
        }
        // The format shows the file and line, so a location is always given.
        static const FileLocation s_here(L"klf_writer.h", 1);
        m_buffer.clear();
        m_hWriter->msg_log(severity, message, state, pLocation != nullptr ? pLocation : &s_here,
                           &m_buffer);
        m_vecLines.push_back(toUtf8(m_buffer.view()).std());
    }

    std::vector<std::string> lines() const {
        LockGuard<WriterSynchro> guard(getWriterSynchro());
        return m_vecLines;
    }

    // The text between "[ecid: " and the next "]" of a rendered line; "<none>" without one.
    static std::string ecidOf(const std::string& strLine) {
        static const std::string kLabel = "[ecid: ";
        const std::size_t nStart = strLine.find(kLabel);
        if (nStart == std::string::npos) {
            return "<none>";
        }
        const std::size_t nFrom = nStart + kLabel.size();
        return strLine.substr(nFrom, strLine.find(']', nFrom) - nFrom);
    }

private:
    MessageWriterHandle<WideBuffer> m_hWriter;
    StringBufferTemplate<511, wchar_t> m_buffer;
    std::vector<std::string> m_vecLines;
};

}  // namespace kiv::test
