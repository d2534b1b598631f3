// Builds writers the way the configuration does: from a Writer element through the factory
// registered under the writer's class name, with the Format elements of a Formats element.
#pragma once

#include <string>

#include "weblogger/logsource.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/transcode.h"

namespace kiv::test {

// One line per message: the text and a line break.
inline const char* const kLineFormats =
    "<Formats><Format name='Default'><MessageText/><LineBreak/></Format></Formats>";

class WriterConfig {
public:
    // writerXml is the Writer element; formatsXml a Formats element holding Format elements.
    WriterConfig(const std::string& writerXml, const char* pszFormatsXml = kLineFormats)
        : m_writer(XmlDocument::parseString(std::string_view(writerXml))),
          m_formats(XmlDocument::parseString(std::string_view(pszFormatsXml))) {}

    Handle<LogWriter> create(const wchar_t* pszClassName,
                             LogWriter::WriterType type = LogWriter::WT_SHARED) const {
        const Handle<const LogWritersFactory> hFactory =
            logger_details::LogWritersMan::getLogWritersMan().getLogWritersFactory(
                String(pszClassName));
        LogWritersFactory::ConfigChain chain;
        chain.push_back(m_formats.getDocumentElement());
        return hFactory->create(m_writer.getDocumentElement(), chain, type, nullptr);
    }

    const XmlElement* writerElement() const { return m_writer.getDocumentElement(); }

private:
    XmlDocument m_writer;
    XmlDocument m_formats;
};

// A state with one source pushed, for calling writers directly.
inline LoggerState stateWithSource(const wchar_t* pszSource) {
    LoggerState state;
    state.pushSource(*LogSourceHandle(String(pszSource)));
    return state;
}

}  // namespace kiv::test
