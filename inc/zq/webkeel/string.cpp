#include "zq/webkeel/string.h"

namespace kiv {

wchar_t foldCase(wchar_t c) noexcept {
    if (c < 0x80) {
        return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
    }
    // Latin-1 capitals, except the multiplication sign.
    if (c >= 0xC0 && c <= 0xDE && c != 0xD7) {
        return static_cast<wchar_t>(c + 0x20);
    }
    // Greek capitals (no final sigma among them).
    if (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) {
        return static_cast<wchar_t>(c + 0x20);
    }
    // Cyrillic: the basic capitals and the capitals with marks.
    if (c >= 0x410 && c <= 0x42F) {
        return static_cast<wchar_t>(c + 0x20);
    }
    if (c >= 0x400 && c <= 0x40F) {
        return static_cast<wchar_t>(c + 0x50);
    }
    return c;
}

}  // namespace kiv
