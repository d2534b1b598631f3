#include "zq/webkeel/gdvalue.h"

#include <atomic>

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
