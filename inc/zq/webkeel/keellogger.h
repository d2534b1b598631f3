// The lower foundation library's logging hook.
//
// The foundation has no writers of its own: it sends its messages, exceptions and source
// changes to whichever KeelLogger is installed. Installing a logger remembers the one that was
// installed before it (getPrevKeelLogger), so that a logger can hand on what it must not handle
// itself: the logging library diverts messages that are logged from inside a log call to the
// previous logger instead of recursing.
//
// Installation is meant for start-up; the current logger is published atomically, and an
// installed logger must stay alive until it is replaced.
#pragma once

#include <vector>

#include "zq/webkeel/exception.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/string.h"

namespace kiv {

class KeelLogger {
public:
    enum MessageType { kError = 1, kWarning = 2, kInformation = 3 };
    enum MessageSeverity {
        kSeverityMinor = 0,
        kSeverityNotSet = 1,
        kSeverityNormal = 2,
        kSeverityCritical = 3,
        kSeverityUnknown = 4,
        kSeverityFatal = 5,
        kSeverityCorruption = 6
    };

    KeelLogger() = default;
    KeelLogger(const KeelLogger&) = delete;
    KeelLogger& operator=(const KeelLogger&) = delete;

    // Pushes the source of exactly this full name; false when there is none.
    virtual bool pushLogsource(const String& name) = 0;
    virtual void popLogsource() = 0;
    virtual void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile,
                     unsigned nLine, const wchar_t* pwszText) = 0;
    virtual void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile,
                     unsigned nLine, const GDValue& message) = 0;
    virtual void logException(const Exception& exception,
                              Exception::ExceptionSeverity nSeverity) = 0;
    virtual void getCurrentLogSourceNames(std::vector<String>& names) const = 0;
    virtual bool isInLogCall() const = 0;
    virtual ~KeelLogger() = default;

    // The logger that was installed before this one (null when there was none).
    KeelLogger* getPrevKeelLogger() const noexcept { return m_pPrevKeelLogger; }

    // Installs pLogger as the foundation's logger; the logger installed until now becomes its
    // previous logger. Returns that previous logger. Installing the current logger again
    // changes nothing.
    static KeelLogger* setKeelLogger(KeelLogger* pLogger) noexcept;
    // The installed logger, or null.
    static KeelLogger* getKeelLogger() noexcept;

private:
    KeelLogger* m_pPrevKeelLogger = nullptr;
};

}  // namespace kiv
