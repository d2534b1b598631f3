// The bridge from the lower foundation library's logging hook into this library.
//
// Once plugged in, the foundation's messages, exceptions and source changes reach the calling
// thread's TmLogger and so this library's writers. The bridge also remembers the foundation
// logger that was installed before it: messages logged from inside a log call are diverted
// there instead of recursing. The bridge is stateless and shared by all threads; every
// operation acts on the calling thread's logger only and takes no lock. The library's shutdown
// unplugs it (the foundation gets back the logger it had before) and deletes it first of the
// process-wide objects, when no other thread can still be calling it.
#pragma once

#include <cstdint>

#include "zq/webkeel/keellogger.h"

namespace kiv {

namespace logger_details {
class LibraryShutdown;
}

class KeelLoggerLogImpl : public KeelLogger {
public:
    // The single instance, made on first use (thread-safe).
    static KeelLoggerLogImpl& getKeelLoggerLogImpl();
    // Installs the single instance as the foundation's logger.
    static void plugMeIn();

    // The importance of a foundation severity or an exception severity (same numbering):
    // 0 -> 32, 1 -> 31, 2 -> 16, 3 -> 10, 4 -> 5, 5 and 6 -> 1, anything else -> 31.
    static std::uint64_t importanceOf(int nSeverity) noexcept;

    bool pushLogsource(const String& name) override;
    // Pairs with a successful pushLogsource; it does not check for an empty stack.
    void popLogsource() override;
    void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile, unsigned nLine,
             const wchar_t* pwszText) override;
    void log(MessageType nType, MessageSeverity nSeverity, const wchar_t* pwszFile, unsigned nLine,
             const GDValue& message) override;
    void logException(const Exception& exception, Exception::ExceptionSeverity nSeverity) override;
    void getCurrentLogSourceNames(std::vector<String>& names) const override;
    bool isInLogCall() const override;

private:
    friend class logger_details::LibraryShutdown;
    KeelLoggerLogImpl();
    // Unplugs and deletes the instance, if there is one.
    static void destroyBridge() noexcept;
};

}  // namespace kiv
