// The crash flush behind crashflush.h: the signal handler, the texts it writes, and the
// logging element's attribute that turns it on.
//
// The handler walks the table of live file writers (livefilewriters.h) without locks, pins each
// slot, try-locks the writer, writes out its whole buffered lines and the signal's line with
// write(2), and releases everything before it hands the signal on. Only one thread flushes; the
// state word g_nFlushState (0 idle, 1 flushing, 2 done) keeps a second crashing thread from
// flushing twice.
//
// The texts are rendered into one of two banks of fixed arrays and published by switching an
// atomic index, so that a crash during a re-rendering reads a complete bank.
#pragma once

#include <optional>

#include "zq/webkeel/string.h"
#include "zq/webutil/message.h"
#include "zq/webutil/xmldocument.h"

namespace kiv::logger_details {

class FatalSignalFlush {
public:
    // What the logging element's "flushOnCrash" says.
    enum FlushOnCrashSetting { FC_UNSET = 0, FC_ON = 1, FC_OFF = 2, FC_INVALID = 3 };

    static bool install() noexcept;
    static bool isInstalled() noexcept;
    // Renders the texts again (the message file or the language may have changed); does nothing
    // before install.
    static void renderTexts() noexcept;
    // The calling thread's alternate signal stack.
    static bool giveThreadAltStack() noexcept;

    // Reads "flushOnCrash" of the logging element; for FC_INVALID, problem names the file, the
    // element's line, the element and the value.
    static FlushOnCrashSetting readSetting(const XmlElement& logging, const String& strFile,
                                           unsigned nLine, std::optional<ParamMessage>& problem);
    // For the loaders: installs the flush when the element asks for it, renders the texts again
    // when it is installed already, and reports an invalid value on standard error. Never
    // throws.
    static void applySetting(const XmlElement& logging, const String& strFile,
                             unsigned nLine) noexcept;
};

}  // namespace kiv::logger_details
