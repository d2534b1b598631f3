#include "zq/webutil/nativepath.h"

#include "zq/webkeel/transcode.h"

namespace kiv {

NativePath::NativePath(std::wstring_view path) : m_bValid(path.find(L'\0') == path.npos) {
    if (m_bValid) {
        appendUtf8(m_buffer, path);
    }
}

}  // namespace kiv
