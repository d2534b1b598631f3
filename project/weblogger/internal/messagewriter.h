// Rendering one message through a compiled format.
//
// A message writer walks the records of a CompiledMsgFormat in order and writes each record's
// piece through two adaptors: one for the format's own text and one for values. The choice of
// adaptors makes a format "Xml" (values escaped) or "Plain"; the stream (a wide buffer, the
// record buffer a file writer copies into its file, the console) is whatever the adaptors
// write to. Writers own one message writer each, made by
// MessageWriterFactory<Stream, Writer>::createMessageWriter.
//
// Which pieces are values (escaped in Xml formats): the time stamps and the zone name, each
// source name of the sources list, the file path or name, the line, the message text, the
// severity number, the properties list's separator, the property name and the backtrace.
// Format text, list separators, prefixes and suffixes, the current source's name, the message
// type text and property values go through the format-text adaptor unescaped; the current
// source and property values are deliberately not escaped. Json formats are the exception:
// a JSON string cannot hold an unescaped quotation mark or control character, so there the
// current source, the message type text and property values are escaped like every other
// value (see EscapesEveryValue).
//
// Threads: what rendering changes as it goes (the buffer that values are formatted into, the
// time-stamp texts) belongs to the rendering thread (RenderScratch), not to the message writer,
// so one message writer may render on several threads at once. The file writer relies on it:
// it renders before it takes its lock, so that its lock covers only the copy of the record
// into its file. The console and event-log writers still render under their own locks, into
// the stream they guard.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>
#include <type_traits>

#include "weblogger/commonseverities.h"
#include "weblogger/internal/logtimezone.h"
#include "weblogger/internal/recordbuffer.h"
#include "weblogger/internal/templatecache.h"
#include "weblogger/internal/writeradapters.h"
#include "weblogger/loggerstate.h"
#include "weblogger/messageformatloader.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/stringbuffer.h"
#include "zq/webutil/coutstream.h"
#include "zq/webutil/message.h"

namespace kiv {

template <class Stream>
class MessageWriter : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    ~MessageWriter() override = default;
    // Renders the message into out.
    virtual void msg_log(const LogSeverity& severity, const GDValue& message,
                         const LoggerState& state, const FileLocation* pFileLocation,
                         Stream* out) const = 0;
};

template <class Stream>
using MessageWriterHandle = Handle<const MessageWriter<Stream>>;

namespace logger_details {

// A piece of text in both the forms a renderer may need: as it is, and as UTF-8.
struct TwoFormText {
    std::wstring_view wide;
    std::string_view utf8;
};

// The text of a time stamp, rebuilt only when the second or the logging time zone changes:
// a full date conversion per message would cost more than the rest of the rendering.
class TimeStampCache {
public:
    // "<local date and time> <zone short name>" for the second now.
    TwoFormText ordinary(std::time_t now) {
        return m_ordinary.isFor(now) ? m_ordinary.text() : refresh(m_ordinary, now, false);
    }
    // ISO 8601 with the zone offset for the second now.
    TwoFormText klf(std::time_t now) {
        return m_klf.isFor(now) ? m_klf.text() : refresh(m_klf, now, true);
    }

private:
    static constexpr std::size_t kMaxChars = 96;
    struct Entry {
        // Whether the texts are those of second now in the current logging zone: the test every
        // message makes, inline.
        bool isFor(std::time_t now) const noexcept {
            return tSecond == now && nZoneGeneration == LoggingTimeZone::getGeneration();
        }
        TwoFormText text() const noexcept {
            return TwoFormText{std::wstring_view(arrText, nLength),
                               std::string_view(arrUtf8, nUtf8Length)};
        }

        std::time_t tSecond = -1;
        std::uint64_t nZoneGeneration = 0;
        std::size_t nLength = 0;
        std::size_t nUtf8Length = 0;
        wchar_t arrText[kMaxChars] = {};
        char arrUtf8[kMaxChars * 4] = {};
    };
    // Renders the texts of second now again.
    static TwoFormText refresh(Entry& entry, std::time_t now, bool bIso8601);

    Entry m_ordinary;
    Entry m_klf;
};

// The head of a line, cached: the bytes of the records a format starts with that depend on
// nothing but the second, the logging zone, the severity and the current source (format text,
// time stamps, the message type, the importance, the source's name), kept with what they were
// rendered for. Within a second a thread's messages of one type from one source start with the
// same bytes, and the renderer copies them in one piece.
class LineHeadCache {
public:
    static constexpr std::size_t kMaxBytes = 256;

    // What a head depends on. Writers and sources are named by serial numbers, never reused,
    // so a key cannot match text rendered for another writer or source made at the same address.
    struct Key {
        std::uint64_t nWriterSerial = 0;
        std::time_t tSecond = -1;
        std::uint64_t nZoneGeneration = 0;
        std::uint64_t nImportance = 0;
        std::uint64_t nSourceSerial = 0;
        int nType = -1;
        bool operator==(const Key&) const noexcept = default;
    };
    struct Entry {
        Key key;
        std::size_t nBytes = 0;
        char arrBytes[kMaxBytes];
    };

    // The entry for a writer; two writers a thread alternates between keep one each.
    Entry& entryFor(std::uint64_t nWriterSerial) noexcept {
        return m_arrEntries[nWriterSerial % kEntries];
    }
    // Keeps bytes for key; a head too long to keep leaves the entry matching nothing.
    static void remember(Entry& entry, const Key& key, const char* pBytes,
                         std::size_t nBytes) noexcept {
        if (nBytes > kMaxBytes) {
            entry.key = Key{};
            return;
        }
        std::memcpy(entry.arrBytes, pBytes, nBytes);
        entry.nBytes = nBytes;
        entry.key = key;
    }

private:
    static constexpr std::size_t kEntries = 2;
    Entry m_arrEntries[kEntries];
};

// What rendering changes as it goes, one set per thread and shared by every message writer the
// thread renders with: the buffer that values are formatted into, the time-stamp texts, the
// record a file writer renders into before it takes its lock, the plain templates the thread
// has compiled to UTF-8 and the line heads it rendered last. A thread renders one
// message at a time (a message logged from inside a log call is diverted, never rendered
// inside another rendering), which is all that sharing needs.
//
// Made on the thread's first rendering and destroyed when the thread ends; found through a
// thread_local pointer, which costs far less than the thread-specific lookup behind it.
struct RenderScratch : public MemAllocNewdel {
    // The calling thread's, made on first use. Throws when it cannot be made (no memory); the
    // log call's entry point swallows that. Inline: the file writer and its renderer ask for
    // it on every message.
    static RenderScratch& forThisThread() {
        if (RenderScratch* pScratch = t_pScratch) [[likely]] {
            return *pScratch;
        }
        return makeForThisThread();
    }
    static RenderScratch& makeForThisThread();
    // The calling thread's scratch while it exists. Trivially destructible, so it is still
    // there while the thread's thread-specific values are destroyed.
    static inline thread_local RenderScratch* t_pScratch = nullptr;

    CacheLineGap gapBefore;
    StringBufferTemplate<511, wchar_t> valueText;
    TimeStampCache timeStamps;
    RecordBuffer record;
    Utf8TemplateCache templates;
    LineHeadCache lineHeads;
    CacheLineGap gapAfter;
};

// A number for each message writer the process makes, never reused (LineHeadCache's keys).
std::uint64_t nextMessageWriterSerial() noexcept;

// Shared pieces of rendering that do not depend on the adaptors.
struct RenderingHelpers {
    // Whether text, of the literal's length, equals it: a compare of a size known at compile
    // time, which the compiler turns into a few wide loads instead of a library call.
    template <std::size_t N>
    static bool sameText(std::wstring_view text, const wchar_t (&literal)[N]) noexcept {
        return std::memcmp(text.data(), literal, (N - 1) * sizeof(wchar_t)) == 0;
    }
    // "ecid", "ThreadID", "SIName", "IDDName", "IDDGUID" and "userId". Inline and told apart by
    // length first: every message with a Properties list asks this of each of its properties.
    static bool isReservedPropertyName(const String& name) noexcept {
        const std::wstring_view view = name.view();
        switch (view.size()) {
            case 4:
                return sameText(view, L"ecid");
            case 6:
                return sameText(view, L"SIName") || sameText(view, L"userId");
            case 7:
                return sameText(view, L"IDDName") || sameText(view, L"IDDGUID");
            case 8:
                return sameText(view, L"ThreadID");
            default:
                return false;
        }
    }
    // The decimal digits of n into arrDigits (no terminator); returns the count.
    static std::size_t toDecimal(std::uint64_t n, wchar_t (&arrDigits)[24]) noexcept;
    static std::wstring_view prettyPath(const wchar_t* pwszFile) noexcept;
    static std::wstring_view fileNameOnly(const wchar_t* pwszFile) noexcept;
};

// Whether a value adaptor must also escape the pieces that Xml formats leave as they are (the
// current source, the message type text, property values): true for JSON escaping.
template <class ValueWriter>
struct EscapesEveryValue : std::false_type {};
template <class Inner>
struct EscapesEveryValue<EncodingAdapter<Inner, W2WJsonEncoding>> : std::true_type {};

}  // namespace logger_details

template <class Stream, class TextWriter, class ValueWriter>
class MessageWriterImpl : public MessageWriter<Stream> {
public:
    // The format is fixed for the writer's life: how many records make its cached line head
    // is worked out here, once.
    MessageWriterImpl(const CompiledMsgFormat* pFormat, bool bDeleteFormat)
        : m_pformat(pFormat),
          m_bDeleteFmt(bDeleteFormat),
          m_nSerial(logger_details::nextMessageWriterSerial()),
          m_nHeadRecords(countHeadRecords(*pFormat)),
          m_nTailRecords(countTailRecords(*pFormat, m_nHeadRecords)),
          m_strTailUtf8(joinTailText(*pFormat, m_nTailRecords)),
          m_bBodyIsMessage(isMessageOnly(*pFormat, m_nHeadRecords, m_nTailRecords)) {}
    ~MessageWriterImpl() override {
        if (m_bDeleteFmt) {
            delete m_pformat;
        }
    }
    MessageWriterImpl(const MessageWriterImpl&) = delete;
    MessageWriterImpl& operator=(const MessageWriterImpl&) = delete;

    void msg_log(const LogSeverity& severity, const GDValue& message, const LoggerState& state,
                 const FileLocation* pFileLocation, Stream* out) const override;

    // Renders one property (its name and its values) with a nested format.
    void writeProperty(const CompiledMsgFormat& itemFormat, const LogSeverity& severity,
                       const LoggerState::PropsMap::value_type& entry, Stream* out) const;

    const CompiledMsgFormat* getFormat() const noexcept { return m_pformat; }

private:
    using Record = CompiledMsgFormat::Record;
    // Writes the current source, the message type text and property values.
    using InsertWriter = std::conditional_t<logger_details::EscapesEveryValue<ValueWriter>::value,
                                            ValueWriter, TextWriter>;

    using Scratch = logger_details::RenderScratch;
    // Line heads are cached where the stream is the file writer's record buffer, which says
    // where a head's bytes start and end.
    static constexpr bool kCachesLineHeads = std::is_same_v<Stream, RecordBuffer>;

    // How many leading records depend on nothing but the second, the zone, the severity and the
    // current source; 0 when fewer than two do (nothing to gain) or heads are not cached.
    static std::size_t countHeadRecords(const CompiledMsgFormat& format) noexcept;
    // 1 when the last record is fixed text after the first nHead, else 0; 0 too where the
    // text writer does not take UTF-8 as it is (it escapes or encodes on its own).
    static std::size_t countTailRecords(const CompiledMsgFormat& format,
                                        std::size_t nHead) noexcept;
    // The UTF-8 bytes of the last nTail records (none or the last one).
    static std::string joinTailText(const CompiledMsgFormat& format, std::size_t nTail);
    // Whether what lies between the head and the tail is the message text alone, as in most
    // formats: the line is then the cached head, the message and the tail, and rendering it
    // reads no record.
    static bool isMessageOnly(const CompiledMsgFormat& format, std::size_t nHead,
                              std::size_t nTail) noexcept;
    // One record. now is the second the whole line is stamped with.
    [[gnu::always_inline]] void writeRecord(const Record& record, const LogSeverity& severity,
                                            const GDValue& message, const LoggerState& state,
                                            const FileLocation* pFileLocation, Scratch& scratch,
                                            std::time_t now, Stream* out) const;
    // The first m_nHeadRecords records: copied from the thread's cache when it holds them for
    // this second, severity and source, otherwise rendered and kept there. The copy is inlined
    // into msg_log and the rendering kept out of line: a flushed line runs right after the
    // kernel's write has evicted its code, and every line of code it runs is fetched again.
    [[gnu::always_inline]] void writeLineHead(const LogSeverity& severity, const LoggerState& state,
                                              Scratch& scratch, std::time_t now, Stream* out) const;
    [[gnu::noinline]] void renderLineHead(const logger_details::LineHeadCache::Key& key,
                                          const LogSeverity& severity, const LoggerState& state,
                                          Scratch& scratch, std::time_t now, Stream* out) const;
    // The records between the head and the tail, one by one (formats other than the message
    // text alone between them).
    [[gnu::noinline]] void writeBody(const LogSeverity& severity, const GDValue& message,
                                     const LoggerState& state, const FileLocation* pFileLocation,
                                     Scratch& scratch, std::time_t now, Stream* out) const;

    // A value's text: where the value holds it ready (readyText), the text itself; otherwise
    // the value rendered into the thread's scratch buffer. Valid until the next call.
    std::wstring_view renderValue(const GDValue& value, Scratch& scratch) const;
    // The message's text. Where the adaptor passes UTF-8 through, a plain template is expanded
    // straight into the stream: its text encoded piece by piece and whole numbers written as
    // digits, with no wide text in between. The bytes are those of the text formatter's
    // rendering, encoded: each wide character encodes on its own, so pieces encode as the whole
    // would. Anything else is rendered by the formatter and then written.
    void writeMessage(const GDValue& message, Scratch& scratch, Stream* out) const;
    // writeMessage's rarer ways, out of line so that a compiled template's path stays short: a
    // plain template expanded as it is read (too long to keep compiled, or a stream that is not
    // written in place), and any other message rendered by the formatter.
    [[gnu::noinline]] void expandTemplate(const MessageBase& message, std::wstring_view text,
                                          Scratch& scratch, Stream* out) const;
    [[gnu::noinline]] void writeRendered(const GDValue& message, Scratch& scratch,
                                         Stream* out) const;
    // A message through its template compiled to UTF-8: the pieces copied, the inserts written.
    void writeCompiled(const logger_details::Utf8Template& compiled, const MessageBase& message,
                       Scratch& scratch, Stream* out) const;
    void writePropertyWith(const CompiledMsgFormat& itemFormat,
                           const LoggerState::PropsMap::value_type& entry, Scratch& scratch,
                           Stream* out) const;
    // A property's values with the list's separator, prefix and suffix. This and
    // writePropertyValue are inlined: a line that shows its ECID runs both, and their calls
    // alone cost a tenth of what the ECID adds to a line.
    [[gnu::always_inline]] void writeValues(const CompiledMsgFormat::SimpleListRecord& list,
                                            const LoggerState::PropValues& values, Scratch& scratch,
                                            Stream* out) const;
    // One property value, cut at its first null character; a value that keeps its text as
    // UTF-8 is copied as it is where the adaptor passes UTF-8 through.
    [[gnu::always_inline]] void writePropertyValue(const GDValue& value, Scratch& scratch,
                                                   Stream* out) const;
    // Whether no value of a property renders any text (before its first null character).
    bool rendersEmpty(const LoggerState::PropValues& values, Scratch& scratch) const;
    void writeNumber(std::uint64_t n, Stream* out) const;
    // Text at hand in both forms: its UTF-8 bytes where Writer passes UTF-8 through, otherwise
    // the text through Writer.
    template <class Writer>
    static void writeTwoForm(Stream* out, std::wstring_view wide, std::string_view utf8);
    void writeSourcesList(const CompiledMsgFormat::SimpleListRecord& record,
                          const LoggerState& state, Stream* out) const;
    void writePropertiesList(const CompiledMsgFormat::ComplexListRecord& record,
                             const LogSeverity& severity, const LoggerState& state,
                             Scratch& scratch, Stream* out) const;

    const CompiledMsgFormat* m_pformat;
    bool m_bDeleteFmt;
    const std::uint64_t m_nSerial;
    const std::size_t m_nHeadRecords;
    // 1 when the last record is fixed text (the line break, a closing bracket) that follows
    // the head: written as one piece, m_strTailUtf8, where the text goes as UTF-8.
    const std::size_t m_nTailRecords;
    const std::string m_strTailUtf8;
    const bool m_bBodyIsMessage;
    WebTextMessageFormatter m_tMsgFormatter;
};

// Makes the message writer for a format: values escaped for XML when the format's encoding is
// Xml, for JSON strings when it is Json, plain ones for Plain. Writer is the adaptor that writes
// wide text to Stream.
template <class Stream, class Writer>
class MessageWriterFactory {
public:
    // An encoding other than Xml, Plain or Json fails the assertion "false" and gives an empty
    // handle. With bDeleteFormat the message writer deletes the format when it goes.
    static MessageWriterHandle<Stream> createMessageWriter(const CompiledMsgFormat* pFormat,
                                                           bool bDeleteFormat);
    // Compiles a writer's Format element (Plain unless it says otherwise; no element gives
    // an empty format) and makes the message writer that owns the result. Throws what the
    // format compiler throws for a format it refuses.
    static MessageWriterHandle<Stream> compile(const XmlElement* pFormat);
};

// The streams the library renders to, each with its adaptor: the file writer's record buffer
// (UTF-8 encoded in place), the console (UTF-8 in one piece) and a wide text buffer. Their message
// writers are compiled once, in messagewriter.cpp; code that renders to a stream of its own
// includes messagewriter_impl.h for the template bodies.
using WideTextBuffer = StringBufferBaseTemplate<wchar_t>;

extern template class MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>;
extern template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor, Utf8InPlaceAdaptor>;
extern template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor,
                                        EncodingAdapter<Utf8InPlaceAdaptor, W2WXmlEncoding>>;
extern template class MessageWriterFactory<CoutStream, HoopyAdaptor>;
extern template class MessageWriterImpl<CoutStream, HoopyAdaptor, HoopyAdaptor>;
extern template class MessageWriterImpl<CoutStream, HoopyAdaptor,
                                        EncodingAdapter<HoopyAdaptor, W2WXmlEncoding>>;
extern template class MessageWriterFactory<WideTextBuffer, WriterAdapter<WideTextBuffer>>;
extern template class MessageWriterImpl<WideTextBuffer, WriterAdapter<WideTextBuffer>,
                                        WriterAdapter<WideTextBuffer>>;
extern template class MessageWriterImpl<
    WideTextBuffer, WriterAdapter<WideTextBuffer>,
    EncodingAdapter<WriterAdapter<WideTextBuffer>, W2WXmlEncoding>>;
extern template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor,
                                        EncodingAdapter<Utf8InPlaceAdaptor, W2WJsonEncoding>>;
extern template class MessageWriterImpl<CoutStream, HoopyAdaptor,
                                        EncodingAdapter<HoopyAdaptor, W2WJsonEncoding>>;
extern template class MessageWriterImpl<
    WideTextBuffer, WriterAdapter<WideTextBuffer>,
    EncodingAdapter<WriterAdapter<WideTextBuffer>, W2WJsonEncoding>>;

}  // namespace kiv
