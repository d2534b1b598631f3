// Feeds arbitrary bytes to the message-file reader and renders every template it finds with
// three inserts, as the message table would after a translation was loaded.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "zq/webutil/message.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    using namespace kiv;
    try {
        const MessageFile file = MessageFile::parseString(
            std::string_view(reinterpret_cast<const char*>(pData), nSize), String(L"<fuzz>"));
        const GDString templateValue(L"unused");
        const GDString first(L"one");
        const GDUInteger64 second(2);
        const GDString third(L"three");
        const ReferentialParameterizedMessage message(templateValue, first, second, third);
        StringBufferTemplate<511, wchar_t> buffer;
        for (const XmlElement* pTemplate : file.getTemplates()) {
            buffer.clear();
            WebTextMessageFormatter::getInstance().formatTemplate(*pTemplate, message, buffer,
                                                                  MessageVisitorParams());
        }
    } catch (const XmlException&) {
        // Malformed files are rejected with an error; that is the expected outcome here.
    }
    return 0;
}
