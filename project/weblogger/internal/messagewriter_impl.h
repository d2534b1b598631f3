// Template definitions of the message writer. The library instantiates them for its own streams
// in messagewriter.cpp; only code that renders to a stream of its own includes this file.
#pragma once

#include "weblogger/internal/messagewriter.h"

#include <array>
#include <bit>
#include <concepts>
#include <cstring>
#include <cwchar>
#include <memory>

#include "weblogger/internal/writeradapters.h"
#include "weblogger/logsource.h"
#include "zq/webkeel/assert.h"
#include "zq/webkeel/clock.h"
#include "zq/webkeel/encoding.h"

namespace kiv {
namespace logger_details {

// A byte stream that lets a renderer write into its storage: reserve(n) gives room for n bytes,
// commit(k) keeps the first k of them.
template <class Stream>
concept WritesInPlace = requires(Stream& stream, std::size_t n) {
    { stream.reserve(n) } -> std::same_as<char*>;
    stream.commit(n);
};

// Writes an insert's text to a stream that takes UTF-8, as the text formatter renders the
// inserts of a message: strings and whole numbers directly, every other value (arrays, deferred
// values, messages) through the formatter, one level deep, into a scratch buffer first. One
// writer serves all the inserts of a message.
//
// Hidden: nothing outside the library names it, and an exported class's vtable and digit tables
// are reached through the GOT, a cache line more that a flushed line loads again after every
// write(2) (the kernel's copy evicts it). Hidden, they are addressed directly.
template <class Stream, class Writer>
class __attribute__((visibility("hidden"))) Utf8InsertWriter final : public GDValueVisitor {
public:
    Utf8InsertWriter(Stream* out, const MessageFormatter& formatter,
                     StringBufferBaseTemplate<wchar_t>& scratchText) noexcept
        : m_pOut(out), m_formatter(formatter), m_scratchText(scratchText) {}

    void visitString(std::wstring_view text) override {
        Writer::write(m_pOut, text.data(), text.size());
    }
    void visitUInteger64(std::uint64_t n) override { writeDecimal(n, false); }
    void visitInteger64(std::int64_t n) override {
        if (n < 0) {
            writeDecimal(0ULL - static_cast<std::uint64_t>(n), true);
        } else {
            writeDecimal(static_cast<std::uint64_t>(n), false);
        }
    }
    void visitReference(const GDValue* pTarget) override {
        if (pTarget != nullptr) {
            pTarget->accept(*this);
        }
    }
    void visitArray(const GDArray& array) override {
        m_scratchText.clear();
        m_formatter.visitArray(array, m_scratchText, insertParams());
        writeScratchText();
    }
    void visitStringBufferable(const IGDStringBufferable& value) override {
        m_scratchText.clear();
        m_formatter.visitStringBufferable(value, m_scratchText, insertParams());
        writeScratchText();
    }
    // ASCII is its own UTF-8: such text is copied as it stands instead of being decoded to wide
    // text and encoded back. Anything else goes the formatter's way, which also replaces a
    // malformed sequence.
    void visitUtf8Text(std::string_view bytes, const IGDStringBufferable& value) override {
        if (!isAscii(bytes)) {
            visitStringBufferable(value);
            return;
        }
        if (!bytes.empty()) {
            m_pOut->write(bytes.data(), bytes.size());
        }
    }
    void visitMessage(const MessageBase& message) override {
        m_scratchText.clear();
        m_formatter.visitMessage(message, m_scratchText, insertParams());
        writeScratchText();
    }

private:
    // What the formatter passes to the inserts of a top-level message.
    static MessageVisitorParams insertParams() noexcept {
        MessageVisitorParams params;
        params.nDepth = 1;
        return params;
    }
    static bool isAscii(std::string_view bytes) noexcept {
        unsigned char nAll = 0;
        for (const char c : bytes) {
            nAll |= static_cast<unsigned char>(c);
        }
        return nAll < 0x80;
    }
    void writeScratchText() {
        const std::wstring_view text = m_scratchText.view();
        Writer::write(m_pOut, text.data(), text.size());
    }

    // The digits go straight into the stream's room where it has room to give (the file's
    // record), else through a local buffer in one write.
    void writeDecimal(std::uint64_t n, bool bNegative) {
        const std::size_t nBytes = decimalDigits(n) + (bNegative ? 1 : 0);
        if constexpr (WritesInPlace<Stream>) {
            char* const pStart = m_pOut->reserve(nBytes);
            writeDigitsBackward(pStart + nBytes, n);
            if (bNegative) {
                *pStart = '-';
            }
            m_pOut->commit(nBytes);
        } else {
            char arrText[24];
            writeDigitsBackward(arrText + nBytes, n);
            if (bNegative) {
                arrText[0] = '-';
            }
            m_pOut->write(arrText, nBytes);
        }
    }
    // The bit width times log10(2) (1233 / 4096) is the digit count or one less; one compare
    // with a power of ten settles which. (n | 1 counts 0 as one digit.)
    static std::size_t decimalDigits(std::uint64_t n) noexcept {
        static constexpr std::array<std::uint64_t, 20> kPowersOfTen = [] {
            std::array<std::uint64_t, 20> arrPowers{};
            std::uint64_t nPower = 1;
            for (std::uint64_t& nEntry : arrPowers) {
                nEntry = nPower;
                nPower *= 10;
            }
            return arrPowers;
        }();
        const std::uint64_t nAtLeastOne = n | 1;
        const std::size_t nBelow =
            (static_cast<std::size_t>(std::bit_width(nAtLeastOne)) * 1233) >> 12;
        return nBelow + (nAtLeastOne >= kPowersOfTen[nBelow] ? 1 : 0);
    }
    // Two digits a division from a table of the hundred pairs "00" to "99", last digit first,
    // ending just before pEnd.
    static void writeDigitsBackward(char* pEnd, std::uint64_t n) noexcept {
        static constexpr std::array<char, 200> kDigitPairs = [] {
            std::array<char, 200> arrPairs{};
            for (std::size_t i = 0; i < 100; ++i) {
                arrPairs[2 * i] = static_cast<char>('0' + i / 10);
                arrPairs[2 * i + 1] = static_cast<char>('0' + i % 10);
            }
            return arrPairs;
        }();
        char* p = pEnd;
        while (n >= 100) {
            const std::size_t nPair = static_cast<std::size_t>(n % 100);
            n /= 100;
            p -= 2;
            std::memcpy(p, kDigitPairs.data() + 2 * nPair, 2);
        }
        if (n >= 10) {
            std::memcpy(p - 2, kDigitPairs.data() + 2 * n, 2);
        } else {
            p[-1] = static_cast<char>('0' + n);
        }
    }

    Stream* m_pOut;
    const MessageFormatter& m_formatter;
    StringBufferBaseTemplate<wchar_t>& m_scratchText;
};

}  // namespace logger_details

template <class Stream, class TextWriter, class ValueWriter>
std::wstring_view MessageWriterImpl<Stream, TextWriter, ValueWriter>::renderValue(
    const GDValue& value, Scratch& scratch) const {
    std::wstring_view ready;
    if (value.readyText(ready)) {
        return ready;
    }
    scratch.valueText.clear();
    m_tMsgFormatter.FormatBuffer(scratch.valueText, value);
    return scratch.valueText.view();
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeMessage(const GDValue& message,
                                                                      Scratch& scratch,
                                                                      Stream* out) const {
    if constexpr (TakesUtf8Bytes<ValueWriter>::value) {
        std::wstring_view text;
        std::uint64_t nFingerprint = 0;
        if (const MessageBase* pMessage = PlainTemplate::find(message, text, nFingerprint)) {
            if constexpr (logger_details::WritesInPlace<Stream>) {
                if (const logger_details::Utf8Template* pCompiled =
                        scratch.templates.find(text, nFingerprint)) {
                    writeCompiled(*pCompiled, *pMessage, scratch, out);
                    return;
                }
            }
            expandTemplate(*pMessage, text, scratch, out);
            return;
        }
    }
    writeRendered(message, scratch, out);
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::expandTemplate(const MessageBase& message,
                                                                        std::wstring_view text,
                                                                        Scratch& scratch,
                                                                        Stream* out) const {
    if constexpr (TakesUtf8Bytes<ValueWriter>::value) {
        const auto writeText = [out](const wchar_t* p, std::size_t n) {
            ValueWriter::write(out, p, n);
        };
        logger_details::Utf8InsertWriter<Stream, ValueWriter> insertWriter(out, m_tMsgFormatter,
                                                                           scratch.valueText);
        // Through the base: a closure holding the hidden type would outrank it in visibility.
        GDValueVisitor& visitor = insertWriter;
        const auto writeInsert = [&visitor](const GDValue& insert) { insert.accept(visitor); };
        if constexpr (logger_details::WritesInPlace<Stream>) {
            // Too long to keep compiled. Finding the next '%' and encoding up to it is one
            // pass over the text.
            using Utf8 = T2NEncodingUTF8<wchar_t>;
            const auto encodeRun = [out](const wchar_t* p, std::size_t n) {
                char* pRoom = out->reserve(n * 4);
                std::size_t nTaken = 0;
                out->commit(Utf8::encodeUntil(p, n, L'%', pRoom, nTaken));
                return nTaken;
            };
            PlainTemplate::walk(text, message, encodeRun, writeText, writeInsert);
        } else {
            PlainTemplate::walk(text, message, writeText, writeInsert);
        }
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeRendered(const GDValue& message,
                                                                       Scratch& scratch,
                                                                       Stream* out) const {
    const std::wstring_view text = renderValue(message, scratch);
    ValueWriter::write(out, text.data(), text.size());
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeCompiled(
    const logger_details::Utf8Template& compiled, const MessageBase& message, Scratch& scratch,
    Stream* out) const {
    // Only streams that are written in place use compiled templates; the others never come here.
    if constexpr (logger_details::WritesInPlace<Stream>) {
        logger_details::Utf8InsertWriter<Stream, ValueWriter> insertWriter(out, m_tMsgFormatter,
                                                                           scratch.valueText);
        for (const logger_details::Utf8Template::Segment& segment : compiled) {
            if (segment.nBytes != 0) {
                out->write(compiled.bytes(segment), segment.nBytes);
            }
            if (segment.nInsert == 0) {
                continue;
            }
            if (const GDValue* pInsert = message.getInsert(segment.nInsert)) {
                pInsert->accept(insertWriter);
            } else {
                // A marker without its insert stands as written.
                const char arrMarker[2] = {'%', static_cast<char>('0' + segment.nInsert)};
                out->write(arrMarker, 2);
            }
        }
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeNumber(std::uint64_t n,
                                                                     Stream* out) const {
    wchar_t arrDigits[24];
    const std::size_t nDigits = logger_details::RenderingHelpers::toDecimal(n, arrDigits);
    ValueWriter::write(out, arrDigits, nDigits);
}

template <class Stream, class TextWriter, class ValueWriter>
template <class Writer>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeTwoForm(Stream* out,
                                                                      std::wstring_view wide,
                                                                      std::string_view utf8) {
    if constexpr (TakesUtf8Bytes<Writer>::value) {
        if (!utf8.empty()) {
            out->write(utf8.data(), utf8.size());
        }
    } else {
        Writer::write(out, wide.data(), wide.size());
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::msg_log(const LogSeverity& severity,
                                                                 const GDValue& message,
                                                                 const LoggerState& state,
                                                                 const FileLocation* pFileLocation,
                                                                 Stream* out) const {
    Scratch& scratch = Scratch::forThisThread();
    // One second for the whole line, however many stamps it shows.
    const std::time_t now = clock::wallClockSeconds();
    if constexpr (kCachesLineHeads) {
        out->setSecond(now);
        if (m_nHeadRecords != 0) {
            writeLineHead(severity, state, scratch, now, out);
        }
    }
    if (m_bBodyIsMessage) {
        writeMessage(message, scratch, out);
    } else {
        writeBody(severity, message, state, pFileLocation, scratch, now, out);
    }
    if constexpr (TakesUtf8Bytes<TextWriter>::value) {
        if (!m_strTailUtf8.empty()) {
            out->write(m_strTailUtf8.data(), m_strTailUtf8.size());
        }
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeBody(
    const LogSeverity& severity, const GDValue& message, const LoggerState& state,
    const FileLocation* pFileLocation, Scratch& scratch, std::time_t now, Stream* out) const {
    const std::vector<Record*>& records = m_pformat->m_records;
    const std::size_t nEnd = records.size() - m_nTailRecords;
    for (std::size_t i = m_nHeadRecords; i < nEnd; ++i) {
        writeRecord(*records[i], severity, message, state, pFileLocation, scratch, now, out);
    }
}

template <class Stream, class TextWriter, class ValueWriter>
bool MessageWriterImpl<Stream, TextWriter, ValueWriter>::isMessageOnly(
    const CompiledMsgFormat& format, std::size_t nHead, std::size_t nTail) noexcept {
    return format.m_records.size() == nHead + 1 + nTail &&
           format.m_records[nHead]->m_nType == CompiledMsgFormat::kMsg;
}

template <class Stream, class TextWriter, class ValueWriter>
std::size_t MessageWriterImpl<Stream, TextWriter, ValueWriter>::countTailRecords(
    const CompiledMsgFormat& format, std::size_t nHead) noexcept {
    // A format keeps one record per run of text, so fixed text at the end is one record.
    if constexpr (TakesUtf8Bytes<TextWriter>::value) {
        return format.m_records.size() > nHead &&
                       format.m_records.back()->m_nType == CompiledMsgFormat::kText
                   ? 1
                   : 0;
    }
    return 0;
}

template <class Stream, class TextWriter, class ValueWriter>
std::string MessageWriterImpl<Stream, TextWriter, ValueWriter>::joinTailText(
    const CompiledMsgFormat& format, std::size_t nTail) {
    if (nTail == 0) {
        return std::string();
    }
    const auto& text = *static_cast<const CompiledMsgFormat::TextRecord*>(format.m_records.back());
    return std::string(text.m_strUtf8.view());
}

template <class Stream, class TextWriter, class ValueWriter>
std::size_t MessageWriterImpl<Stream, TextWriter, ValueWriter>::countHeadRecords(
    const CompiledMsgFormat& format) noexcept {
    if constexpr (!kCachesLineHeads) {
        return 0;
    }
    std::size_t nHead = 0;
    for (const Record* pRecord : format.m_records) {
        switch (pRecord->m_nType) {
            case CompiledMsgFormat::kText:
            case CompiledMsgFormat::kTimeStamp:
            case CompiledMsgFormat::kTimeStampKLFFormat:
            case CompiledMsgFormat::kMsgType:
            case CompiledMsgFormat::kSeverity:
            case CompiledMsgFormat::kCurLogSource:
                ++nHead;
                continue;
            default:
                break;
        }
        break;
    }
    return nHead >= 2 ? nHead : 0;
}

template <class Stream, class TextWriter, class ValueWriter>
inline void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeLineHead(
    const LogSeverity& severity, const LoggerState& state, Scratch& scratch, std::time_t now,
    Stream* out) const {
    if constexpr (kCachesLineHeads) {
        const LogSource* pSource = state.getCurSource();
        // The zone's generation is read before the head is rendered: a zone set meanwhile
        // leaves the entry stale, and the next message renders it again.
        const logger_details::LineHeadCache::Key key{
            m_nSerial,
            now,
            logger_details::LoggingTimeZone::getGeneration(),
            severity.m_dwImportance,
            pSource != nullptr ? pSource->getSerial() : 0,
            static_cast<int>(severity.m_nType)};
        const logger_details::LineHeadCache::Entry& entry = scratch.lineHeads.entryFor(m_nSerial);
        if (entry.key == key) [[likely]] {
            out->write(entry.arrBytes, entry.nBytes);
            return;
        }
        renderLineHead(key, severity, state, scratch, now, out);
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::renderLineHead(
    const logger_details::LineHeadCache::Key& key, const LogSeverity& severity,
    const LoggerState& state, Scratch& scratch, std::time_t now, Stream* out) const {
    if constexpr (kCachesLineHeads) {
        const std::size_t nStart = out->size();
        for (std::size_t i = 0; i < m_nHeadRecords; ++i) {
            // The head's records read neither the message nor its location.
            writeRecord(*m_pformat->m_records[i], severity, GDString(), state, nullptr, scratch,
                        now, out);
        }
        logger_details::LineHeadCache::remember(scratch.lineHeads.entryFor(m_nSerial), key,
                                                out->data() + nStart, out->size() - nStart);
    }
}

template <class Stream, class TextWriter, class ValueWriter>
inline void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeRecord(
    const Record& record, const LogSeverity& severity, const GDValue& message,
    const LoggerState& state, const FileLocation* pFileLocation, Scratch& scratch, std::time_t now,
    Stream* out) const {
    switch (record.m_nType) {
        case CompiledMsgFormat::kText: {
            const auto& text = *static_cast<const CompiledMsgFormat::TextRecord*>(&record);
            writeTwoForm<TextWriter>(out, text.m_strText.view(), text.m_strUtf8.view());
            break;
        }
        case CompiledMsgFormat::kTimeStamp: {
            const logger_details::TwoFormText text = scratch.timeStamps.ordinary(now);
            writeTwoForm<ValueWriter>(out, text.wide, text.utf8);
            break;
        }
        case CompiledMsgFormat::kTimeStampKLFFormat: {
            const logger_details::TwoFormText text = scratch.timeStamps.klf(now);
            writeTwoForm<ValueWriter>(out, text.wide, text.utf8);
            break;
        }
        case CompiledMsgFormat::kLogSourcesList:
            writeSourcesList(*static_cast<const CompiledMsgFormat::SimpleListRecord*>(&record),
                             state, out);
            break;
        case CompiledMsgFormat::kCurLogSource:
            if (const LogSource* pSource = state.getCurSource()) {
                writeTwoForm<InsertWriter>(out, pSource->getPath().view(),
                                           pSource->getPathUtf8().view());
            }
            break;
        case CompiledMsgFormat::kFile:
        case CompiledMsgFormat::kFileName: {
            ZQ_ASSERT_TEXT(pFileLocation != nullptr, "pFileLocation != __null");
            if (pFileLocation == nullptr) {
                break;
            }
            const std::wstring_view path =
                record.m_nType == CompiledMsgFormat::kFile
                    ? logger_details::RenderingHelpers::prettyPath(pFileLocation->getWFile())
                    : logger_details::RenderingHelpers::fileNameOnly(pFileLocation->getWFile());
            ValueWriter::write(out, path.data(), path.size());
            break;
        }
        case CompiledMsgFormat::kLine:
            // A format that shows the line needs a location; without one there is no line.
            if (pFileLocation != nullptr) {
                writeNumber(pFileLocation->getLineNumber(), out);
            }
            break;
        case CompiledMsgFormat::kPropsList:
            writePropertiesList(*static_cast<const CompiledMsgFormat::ComplexListRecord*>(&record),
                                severity, state, scratch, out);
            break;
        case CompiledMsgFormat::kMsg:
            writeMessage(message, scratch, out);
            break;
        case CompiledMsgFormat::kMsgType: {
            const auto& types = *static_cast<const CompiledMsgFormat::EnumRecord*>(&record);
            const std::size_t nType = static_cast<std::size_t>(severity.m_nType);
            if (nType < types.m_vecValues.size()) {
                writeTwoForm<InsertWriter>(out, types.m_vecValues[nType].view(),
                                           types.m_vecUtf8Values[nType].view());
            } else {
                wchar_t arrDigits[24];
                const std::size_t nDigits =
                    logger_details::RenderingHelpers::toDecimal(nType, arrDigits);
                TextWriter::write(out, arrDigits, nDigits);
            }
            break;
        }
        case CompiledMsgFormat::kSeverity:
            writeNumber(severity.m_dwImportance, out);
            break;
        case CompiledMsgFormat::kSpecificProperty: {
            const auto* pProperty =
                static_cast<const CompiledMsgFormat::SingleValueFromListRecord*>(&record);
            const auto& map = state.propertiesMap();
            const auto it = map.find(pProperty->m_strValueName);
            if (it != map.end() && pProperty->m_pFormat != nullptr &&
                !(pProperty->m_bOmitWhenEmpty && rendersEmpty(it->second, scratch))) {
                if (pProperty->m_pBareValues != nullptr) {
                    writeValues(*pProperty->m_pBareValues, it->second, scratch, out);
                } else {
                    writePropertyWith(*pProperty->m_pFormat, *it, scratch, out);
                }
            }
            break;
        }
        case CompiledMsgFormat::kBacktrace:
            if (pFileLocation != nullptr && pFileLocation->getBacktrace() != nullptr) {
                ValueWriter::write(out, L"\tBacktrace:\n");
                ValueWriter::write(out, pFileLocation->getBacktrace());
                ValueWriter::write(out, L"\n");
            }
            break;
        default:
            // Property parts outside a property's own format, and the reserved kinds.
            ZQ_ASSERT(false);
            break;
    }
}

template <class Stream, class TextWriter, class ValueWriter>
inline void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeValues(
    const CompiledMsgFormat::SimpleListRecord& list, const LoggerState::PropValues& values,
    Scratch& scratch, Stream* out) const {
    bool bFirst = true;
    for (const auto& value : values) {
        // Most lists have no separator, prefix or suffix: no adaptor call for those.
        if (!bFirst && !list.m_strSeparator.empty()) {
            TextWriter::write(out, list.m_strSeparator);
        }
        bFirst = false;
        if (!list.m_strPrefix.empty()) {
            TextWriter::write(out, list.m_strPrefix);
        }
        if (const GDValue* pValue = value.first.get()) {
            writePropertyValue(*pValue, scratch, out);
        }
        if (!list.m_strSuffix.empty()) {
            TextWriter::write(out, list.m_strSuffix);
        }
    }
}

template <class Stream, class TextWriter, class ValueWriter>
inline void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writePropertyValue(
    const GDValue& value, Scratch& scratch, Stream* out) const {
    if constexpr (TakesUtf8Bytes<InsertWriter>::value) {
        std::string_view bytes;
        if (value.readyUtf8(bytes)) {
            if (!bytes.empty()) {
                out->write(bytes.data(), bytes.size());
            }
            return;
        }
    }
    const std::wstring_view text = renderValue(value, scratch);
    // A property value ends at its first null character.
    InsertWriter::write(out, text.data(), ::wcsnlen(text.data(), text.size()));
}

template <class Stream, class TextWriter, class ValueWriter>
bool MessageWriterImpl<Stream, TextWriter, ValueWriter>::rendersEmpty(
    const LoggerState::PropValues& values, Scratch& scratch) const {
    for (const auto& value : values) {
        if (const GDValue* pValue = value.first.get()) {
            const std::wstring_view text = renderValue(*pValue, scratch);
            if (!text.empty() && text.front() != L'\0') {
                return false;
            }
        }
    }
    return true;
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeSourcesList(
    const CompiledMsgFormat::SimpleListRecord& record, const LoggerState& state,
    Stream* out) const {
    const LoggerState::LogSourcesStack& stack = state.logSourcesStack();
    const LogSource* pPrevious = nullptr;
    bool bFirst = true;
    for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
        const LogSource* pSource = *it;
        if (pSource == nullptr || pSource == pPrevious) {
            continue;
        }
        pPrevious = pSource;
        if (!bFirst) {
            TextWriter::write(out, record.m_strSeparator);
        }
        bFirst = false;
        TextWriter::write(out, record.m_strPrefix);
        writeTwoForm<ValueWriter>(out, pSource->getPath().view(), pSource->getPathUtf8().view());
        TextWriter::write(out, record.m_strSuffix);
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writePropertiesList(
    const CompiledMsgFormat::ComplexListRecord& record, const LogSeverity& severity,
    const LoggerState& state, Scratch& scratch, Stream* out) const {
    bool bFirstTookPart = true;
    for (const auto& entry : state.propertiesMap()) {
        const auto& values = entry.second;
        if (values.empty() || values.front().second < severity.m_dwImportance) {
            continue;
        }
        // A reserved property takes part (so a separator still precedes the next one) but is
        // shown only through its own Property record.
        const bool bWasFirst = bFirstTookPart;
        bFirstTookPart = false;
        if (logger_details::RenderingHelpers::isReservedPropertyName(entry.first)) {
            continue;
        }
        if (!bWasFirst) {
            ValueWriter::write(out, record.m_strSeparator);
        }
        if (record.m_pFormat != nullptr) {
            writePropertyWith(*record.m_pFormat, entry, scratch, out);
        }
    }
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writeProperty(
    const CompiledMsgFormat& itemFormat, const LogSeverity&,
    const LoggerState::PropsMap::value_type& entry, Stream* out) const {
    writePropertyWith(itemFormat, entry, Scratch::forThisThread(), out);
}

template <class Stream, class TextWriter, class ValueWriter>
void MessageWriterImpl<Stream, TextWriter, ValueWriter>::writePropertyWith(
    const CompiledMsgFormat& itemFormat, const LoggerState::PropsMap::value_type& entry,
    Scratch& scratch, Stream* out) const {
    for (const Record* pRecord : itemFormat.m_records) {
        switch (pRecord->m_nType) {
            case CompiledMsgFormat::kText: {
                const auto& text = *static_cast<const CompiledMsgFormat::TextRecord*>(pRecord);
                writeTwoForm<TextWriter>(out, text.m_strText.view(), text.m_strUtf8.view());
                break;
            }
            case CompiledMsgFormat::kPropName:
                ValueWriter::write(out, entry.first);
                break;
            case CompiledMsgFormat::kPropValuesList:
                writeValues(*static_cast<const CompiledMsgFormat::SimpleListRecord*>(pRecord),
                            entry.second, scratch, out);
                break;
            default:
                ZQ_ASSERT(false);
                break;
        }
    }
}

template <class Stream, class Writer>
MessageWriterHandle<Stream> MessageWriterFactory<Stream, Writer>::createMessageWriter(
    const CompiledMsgFormat* pFormat, bool bDeleteFormat) {
    switch (pFormat->m_Encoding) {
        case CompiledMsgFormat::kEncodingXml:
            return MessageWriterHandle<Stream>(
                new MessageWriterImpl<Stream, Writer, EncodingAdapter<Writer, W2WXmlEncoding>>(
                    pFormat, bDeleteFormat));
        case CompiledMsgFormat::kEncodingPlain:
            return MessageWriterHandle<Stream>(
                new MessageWriterImpl<Stream, Writer, Writer>(pFormat, bDeleteFormat));
        case CompiledMsgFormat::kEncodingJson:
            return MessageWriterHandle<Stream>(
                new MessageWriterImpl<Stream, Writer, EncodingAdapter<Writer, W2WJsonEncoding>>(
                    pFormat, bDeleteFormat));
        default:
            ZQ_ASSERT(false);
            return MessageWriterHandle<Stream>();
    }
}

template <class Stream, class Writer>
MessageWriterHandle<Stream> MessageWriterFactory<Stream, Writer>::compile(
    const XmlElement* pFormat) {
    auto pCompiled = std::make_unique<CompiledMsgFormat>();
    if (pFormat != nullptr) {
        MessageFormatLoader::loadFormat(*pCompiled, *pFormat, CompiledMsgFormat::kEncodingPlain);
    }
    MessageWriterHandle<Stream> hWriter = createMessageWriter(pCompiled.get(), true);
    if (!hWriter.isNull()) {
        pCompiled.release();  // the message writer took the format over
    }
    return hWriter;
}

}  // namespace kiv
