// Generic values: what every message, insert and property value of the library is.
//
// A GDValue is a small polymorphic value. The kinds the library needs are strings (GDString
// owns its text, GDStringRef refers to the caller's text without copying), numbers
// (GDUInteger64, GDInteger64, GDFloat), arrays (GDArray, whose text is the concatenation of its
// elements), references to another value (GDValueRef), values that write themselves into a
// buffer when rendered (IGDStringBufferable, for deferred properties, and GDUtf8StringRef, which
// refers to the caller's UTF-8 text and decodes it only when rendered) and messages (declared
// with the message table).
//
// Values are copied polymorphically with clone() (heap) or placementClone() (into caller
// memory); GDAdjustableSizeVariant keeps a copy in inline storage when it fits, so copying a
// typical property value does not allocate. Two visitors walk values: GDValueVisitor for
// examining a value and MessageVisitor for the text message formatter, which renders into a reused
// wide buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "zq/webkeel/memalloc.h"
#include "zq/webkeel/string.h"
#include "zq/webkeel/stringbuffer.h"

namespace kiv {

class GDValue;
class GDArray;
class MessageBase;
class IGDStringBufferable;

struct TextMessageBase {
    // How a text is going to be used: plain text, or character data inside XML.
    enum TextType { kText = 0, kXml = 1 };
};

// Options of one formatting pass; nDepth guards against messages that contain themselves.
struct MessageVisitorParams {
    TextMessageBase::TextType nTextType = TextMessageBase::kText;
    unsigned nDepth = 0;
};

class GDValueVisitor {
public:
    virtual ~GDValueVisitor() = default;
    virtual void visitString(std::wstring_view) {}
    virtual void visitUInteger64(std::uint64_t) {}
    virtual void visitInteger64(std::int64_t) {}
    virtual void visitArray(const GDArray&) {}
    virtual void visitReference(const GDValue* /*pTarget*/) {}
    virtual void visitStringBufferable(const IGDStringBufferable&) {}
    // Narrow text that a GDUtf8StringRef refers to: by default the same as any deferred text. A
    // visitor that can take UTF-8 as it stands overrides it and keeps the bytes.
    virtual void visitUtf8Text(std::string_view /*bytes*/, const IGDStringBufferable& value) {
        visitStringBufferable(value);
    }
    virtual void visitMessage(const MessageBase&) {}
};

class MessageVisitor {
public:
    using Buffer = StringBufferBaseTemplate<wchar_t>;
    virtual ~MessageVisitor() = default;
    virtual void visitString(std::wstring_view text, Buffer&,
                             const MessageVisitorParams&) const = 0;
    virtual void visitUInteger64(std::uint64_t, Buffer&, const MessageVisitorParams&) const = 0;
    virtual void visitInteger64(std::int64_t, Buffer&, const MessageVisitorParams&) const = 0;
    virtual void visitArray(const GDArray&, Buffer&, const MessageVisitorParams&) const = 0;
    virtual void visitReference(const GDValue* pTarget, Buffer&,
                                const MessageVisitorParams&) const = 0;
    virtual void visitStringBufferable(const IGDStringBufferable&, Buffer&,
                                       const MessageVisitorParams&) const = 0;
    virtual void visitMessage(const MessageBase&, Buffer&, const MessageVisitorParams&) const = 0;
};

class GDValue : public MemAllocNewdel {
public:
    enum Kind { kKindString, kKindNumber, kKindArray, kKindReference, kKindDeferred, kKindMessage };

    virtual ~GDValue() = default;

    // A copy on the heap (through the in-house allocator).
    virtual GDValue* clone() const = 0;
    // Builds a copy in pMemory when nCapacity is at least the object's size and returns that
    // size; otherwise builds nothing and returns 0. pMemory is aligned for max_align_t.
    virtual unsigned placementClone(void* pMemory, unsigned nCapacity) const = 0;
    virtual void accept(GDValueVisitor& visitor) const = 0;
    virtual void acceptMessageVisitor(const MessageVisitor& visitor,
                                      StringBufferBaseTemplate<wchar_t>& buffer,
                                      const MessageVisitorParams& params) const = 0;
    virtual Kind kind() const noexcept = 0;

    // The value this one stands for: itself, or what a reference refers to (null for a
    // reference to nothing).
    virtual const GDValue* target() const noexcept { return this; }

    // The value's text when it already stands somewhere exactly as it would render (a string,
    // or a deferred text kept elsewhere): a renderer can then copy it out as it is instead of
    // formatting it into a scratch buffer first. False for every value that must be formatted.
    virtual bool readyText(std::wstring_view& /*text*/) const { return false; }
    // The UTF-8 form of the value's text, when the value keeps it encoded and the text holds no
    // null character: a renderer that writes UTF-8 copies these bytes as they are. False when
    // the value does not keep such a form.
    virtual bool readyUtf8(std::string_view& /*bytes*/) const { return false; }
    // The text of a string value in one call, for a message's template; nFingerprint is the
    // text's literal fingerprint when the value is a GDLiteralText, 0 otherwise. False for
    // every value that is not a string with ready text.
    virtual bool readyTemplateText(std::wstring_view& text, std::uint64_t& nFingerprint) const {
        nFingerprint = 0;
        return kind() == kKindString && readyText(text);
    }
    // The message this value is, or refers to, when it renders as a plain template: no
    // catalogue entry, and a template that is (or refers to) a string; text and nFingerprint
    // are then the template's text and literal fingerprint (0 when it has none). Null for every
    // other value. A message of the renderer's usual kind answers in one call, with one more
    // to its template, where asking kind, catalogue entry and template one by one took five.
    virtual const MessageBase* plainTemplateMessage(
        std::wstring_view& /*text*/, std::uint64_t& /*nFingerprint*/) const noexcept {
        return nullptr;
    }

    // Whether the value, or the value it refers to, is a string / a number.
    bool isString() const noexcept;
    bool isNumber() const noexcept;

    // Appends the value's text form (messages expand through the default text formatter).
    void appendText(StringBufferBaseTemplate<wchar_t>& buffer) const;
    String toString() const;
};

// A value that writes itself into a buffer when it is rendered (for example a property whose
// text is only known at that moment).
class IGDStringBufferable {
public:
    virtual ~IGDStringBufferable() = default;
    virtual int bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                          TextMessageBase::TextType type) const = 0;
};

// Supplies clone and placementClone for a concrete value class.
template <class Derived, class Base = GDValue>
class GDValueImpl : public Base {
public:
    using Base::Base;
    GDValue* clone() const override { return new Derived(static_cast<const Derived&>(*this)); }
    unsigned placementClone(void* pMemory, unsigned nCapacity) const override {
        if (nCapacity < sizeof(Derived)) {
            return 0;
        }
        ::new (pMemory) Derived(static_cast<const Derived&>(*this));
        return sizeof(Derived);
    }
};

class GDString final : public GDValueImpl<GDString> {
public:
    GDString() = default;
    explicit GDString(String str) : m_str(std::move(str)) {}
    explicit GDString(const wchar_t* psz) : m_str(psz) {}
    const String& getString() const noexcept { return m_str; }
    std::wstring_view view() const noexcept { return m_str.view(); }
    void accept(GDValueVisitor& visitor) const override { visitor.visitString(view()); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitString(view(), buffer, params);
    }
    Kind kind() const noexcept override { return kKindString; }
    bool readyText(std::wstring_view& text) const override {
        text = view();
        return true;
    }
    bool readyTemplateText(std::wstring_view& text, std::uint64_t& nFingerprint) const override {
        text = view();
        nFingerprint = 0;
        return true;
    }

private:
    String m_str;
};

// What a value that refers to wide text kept elsewhere does: a string whose text is ready.
template <class Derived>
class GDTextRefImpl : public GDValueImpl<Derived> {
public:
    std::wstring_view view() const noexcept { return m_view; }
    void accept(GDValueVisitor& visitor) const override { visitor.visitString(m_view); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitString(m_view, buffer, params);
    }
    GDValue::Kind kind() const noexcept override { return GDValue::kKindString; }
    bool readyText(std::wstring_view& text) const override {
        text = m_view;
        return true;
    }
    bool readyTemplateText(std::wstring_view& text, std::uint64_t& nFingerprint) const override {
        text = m_view;
        nFingerprint = 0;
        return true;
    }

protected:
    explicit GDTextRefImpl(std::wstring_view text) noexcept : m_view(text) {}

private:
    std::wstring_view m_view;
};

// Refers to text owned by the caller; the text must outlive the value and its copies.
class GDStringRef final : public GDTextRefImpl<GDStringRef> {
public:
    explicit GDStringRef(const wchar_t* psz) noexcept
        : GDTextRefImpl(psz != nullptr ? std::wstring_view(psz) : std::wstring_view()) {}
    GDStringRef(const wchar_t* p, std::size_t n) noexcept
        : GDTextRefImpl(std::wstring_view(p, n)) {}
    explicit GDStringRef(const String& str) noexcept : GDTextRefImpl(str.view()) {}
};

// The text of a string literal, decoded when the program was compiled, with the fingerprint of
// that text (fingerprintOf, also computed when the program was compiled). A literal's text has
// static storage and never changes: a renderer that keeps a compiled form of a template by its
// address can tell it is still the same text from the address, the length and the fingerprint,
// without comparing the text character by character. Only for text that never changes: made
// over a buffer that is later rewritten, with the fingerprint of its first text, it may go on
// showing that first text. A fingerprint that is not its text's is caught when the renderer
// compiles the template (it then compares the text every time, as for any other string).
class GDLiteralText final : public GDTextRefImpl<GDLiteralText> {
public:
    GDLiteralText(std::wstring_view text, std::uint64_t nFingerprint) noexcept
        : GDTextRefImpl(text), m_nFingerprint(nFingerprint) {}
    bool readyTemplateText(std::wstring_view& text, std::uint64_t& nFingerprint) const override {
        text = view();
        nFingerprint = m_nFingerprint;
        return true;
    }

    // FNV-1a over the characters, never 0 (0 stands for "no fingerprint"). Two different texts
    // of the same length at the same address (a library unloaded and another loaded in its
    // place) would also have to share these 64 bits to be taken for each other.
    static constexpr std::uint64_t fingerprintOf(std::wstring_view text) noexcept {
        std::uint64_t nHash = 0xcbf29ce484222325ULL;
        for (const wchar_t c : text) {
            nHash = (nHash ^ static_cast<std::uint32_t>(c)) * 0x100000001b3ULL;
        }
        return nHash != 0 ? nHash : 1;
    }

private:
    std::uint64_t m_nFingerprint;
};

class GDUInteger64 final : public GDValueImpl<GDUInteger64> {
public:
    explicit GDUInteger64(std::uint64_t n = 0) noexcept : m_n(n) {}
    std::uint64_t getValue() const noexcept { return m_n; }
    void accept(GDValueVisitor& visitor) const override { visitor.visitUInteger64(m_n); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitUInteger64(m_n, buffer, params);
    }
    Kind kind() const noexcept override { return kKindNumber; }

private:
    std::uint64_t m_n;
};

class GDInteger64 final : public GDValueImpl<GDInteger64> {
public:
    explicit GDInteger64(std::int64_t n = 0) noexcept : m_n(n) {}
    std::int64_t getValue() const noexcept { return m_n; }
    void accept(GDValueVisitor& visitor) const override { visitor.visitInteger64(m_n); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitInteger64(m_n, buffer, params);
    }
    Kind kind() const noexcept override { return kKindNumber; }

private:
    std::int64_t m_n;
};

// A floating-point number, kept as the shortest decimal text that reads back to the same number
// ("0.1", "12.5", "1e+20", "-inf", "nan"; a float gives the text of its own precision, "0.1"
// rather than "0.10000000149011612"). The text is made once, when the value is, and held inside
// it, so a copy owns everything it shows and rendering formats nothing. The visitors have no
// floating-point entry, so they are shown that text as a string; the kind is still a number.
class GDFloat final : public GDValueImpl<GDFloat> {
public:
    // Enough for every double: "-2.2250738585072014e-308" has 24 characters.
    static constexpr std::size_t kMaxChars = 24;

    explicit GDFloat(double d = 0) noexcept;
    explicit GDFloat(float f) noexcept;
    std::wstring_view view() const noexcept { return std::wstring_view(m_arrText, m_nChars); }
    void accept(GDValueVisitor& visitor) const override { visitor.visitString(view()); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitString(view(), buffer, params);
    }
    Kind kind() const noexcept override { return kKindNumber; }

private:
    void setText(const char* pBegin, const char* pEnd) noexcept;

    wchar_t m_arrText[kMaxChars] = {};
    unsigned char m_nChars = 0;
};

// Refers to UTF-8 text owned by the caller and decodes it only when the value is rendered,
// straight into the renderer's buffer: narrow text becomes a value without a wide copy and
// without touching the heap, and nothing is decoded when nothing renders it. It is a deferred
// value rather than a string because a string must show its text as one wide view
// (GDValueVisitor::visitString), which this text never has; renderers reach it through
// IGDStringBufferable, as they reach any value that writes itself. Malformed sequences render as
// U+FFFD, as fromUtf8 decodes them. The text must outlive the value and its copies.
class GDUtf8StringRef final : public GDValueImpl<GDUtf8StringRef>, public IGDStringBufferable {
public:
    // A null pointer is the empty text.
    explicit GDUtf8StringRef(const char* psz) noexcept
        : m_view(psz != nullptr ? std::string_view(psz) : std::string_view()) {}
    explicit GDUtf8StringRef(std::string_view bytes) noexcept : m_view(bytes) {}
    std::string_view view() const noexcept { return m_view; }
    void accept(GDValueVisitor& visitor) const override { visitor.visitUtf8Text(m_view, *this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitStringBufferable(*this, buffer, params);
    }
    Kind kind() const noexcept override { return kKindDeferred; }
    // The decoded text as it is, for either text type: the same as a wide string value of that
    // text renders.
    int bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                  TextMessageBase::TextType type) const override;

private:
    std::string_view m_view;
};

// Refers to another value without copying it; the target must outlive the reference.
class GDValueRef final : public GDValueImpl<GDValueRef> {
public:
    explicit GDValueRef(const GDValue* pTarget) noexcept : m_pTarget(pTarget) {}
    const GDValue* target() const noexcept override {
        return m_pTarget != nullptr ? m_pTarget->target() : nullptr;
    }
    void accept(GDValueVisitor& visitor) const override { visitor.visitReference(target()); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitReference(target(), buffer, params);
    }
    Kind kind() const noexcept override { return kKindReference; }
    const MessageBase* plainTemplateMessage(std::wstring_view& text,
                                            std::uint64_t& nFingerprint) const noexcept override {
        return m_pTarget != nullptr ? m_pTarget->plainTemplateMessage(text, nFingerprint) : nullptr;
    }

private:
    const GDValue* m_pTarget;
};

// Holds a copy of any value: in inline storage of N machine words when the value fits, on the
// heap otherwise. An empty variant holds nothing.
template <std::size_t N>
class GDAdjustableSizeVariant {
public:
    static constexpr unsigned kInlineBytes = static_cast<unsigned>(N * sizeof(void*));

    GDAdjustableSizeVariant() noexcept = default;
    explicit GDAdjustableSizeVariant(const GDValue& value) { set(value); }
    GDAdjustableSizeVariant(const GDAdjustableSizeVariant& other) {
        if (other.m_pValue != nullptr) {
            set(*other.m_pValue);
        }
    }
    GDAdjustableSizeVariant(GDAdjustableSizeVariant&& other) {
        if (other.m_pValue == nullptr) {
            return;
        }
        if (other.m_bInline) {
            set(*other.m_pValue);
            other.reset();
        } else {
            m_pValue = std::exchange(other.m_pValue, nullptr);
        }
    }
    GDAdjustableSizeVariant& operator=(const GDAdjustableSizeVariant& other) {
        if (this != &other) {
            reset();
            if (other.m_pValue != nullptr) {
                set(*other.m_pValue);
            }
        }
        return *this;
    }
    GDAdjustableSizeVariant& operator=(GDAdjustableSizeVariant&& other) {
        if (this != &other) {
            reset();
            new (this) GDAdjustableSizeVariant(std::move(other));
        }
        return *this;
    }
    ~GDAdjustableSizeVariant() { reset(); }

    void set(const GDValue& value) {
        reset();
        if (value.placementClone(m_arrStorage, kInlineBytes) != 0) {
            m_pValue = std::launder(reinterpret_cast<GDValue*>(m_arrStorage));
            m_bInline = true;
        } else {
            m_pValue = value.clone();
            m_bInline = false;
        }
    }
    void reset() noexcept {
        if (m_pValue != nullptr) {
            if (m_bInline) {
                m_pValue->~GDValue();
            } else {
                delete m_pValue;
            }
            m_pValue = nullptr;
        }
    }
    const GDValue* get() const noexcept { return m_pValue; }
    const GDValue& operator*() const noexcept { return *m_pValue; }
    const GDValue* operator->() const noexcept { return m_pValue; }
    bool empty() const noexcept { return m_pValue == nullptr; }
    bool isInline() const noexcept { return m_pValue != nullptr && m_bInline; }

private:
    alignas(std::max_align_t) unsigned char m_arrStorage[kInlineBytes];
    GDValue* m_pValue = nullptr;
    bool m_bInline = false;
};

using GDVariant = GDAdjustableSizeVariant<16>;

class GDArray final : public GDValueImpl<GDArray> {
public:
    GDArray() = default;
    GDArray& append(const GDValue& value) {
        m_vecValues.emplace_back(value);
        return *this;
    }
    std::size_t size() const noexcept { return m_vecValues.size(); }
    const GDValue& operator[](std::size_t i) const noexcept { return *m_vecValues[i]; }
    void accept(GDValueVisitor& visitor) const override { visitor.visitArray(*this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitArray(*this, buffer, params);
    }
    Kind kind() const noexcept override { return kKindArray; }

private:
    std::vector<GDVariant> m_vecValues;
};

// Renders values into text. The base renders strings, numbers, arrays (element by element),
// references (their target) and deferred values; messages are left to the message formatter,
// which the message table installs as the default one.
class MessageFormatter : public MessageVisitor {
public:
    // Appends the text of value to buffer.
    void FormatBuffer(StringBufferBaseTemplate<wchar_t>& buffer, const GDValue& value,
                      TextMessageBase::TextType type = TextMessageBase::kText) const;

    void visitString(std::wstring_view text, Buffer&, const MessageVisitorParams&) const override;
    void visitUInteger64(std::uint64_t, Buffer&, const MessageVisitorParams&) const override;
    void visitInteger64(std::int64_t, Buffer&, const MessageVisitorParams&) const override;
    void visitArray(const GDArray&, Buffer&, const MessageVisitorParams&) const override;
    void visitReference(const GDValue* pTarget, Buffer&,
                        const MessageVisitorParams&) const override;
    void visitStringBufferable(const IGDStringBufferable&, Buffer&,
                               const MessageVisitorParams&) const override;
    // Without a message table a message shows nothing; the table's formatter overrides this.
    void visitMessage(const MessageBase&, Buffer&, const MessageVisitorParams&) const override;

    // The formatter used by GDValue::appendText; the message table installs its own at load.
    static const MessageFormatter& getDefault() noexcept;
    static void setDefault(const MessageFormatter* pFormatter) noexcept;
};

}  // namespace kiv
