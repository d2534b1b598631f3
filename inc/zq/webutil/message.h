// Messages: catalogue entries, messages with inserts, the message table and the text
// formatter.
//
// A catalogue entry (ExternalMessage) has an id and a default template: a WebMessage element
// whose TEXT child holds text with kivm:param elements marking where insert N goes, or whose XML
// child holds structured content. Registered message files may translate an entry per
// language; the message table resolves an entry to the translation of the current language when
// one exists and to the default otherwise.
//
// ParamMessage owns its inserts; ReferentialParameterizedMessage is a stack-only message that
// refers to a template and up to eight inserts without copying them, for the logging hot path.
// A template is a catalogue entry or a plain text where "%1".."%9" stand for the inserts.
//
// WebTextMessageFormatter renders any value as text into a reused wide buffer. Unset inserts
// render as nothing in catalogue templates; in plain templates "%N" without an insert stays as
// written, so a missing argument is visible in the log; "%%" gives "%".
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cwchar>
#include <string_view>
#include <vector>

#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/handle.h"
#include "zq/webkeel/string.h"
#include "zq/webutil/messagefiles.h"
#include "zq/webutil/xmldocument.h"

namespace kiv {

class ExternalMessage;

// The namespace URI that catalogue templates with parameters declare for the kivm prefix.
extern const wchar_t* const kMessageNamespaceUri;

class MessageBase : public GDValue {
public:
    static constexpr unsigned kMaxInserts = 9;

    // The catalogue entry this message expands, or null for a plain template.
    virtual const ExternalMessage* getCatalogueMessage() const noexcept = 0;
    // The plain template (a string value), or null for a catalogue message.
    virtual const GDValue* getTemplateValue() const noexcept = 0;
    virtual unsigned getInsertCount() const noexcept = 0;
    // Insert nIndex, counted from 1; null when it is not set.
    virtual const GDValue* getInsert(unsigned nIndex) const noexcept = 0;

    Kind kind() const noexcept override { return kKindMessage; }
    // Itself, when its catalogue entry is null and its template gives its text (PlainTemplate).
    const MessageBase* plainTemplateMessage(std::wstring_view& text,
                                            std::uint64_t& nFingerprint) const noexcept override;
    void accept(GDValueVisitor& visitor) const override { visitor.visitMessage(*this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitMessage(*this, buffer, params);
    }
};

class ExternalMessage : public GDValueImpl<ExternalMessage, MessageBase> {
public:
    enum Option { kNone = 0, kProtect = 1 };

    // Defines a catalogue entry and registers it with the default message table.
    // defaultTemplateXml is the WebMessage element as XML text; a template that does not
    // parse, or whose root is not a WebMessage named by the id, fails the assertion
    // "bValidDefaultTemplate" and the entry renders its id instead.
    ExternalMessage(const wchar_t* pszId, Option nOption, const char* pszDefaultTemplateXml);
    // A copy refers to the same entry; it does not register again.
    ExternalMessage(const ExternalMessage& other);
    ExternalMessage& operator=(const ExternalMessage& other);
    ~ExternalMessage() override;

    const String& getId() const noexcept;
    Option getOption() const noexcept;
    // The WebMessage element given at definition.
    const XmlElement* getDefaultTemplate() const noexcept;
    // The WebMessage element for the current language: a translation or the default.
    const XmlElement* getTemplate() const;
    // The XML child of the current template (structured content), or null for a text message.
    const XmlElement* getStructuredContent() const;

    const ExternalMessage* getCatalogueMessage() const noexcept override { return this; }
    const GDValue* getTemplateValue() const noexcept override { return nullptr; }
    unsigned getInsertCount() const noexcept override { return 0; }
    const GDValue* getInsert(unsigned) const noexcept override { return nullptr; }

    struct Entry;
    const Entry& getEntry() const noexcept { return *m_hEntry.get(); }

private:
    Handle<Entry> m_hEntry;
};

// A message with owned inserts over a catalogue entry or a plain template.
class ParamMessage : public GDValueImpl<ParamMessage, MessageBase> {
public:
    explicit ParamMessage(const GDValue& templateValue);

    // Sets insert nIndex (1 to 9) to a copy of value; other indexes fail the assertion
    // "nIndex >= 1 && nIndex <= kMaxInserts" and are ignored.
    ParamMessage& setInsert(unsigned nIndex, const GDValue& value);

    const ExternalMessage* getCatalogueMessage() const noexcept override;
    const GDValue* getTemplateValue() const noexcept override;
    unsigned getInsertCount() const noexcept override {
        return static_cast<unsigned>(m_vecInserts.size());
    }
    const GDValue* getInsert(unsigned nIndex) const noexcept override;

private:
    GDVariant m_template;
    std::vector<GDVariant> m_vecInserts;
};

// A message that refers to its template and inserts; it must not outlive them, so it lives
// on the stack only. Copying it as a value (clone) makes an owning ParamMessage.
class ReferentialParameterizedMessage : public MessageBase {
public:
    template <class... Inserts>
    explicit ReferentialParameterizedMessage(const GDValue& templateValue,
                                             const Inserts&... inserts) noexcept
        : m_pTemplate(&templateValue), m_arrInserts{&inserts...}, m_nInserts(sizeof...(inserts)) {
        static_assert(sizeof...(inserts) <= kMaxReferentialInserts, "at most eight inserts");
    }

    static constexpr unsigned kMaxReferentialInserts = 8;

    GDValue* clone() const override;
    unsigned placementClone(void*, unsigned) const override { return 0; }
    // Found when asked, from the template (a catalogue message as template makes this one a
    // catalogue message): the values are only referred to, and do not change during the call.
    const ExternalMessage* getCatalogueMessage() const noexcept override;
    const GDValue* getTemplateValue() const noexcept override {
        return getCatalogueMessage() != nullptr ? nullptr : m_pTemplate;
    }
    // A template that hands its text over as a string is no catalogue message: one call to it
    // answers, on every log call's path. Anything else goes the general way.
    const MessageBase* plainTemplateMessage(std::wstring_view& text,
                                            std::uint64_t& nFingerprint) const noexcept override {
        if (m_pTemplate->readyTemplateText(text, nFingerprint)) [[likely]] {
            return this;
        }
        return MessageBase::plainTemplateMessage(text, nFingerprint);
    }
    unsigned getInsertCount() const noexcept override { return m_nInserts; }
    const GDValue* getInsert(unsigned nIndex) const noexcept override {
        return nIndex >= 1 && nIndex <= m_nInserts ? m_arrInserts[nIndex - 1] : nullptr;
    }

    static void* operator new(std::size_t) = delete;
    static void* operator new[](std::size_t) = delete;

private:
    const GDValue* m_pTemplate;
    const GDValue* m_arrInserts[kMaxReferentialInserts];
    unsigned m_nInserts;
};

class MessageTable {
public:
    // The process-wide table into which catalogue entries register.
    static MessageTable& getDefault();

    // The language whose translations are used ("en" until set).
    void setLanguage(const String& language);
    String getLanguage() const;

    // The catalogue entry with that id, or null.
    const ExternalMessage* findMessage(std::wstring_view id) const;
    // The WebMessage element for an entry in the current language.
    const XmlElement* resolveTemplate(const ExternalMessage::Entry& entry) const;
    // Problems met while reading message files (each names the file), newest last.
    std::vector<String> getLoadErrors() const;

    void registerMessage(const ExternalMessage& message);

    ~MessageTable();
    MessageTable(const MessageTable&) = delete;
    MessageTable& operator=(const MessageTable&) = delete;

private:
    MessageTable();
    struct State;
    State* m_pState;
};

// How the text formatter reads a plain template, for renderers that write a message's text
// some other way (the file writer encodes it straight to UTF-8) and must give exactly what the
// formatter gives.
struct PlainTemplate {
    // The message that value is, or refers to, when the formatter expands it as a plain
    // template: no catalogue entry, and a template whose value (or the value it refers to) is a
    // string; text is then that string. Null for every other value.
    // nFingerprint is the template's literal fingerprint (GDLiteralText), 0 when it has none.
    static const MessageBase* find(const GDValue& value, std::wstring_view& text,
                                   std::uint64_t& nFingerprint) noexcept {
        return value.plainTemplateMessage(text, nFingerprint);
    }
    // The plain template text of message, as find gives it.
    static bool textOf(const MessageBase& message, std::wstring_view& text,
                       std::uint64_t& nFingerprint) noexcept;
    // The text of a template value when it is (or refers to) a string.
    static bool textOfTemplate(const GDValue& templateValue, std::wstring_view& text,
                               std::uint64_t& nFingerprint) noexcept;

    // Walks text as the formatter expands it: onText(pointer, count) for each run of text that
    // stands as it is, onInsert(insert) for each "%1".."%9" whose insert is set. "%%" gives one
    // "%"; "%N" without an insert, and a "%" before anything else, stay as written.
    template <class OnText, class OnInsert>
    static void walk(std::wstring_view text, const MessageBase& message, OnText&& onText,
                     OnInsert&& onInsert) {
        walk(
            text, message,
            [&onText](const wchar_t* p, std::size_t n) {
                const wchar_t* pPercent = std::wmemchr(p, L'%', n);
                const std::size_t nRun =
                    pPercent != nullptr ? static_cast<std::size_t>(pPercent - p) : n;
                if (nRun != 0) {
                    onText(p, nRun);
                }
                return nRun;
            },
            onText, onInsert);
    }
    // The same, with the runs between two '%' handed to runUntilPercent(pointer, count), which
    // takes the text up to the first '%' among its count characters (all of them when there is
    // none) and returns how many it took: for a renderer that finds the '%' as it encodes.
    template <class RunUntilPercent, class OnText, class OnInsert>
    static void walk(std::wstring_view text, const MessageBase& message,
                     RunUntilPercent&& runUntilPercent, OnText&& onText, OnInsert&& onInsert);
};

template <class RunUntilPercent, class OnText, class OnInsert>
void PlainTemplate::walk(std::wstring_view text, const MessageBase& message,
                         RunUntilPercent&& runUntilPercent, OnText&& onText, OnInsert&& onInsert) {
    const wchar_t* const p = text.data();
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        i += runUntilPercent(p + i, n - i);
        if (i >= n) {
            break;
        }
        // p[i] is a '%'.
        if (i + 1 < n) {
            const wchar_t next = p[i + 1];
            if (next >= L'1' && next <= L'9') {
                if (const GDValue* pInsert =
                        message.getInsert(static_cast<unsigned>(next - L'0'))) {
                    onInsert(*pInsert);
                    i += 2;
                    continue;
                }
            }
            if (next == L'%') {
                onText(p + i, 1);
                i += 2;
                continue;
            }
        }
        // A '%' that marks nothing stands as written; what follows it is ordinary text.
        onText(p + i, 1);
        ++i;
    }
}

// The text formatter: expands catalogue messages and plain templates, and writes any other
// value in its text form.
class WebTextMessageFormatter : public MessageFormatter {
public:
    void visitMessage(const MessageBase& message, Buffer& buffer,
                      const MessageVisitorParams& params) const override;

    // Expands one WebMessage template with the inserts of message (TEXT: text and parameters;
    // XML: the structured content as XML text).
    void formatTemplate(const XmlElement& webMessage, const MessageBase& message, Buffer& buffer,
                        const MessageVisitorParams& params) const;

    static const WebTextMessageFormatter& getInstance() noexcept;

private:
    void expandCatalogueText(const XmlNode* pFirst, const MessageBase& message, Buffer& buffer,
                             const MessageVisitorParams& params) const;
    void formatInsert(const MessageBase& message, unsigned nIndex, Buffer& buffer,
                      const MessageVisitorParams& params) const;
};

}  // namespace kiv
