// The library's user-visible texts and its exceptions.
//
// Texts are catalogue messages with a default template that the message file
// "loggermessages.xml" may translate per language. Configuration errors are exceptions built
// from these messages.
#pragma once

#include "zq/webkeel/exception.h"
#include "zq/webutil/message.h"

namespace kiv {

// The message file that translates the texts below.
extern const wchar_t* const kLoggerMessagesFile;

// "Failed to init log writer. The following log format is not found: " insert 1
extern const ExternalMessage kmsgFormatNotFound;

class LogConfigurationException : public Exception {
public:
    // From a catalogue message, or a message with inserts.
    explicit LogConfigurationException(const GDValue& message);
    ZQ_EXCEPTION_COMMON(LogConfigurationException)
};

class LogFormatNotFound : public LogConfigurationException {
public:
    explicit LogFormatNotFound(const String& formatName);
    const String& getFormatName() const noexcept { return m_strFormatName; }
    ZQ_EXCEPTION_COMMON(LogFormatNotFound)

private:
    String m_strFormatName;
};

}  // namespace kiv
