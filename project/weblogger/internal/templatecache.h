// Plain templates compiled to UTF-8, kept per thread for the next message that uses them.
//
// A server logs most of its lines through a few templates, each a string that lives as long as
// the code that logs it. Expanding one means finding its markers and encoding its text on every
// message; a Utf8Template does that once: the template's text as UTF-8 pieces, each followed by
// the insert that comes after it. The file writer's renderer then copies the pieces and writes
// only the inserts.
//
// The cache is found by the template text's address and length, and an entry is used only when
// its copy of the text equals the text now given, character for character: a template freed and
// another one made at the same address is compiled again, never mistaken for the old one.
// A string literal's text (GDLiteralText) comes with its fingerprint instead: its storage is
// static and never changes, so an entry compiled from it is used again when address, length
// and fingerprint match, without the comparison (several percent of a buffered line). The
// fingerprint a caller gives is checked against the text when the entry is compiled; an entry
// whose check failed keeps none, and its text is compared as any other.
// Templates too long to keep (kMaxChars characters, kMaxUtf8Bytes bytes as UTF-8,
// kMaxSegments pieces) are not cached; the renderer expands those as it goes.
//
// What a compiled template gives is what the text formatter gives for the same template
// (PlainTemplate::walk compiles it): "%%" is a '%' of the text, and "%1".."%9" are insert
// markers. A marker whose insert the message does not set is written as it stands, "%" and the
// digit, which is what the formatter does: it leaves such a '%' as it is and goes on with the
// digit as ordinary text.
//
// Memory: kEntries entries of fixed size (about 3.5 KiB in all), part of the thread's render
// scratch; nothing is allocated once the scratch exists.
//
// Thread-safety: none; each thread has its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kiv::logger_details {

class Utf8Template {
public:
    static constexpr std::size_t kMaxChars = 128;
    static constexpr std::size_t kMaxUtf8Bytes = 256;
    static constexpr std::size_t kMaxSegments = 16;

    // A piece of text and the insert that follows it (0: none, the template's end).
    struct Segment {
        std::uint16_t nOffset;
        std::uint16_t nBytes;
        std::uint16_t nInsert;
    };

    // Compiles text; false (and the template empty) when it does not fit the limits above.
    // nFingerprint: the literal fingerprint the text was given with (0: none).
    bool compile(std::wstring_view text, std::uint64_t nFingerprint = 0) noexcept;
    // Whether this is the compiled form of text.
    bool isFor(std::wstring_view text, std::uint64_t nFingerprint = 0) const noexcept;

    const Segment* begin() const noexcept { return m_arrSegments; }
    const Segment* end() const noexcept { return m_arrSegments + m_nSegments; }
    const char* bytes(const Segment& segment) const noexcept { return m_arrUtf8 + segment.nOffset; }

private:
    wchar_t m_arrText[kMaxChars];
    std::size_t m_nChars = 0;
    const wchar_t* m_pSource = nullptr;
    // The literal fingerprint of the text, checked when compiled; 0 when it had none.
    std::uint64_t m_nFingerprint = 0;
    std::size_t m_nSegments = 0;
    Segment m_arrSegments[kMaxSegments];
    char m_arrUtf8[kMaxUtf8Bytes];
};

class Utf8TemplateCache {
public:
    static constexpr std::size_t kEntries = 4;

    // The compiled form of text: found, or compiled now in place of what its slot held. Null
    // when text is not cached (too long, too many inserts).
    // nFingerprint: the text's literal fingerprint (GDLiteralText), 0 when it has none.
    const Utf8Template* find(std::wstring_view text, std::uint64_t nFingerprint = 0) noexcept {
        Utf8Template& entry = m_arrEntries[slotOf(text.data())];
        if (entry.isFor(text, nFingerprint)) [[likely]] {
            return &entry;
        }
        return entry.compile(text, nFingerprint) ? &entry : nullptr;
    }

private:
    static std::size_t slotOf(const wchar_t* p) noexcept {
        const auto nAddress = reinterpret_cast<std::uintptr_t>(p);
        return ((nAddress >> 4) ^ (nAddress >> 12)) % kEntries;
    }

    Utf8Template m_arrEntries[kEntries];
};

}  // namespace kiv::logger_details
