// The in-house strings.
//
// All text inside the library is wide text of 4-byte wchar_t (String, also spelt ZQWString);
// NString is the narrow counterpart for bytes that are UTF-8 or file names. Both are thin value
// types over the standard library's string storage with the operations the library uses under
// their in-house names: find from an index with npos, substr, exact equals, a case-insensitive
// comparison and a hash.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

static_assert(sizeof(wchar_t) == 4, "the library needs 4-byte wchar_t");

namespace kiv {

// Folds one character for case-insensitive comparison: ASCII, Latin-1, Greek and Cyrillic
// capitals map to their small forms; everything else is left as it is. Independent of the
// process locale, so comparisons give the same answer on every host.
wchar_t foldCase(wchar_t c) noexcept;
inline char foldCase(char c) noexcept {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

template <typename CharT>
class BasicString {
public:
    using value_type = CharT;
    using size_type = std::size_t;
    using view_type = std::basic_string_view<CharT>;
    static constexpr size_type npos = static_cast<size_type>(-1);

    BasicString() = default;
    BasicString(const CharT* psz) : m_str(psz != nullptr ? psz : emptyText()) {}
    BasicString(const CharT* p, size_type n) : m_str(p, n) {}
    BasicString(size_type n, CharT c) : m_str(n, c) {}
    explicit BasicString(view_type v) : m_str(v) {}
    explicit BasicString(std::basic_string<CharT> s) : m_str(std::move(s)) {}

    size_type size() const noexcept { return m_str.size(); }
    size_type length() const noexcept { return m_str.size(); }
    bool empty() const noexcept { return m_str.empty(); }
    const CharT* c_str() const noexcept { return m_str.c_str(); }
    const CharT* data() const noexcept { return m_str.data(); }
    CharT operator[](size_type i) const noexcept { return m_str[i]; }
    CharT& operator[](size_type i) noexcept { return m_str[i]; }
    auto begin() const noexcept { return m_str.begin(); }
    auto end() const noexcept { return m_str.end(); }
    view_type view() const noexcept { return m_str; }
    operator view_type() const noexcept { return m_str; }
    const std::basic_string<CharT>& std() const noexcept { return m_str; }

    BasicString& append(const BasicString& s) {
        m_str.append(s.m_str);
        return *this;
    }
    BasicString& append(const CharT* p, size_type n) {
        m_str.append(p, n);
        return *this;
    }
    BasicString& append(const CharT* psz) {
        if (psz != nullptr) {
            m_str.append(psz);
        }
        return *this;
    }
    BasicString& append(view_type v) {
        m_str.append(v);
        return *this;
    }
    BasicString& append(CharT c) {
        m_str.push_back(c);
        return *this;
    }
    BasicString& operator+=(const BasicString& s) { return append(s); }
    BasicString& operator+=(const CharT* psz) { return append(psz); }
    BasicString& operator+=(CharT c) { return append(c); }
    void reserve(size_type n) { m_str.reserve(n); }
    void clear() noexcept { m_str.clear(); }
    void resize(size_type n) { m_str.resize(n); }

    // Index of the first occurrence of s at or after nFrom; npos when absent (or nFrom is past
    // the end). An empty s is found at nFrom when nFrom <= size().
    size_type find(const BasicString& s, size_type nFrom = 0) const noexcept {
        return m_str.find(s.m_str, nFrom);
    }
    size_type find(const CharT* psz, size_type nFrom = 0) const noexcept {
        return m_str.find(psz, nFrom);
    }
    size_type find(CharT c, size_type nFrom = 0) const noexcept { return m_str.find(c, nFrom); }
    size_type rfind(CharT c, size_type nFrom = npos) const noexcept {
        return m_str.rfind(c, nFrom);
    }

    // The part from nPos of at most n characters; a position past the end gives an empty
    // string rather than throwing.
    BasicString substr(size_type nPos, size_type n = npos) const {
        if (nPos >= m_str.size()) {
            return BasicString();
        }
        return BasicString(m_str.substr(nPos, n));
    }

    bool equals(const BasicString& s) const noexcept { return m_str == s.m_str; }
    bool equals(const CharT* psz) const noexcept { return view() == view_type(psz); }
    int compare(const BasicString& s) const noexcept { return m_str.compare(s.m_str); }

    // Case-insensitive three-way comparison (see foldCase).
    int compareNoCase(view_type other) const noexcept {
        const size_type n = std::min(m_str.size(), other.size());
        for (size_type i = 0; i < n; ++i) {
            const CharT a = foldCase(m_str[i]);
            const CharT b = foldCase(other[i]);
            if (a != b) {
                return a < b ? -1 : 1;
            }
        }
        return m_str.size() == other.size() ? 0 : (m_str.size() < other.size() ? -1 : 1);
    }
    bool equalsNoCase(view_type other) const noexcept {
        return m_str.size() == other.size() && compareNoCase(other) == 0;
    }

    // FNV-1a over the characters: cheap, stable across runs, good enough for small maps.
    std::size_t hash() const noexcept { return hashOf(view()); }
    static std::size_t hashOf(view_type v) noexcept {
        std::uint64_t h = 14695981039346656037ULL;
        for (CharT c : v) {
            h ^= static_cast<std::uint64_t>(static_cast<std::make_unsigned_t<CharT>>(c));
            h *= 1099511628211ULL;
        }
        return static_cast<std::size_t>(h);
    }

    friend bool operator==(const BasicString& a, const BasicString& b) noexcept {
        return a.m_str == b.m_str;
    }
    friend bool operator==(const BasicString& a, const CharT* b) noexcept { return a.equals(b); }
    friend bool operator<(const BasicString& a, const BasicString& b) noexcept {
        return a.m_str < b.m_str;
    }
    friend BasicString operator+(BasicString a, const BasicString& b) {
        a.append(b);
        return a;
    }
    friend BasicString operator+(BasicString a, const CharT* b) {
        a.append(b);
        return a;
    }

    struct Hash {
        using is_transparent = void;
        std::size_t operator()(const BasicString& s) const noexcept { return s.hash(); }
        std::size_t operator()(view_type v) const noexcept { return hashOf(v); }
    };
    struct NoCaseHash {
        std::size_t operator()(const BasicString& s) const noexcept {
            std::uint64_t h = 14695981039346656037ULL;
            for (CharT c : s.m_str) {
                h ^= static_cast<std::uint64_t>(
                    static_cast<std::make_unsigned_t<CharT>>(foldCase(c)));
                h *= 1099511628211ULL;
            }
            return static_cast<std::size_t>(h);
        }
    };
    struct NoCaseEqual {
        bool operator()(const BasicString& a, const BasicString& b) const noexcept {
            return a.equalsNoCase(b);
        }
    };

private:
    static const CharT* emptyText() noexcept {
        static const CharT s_empty[1] = {0};
        return s_empty;
    }
    std::basic_string<CharT> m_str;
};

using String = BasicString<wchar_t>;
using ZQWString = String;
using NString = BasicString<char>;
using ZQString = NString;

}  // namespace kiv

template <typename CharT>
struct std::hash<kiv::BasicString<CharT>> {
    std::size_t operator()(const kiv::BasicString<CharT>& s) const noexcept { return s.hash(); }
};
