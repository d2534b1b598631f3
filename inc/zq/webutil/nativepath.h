// The UTF-8 form of a wide path, as the system calls take it, converted on the stack.
//
// The rotating file writer moves to its next file on a logging thread, which must not
// allocate: every system call on a path (examine, remove, open) converts it through a
// NativePath instead of a heap string.
//
// Thread-safety: a value on the caller's stack; nothing shared.
#pragma once

#include <cstddef>
#include <string_view>

#include "zq/webkeel/stringbuffer.h"

namespace kiv {

// The UTF-8 form of a wide path, as the system calls take it. Paths up to kInlineBytes bytes
// are converted without allocating; longer ones go to the heap. A path holding a NUL is not
// valid: the system would silently see a shorter name.
class NativePath {
public:
    static constexpr std::size_t kInlineBytes = 512;

    explicit NativePath(std::wstring_view path);

    bool isValid() const noexcept { return m_bValid; }
    const char* c_str() const noexcept { return m_buffer.c_str(); }
    std::string_view view() const noexcept { return m_buffer.view(); }
    bool empty() const noexcept { return m_buffer.empty(); }

private:
    StringBufferTemplate<kInlineBytes, char> m_buffer;
    bool m_bValid;
};

}  // namespace kiv
