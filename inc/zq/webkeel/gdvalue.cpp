#include "zq/webkeel/gdvalue.h"

#include <atomic>
#include <charconv>

#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

const MessageFormatter g_baseFormatter;
std::atomic<const MessageFormatter*> g_pDefaultFormatter{&g_baseFormatter};

}  // namespace

bool GDValue::isString() const noexcept {
    const GDValue* pTarget = target();
    return pTarget != nullptr && pTarget->kind() == kKindString;
}

bool GDValue::isNumber() const noexcept {
    const GDValue* pTarget = target();
    return pTarget != nullptr && pTarget->kind() == kKindNumber;
}

void GDValue::appendText(StringBufferBaseTemplate<wchar_t>& buffer) const {
    MessageFormatter::getDefault().FormatBuffer(buffer, *this);
}

String GDValue::toString() const {
    StringBufferTemplate<255, wchar_t> buffer;
    appendText(buffer);
    return buffer.toString();
}

GDFloat::GDFloat(double d) noexcept {
    char arrText[kMaxChars];
    const std::to_chars_result result = std::to_chars(arrText, arrText + kMaxChars, d);
    setText(arrText, result.ec == std::errc() ? result.ptr : arrText);
}

GDFloat::GDFloat(float f) noexcept {
    char arrText[kMaxChars];
    const std::to_chars_result result = std::to_chars(arrText, arrText + kMaxChars, f);
    setText(arrText, result.ec == std::errc() ? result.ptr : arrText);
}

void GDFloat::setText(const char* pBegin, const char* pEnd) noexcept {
    // The text is ASCII (digits, sign, point, exponent, "inf", "nan").
    m_nChars = 0;
    for (const char* p = pBegin; p != pEnd; ++p) {
        m_arrText[m_nChars++] = static_cast<wchar_t>(*p);
    }
}

int GDUtf8StringRef::bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                               TextMessageBase::TextType /*type*/) const {
    appendFromUtf8(buffer, m_view);
    return 0;
}

void MessageFormatter::FormatBuffer(StringBufferBaseTemplate<wchar_t>& buffer, const GDValue& value,
                                    TextMessageBase::TextType type) const {
    MessageVisitorParams params;
    params.nTextType = type;
    value.acceptMessageVisitor(*this, buffer, params);
}

void MessageFormatter::visitString(std::wstring_view text, Buffer& buffer,
                                   const MessageVisitorParams&) const {
    buffer.append(text);
}

void MessageFormatter::visitUInteger64(std::uint64_t n, Buffer& buffer,
                                       const MessageVisitorParams&) const {
    buffer.appendUnsigned(n);
}

void MessageFormatter::visitInteger64(std::int64_t n, Buffer& buffer,
                                      const MessageVisitorParams&) const {
    buffer.appendSigned(n);
}

void MessageFormatter::visitArray(const GDArray& array, Buffer& buffer,
                                  const MessageVisitorParams& params) const {
    for (std::size_t i = 0; i < array.size(); ++i) {
        array[i].acceptMessageVisitor(*this, buffer, params);
    }
}

void MessageFormatter::visitReference(const GDValue* pTarget, Buffer& buffer,
                                      const MessageVisitorParams& params) const {
    if (pTarget != nullptr) {
        pTarget->acceptMessageVisitor(*this, buffer, params);
    }
}

void MessageFormatter::visitStringBufferable(const IGDStringBufferable& value, Buffer& buffer,
                                             const MessageVisitorParams& params) const {
    value.bufferize(buffer, params.nTextType);
}

void MessageFormatter::visitMessage(const MessageBase&, Buffer&,
                                    const MessageVisitorParams&) const {}

const MessageFormatter& MessageFormatter::getDefault() noexcept {
    return *g_pDefaultFormatter.load(std::memory_order_acquire);
}

void MessageFormatter::setDefault(const MessageFormatter* pFormatter) noexcept {
    g_pDefaultFormatter.store(pFormatter != nullptr ? pFormatter : &g_baseFormatter,
                              std::memory_order_release);
}

}  // namespace kiv
