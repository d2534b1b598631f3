// Writers that render each message into an output stream: GenericWriter pairs any stream with
// a message writer; CoutWriter, registered as "CoutWriter", writes to the process's standard
// output.
//
// Locking: a console writer takes the process-wide console lock, then its own lock (never the
// reverse), and holds both across rendering and flushing, so the lines of messages from
// different console writers and threads never interleave. Every message is flushed: it is
// visible as soon as logMessage returns.
#pragma once

#include "weblogger/internal/messagewriter.h"
#include "weblogger/logwriter.h"
#include "zq/webutil/coutstream.h"

namespace kiv {

template <class Stream, class Adaptor>
class GenericWriter : public LogWriter {
public:
    GenericWriter(const String& name, short id, WriterType type,
                  const Handle<const WriterFilter>& filter)
        : LogWriter(name, id, type, filter) {}

    // Compiles the format (Plain unless the format says otherwise) and makes the message
    // writer; the stream is whoever constructed the writer gives with setStream.
    bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) override;
    // Renders the message into the stream and flushes it, under the writer's own lock.
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override;

    // Every message is flushed already; this flushes the stream once more under the lock.
    void flush() noexcept override;

    void setStream(Stream* pStream) noexcept { m_pwc = pStream; }

protected:
    void compileFormat(const XmlElement* pFormat);
    void renderAndFlush(const LogSeverity& severity, const GDValue& message,
                        const LoggerState& state, const FileLocation* pLocation);

    Stream* m_pwc = nullptr;
    Handle<const MessageWriter<Stream>> m_pwr;
};

class CoutWriter : public GenericWriter<CoutStream, HoopyAdaptor> {
public:
    CoutWriter(const String& name, short id, WriterType type,
               const Handle<const WriterFilter>& filter);

    // Writes to standard output; the console writer has no settings of its own.
    bool initialize(const XmlElement* pConfig, const XmlElement* pFormat) override;
    // Takes the console lock, then the writer's own lock, renders, flushes.
    void logMessage(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                    const FileLocation* pLocation) override;
    // Takes the console lock, then the writer's own lock, and flushes standard output.
    void flush() noexcept override;

private:
    CoutStream& m_CoutStream;
};

// ---------------------------------------------------------------------------------------------

template <class Stream, class Adaptor>
void GenericWriter<Stream, Adaptor>::compileFormat(const XmlElement* pFormat) {
    m_pwr = MessageWriterFactory<Stream, Adaptor>::compile(pFormat);
}

template <class Stream, class Adaptor>
bool GenericWriter<Stream, Adaptor>::initialize(const XmlElement*, const XmlElement* pFormat) {
    compileFormat(pFormat);
    return true;
}

template <class Stream, class Adaptor>
void GenericWriter<Stream, Adaptor>::renderAndFlush(const LogSeverity& severity,
                                                    const GDValue& message,
                                                    const LoggerState& state,
                                                    const FileLocation* pLocation) {
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    m_pwr->msg_log(severity, message, state, pLocation, m_pwc);
    if (m_pwc != nullptr) {
        m_pwc->flush();
    }
}

template <class Stream, class Adaptor>
void GenericWriter<Stream, Adaptor>::flush() noexcept {
    LockGuard<WriterSynchro> guard(getWriterSynchro());
    try {
        if (m_pwc != nullptr) {
            m_pwc->flush();
        }
    } catch (...) {
        // A stream that cannot take its bytes now keeps them for the next message.
    }
}

template <class Stream, class Adaptor>
void GenericWriter<Stream, Adaptor>::logMessage(const LogSeverity& severity, const GDValue& message,
                                                const LoggerState& state,
                                                const FileLocation* pLocation) {
    renderAndFlush(severity, message, state, pLocation);
}

}  // namespace kiv
