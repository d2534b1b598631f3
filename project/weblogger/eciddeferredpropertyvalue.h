// The value of the "ecid" property that every thread's logger carries: not a text but a
// placeholder that writes the thread's current execution context id at the moment a format
// renders it. The id is therefore always the current one, however long after the logger was
// made the context changes, and nothing is looked up for messages whose format does not show it.
//
// It holds no state, so all instances (and the copies a property stack makes) are alike and
// render the same; it is not copied into a LoggerState copy, which keeps only strings and
// numbers, because its text belongs to the thread that renders it.
#pragma once

#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/string.h"

namespace kiv::logger_details {

// The calling thread's current ECID (empty without a context). Defined by the execution
// context, which supplies it; declared here so that the logger, which pushes this value, does
// not depend on the execution context that itself logs through the logger.
const String& currentECIDForLog();
// The same as UTF-8: kept beside it, so that a line written as UTF-8 copies the bytes.
std::string_view currentECIDUtf8ForLog();

class ECIDLogDeferredPropertyValue final : public GDValueImpl<ECIDLogDeferredPropertyValue>,
                                           public IGDStringBufferable {
public:
    void accept(GDValueVisitor& visitor) const override { visitor.visitStringBufferable(*this); }
    void acceptMessageVisitor(const MessageVisitor& visitor,
                              StringBufferBaseTemplate<wchar_t>& buffer,
                              const MessageVisitorParams& params) const override {
        visitor.visitStringBufferable(*this, buffer, params);
    }
    Kind kind() const noexcept override { return kKindDeferred; }

    // The calling thread's ECID as it is, for text and XML alike: the ids are hex digits and a
    // comma, with nothing to escape.
    int bufferize(StringBufferBaseTemplate<wchar_t>& buffer,
                  TextMessageBase::TextType /*type*/) const override {
        const String& strECID = currentECIDForLog();
        if (!strECID.empty()) {
            buffer.append(strECID.view());
        }
        return 0;
    }
    // The thread's ECID is kept as text by the execution context, so a renderer copies it from
    // there rather than through its scratch buffer: showing the id costs the copy of its
    // characters and little more.
    bool readyText(std::wstring_view& text) const override {
        text = currentECIDForLog().view();
        return true;
    }
    // The id is built from the client's C strings, so it never holds a null character.
    bool readyUtf8(std::string_view& bytes) const override {
        bytes = currentECIDUtf8ForLog();
        return true;
    }
};

}  // namespace kiv::logger_details
