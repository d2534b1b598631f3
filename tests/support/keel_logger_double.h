// A stand-in for the lower foundation library's own logger, installed before the logging
// library plugs its bridge in, so that tests can see what is diverted to it.
#pragma once

#include <vector>

#include "zq/webkeel/keellogger.h"

namespace kiv::test {

class KeelLoggerDouble : public KeelLogger {
public:
    struct Entry {
        MessageType nType;
        MessageSeverity nSeverity;
        String strFile;
        unsigned nLine;
        String strText;
    };

    bool pushLogsource(const String&) override { return false; }
    void popLogsource() override {}
    void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile, unsigned nLine,
             const wchar_t* pwszText) override {
        m_vecEntries.push_back(Entry{nType, nSeverity, String(pwszFile), nLine, String(pwszText)});
    }
    void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile, unsigned nLine,
             const GDValue& message) override {
        m_vecEntries.push_back(
            Entry{nType, nSeverity, String(pwszFile), nLine, message.toString()});
    }
    void logException(const Exception& exception, Exception::ExceptionSeverity) override {
        m_vecExceptions.push_back(fromUtf8Text(exception.what()));
    }
    void getCurrentLogSourceNames(std::vector<String>&) const override {}
    bool isInLogCall() const override { return false; }

    std::vector<Entry> m_vecEntries;
    std::vector<String> m_vecExceptions;

private:
    static String fromUtf8Text(const char* psz) {
        String str;
        for (const char* p = psz; *p != 0; ++p) {
            str.append(static_cast<wchar_t>(static_cast<unsigned char>(*p)));
        }
        return str;
    }
};

}  // namespace kiv::test
