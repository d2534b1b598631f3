// Feeds arbitrary bytes to the message-format compiler: the bytes are parsed as XML and the root
// element is compiled as a format, as a writer compiles the format its configuration names.
// The compiled result is then checked for the shape the renderer relies on.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "weblogger/internal/messagewriter.h"
#include "weblogger/logsource.h"
#include "weblogger/messageformatloader.h"
#include "zq/webkeel/assert.h"

namespace {

// A misspelt Encoding attribute is reported as "false" and compiling goes on; that report is
// expected for arbitrary input. Any other report means an internal check broke, which is what
// this target is looking for.
void onAssertion(const kiv::AssertionReport& report) {
    // Expected reports: an unknown encoding or a record rendered where it cannot stand
    // ("false"), and a file record without a location. Anything else is a broken invariant.
    if (std::strcmp(report.expression, "false") != 0 &&
        std::strcmp(report.expression, "pFileLocation != __null") != 0) {
        std::abort();
    }
}

// The renderer walks the records once and dispatches on their kind: a text record never
// follows another (the merge rule), list and property records always carry a nested format,
// and the loader leaves the message separator alone.
void checkFormat(const kiv::CompiledMsgFormat& format) {
    using kiv::CompiledMsgFormat;
    if (!format.m_strMessageSeparator.empty()) {
        std::abort();
    }
    const CompiledMsgFormat::Record* pPrevious = nullptr;
    for (const CompiledMsgFormat::Record* pRecord : format.m_records) {
        if (pRecord == nullptr) {
            std::abort();
        }
        if (pPrevious != nullptr && pPrevious->m_nType == CompiledMsgFormat::kText &&
            pRecord->m_nType == CompiledMsgFormat::kText) {
            std::abort();
        }
        if (pRecord->m_nType == CompiledMsgFormat::kPropsList) {
            const auto* pList = static_cast<const CompiledMsgFormat::ComplexListRecord*>(pRecord);
            if (pList->m_pFormat == nullptr) {
                std::abort();
            }
            checkFormat(*pList->m_pFormat);
        } else if (pRecord->m_nType == CompiledMsgFormat::kSpecificProperty) {
            const auto* pProperty =
                static_cast<const CompiledMsgFormat::SingleValueFromListRecord*>(pRecord);
            if (pProperty->m_pFormat == nullptr) {
                std::abort();
            }
            checkFormat(*pProperty->m_pFormat);
        } else if (pRecord->m_nType == CompiledMsgFormat::kMsgType) {
            if (static_cast<const CompiledMsgFormat::EnumRecord*>(pRecord)->m_vecValues.size() !=
                5) {
                std::abort();
            }
        }
        pPrevious = pRecord;
    }
}

}  // namespace

// Renders a message with sources, properties (the reserved ones among them) and a location with
// a backtrace through the compiled format, into a wide buffer and as UTF-8 into a byte sink.
void renderThrough(const kiv::CompiledMsgFormat& format) {
    using namespace kiv;
    static const LogSourceHandle s_one(String(L"fuzz"));
    static const LogSourceHandle s_two(String(L"fuzz.two"));
    LoggerState state;
    state.pushSource(*s_one);
    state.pushSource(*s_two);
    state.pushProperty(String(L"userId"), GDString(L"ann & <bob>"), 100);
    state.pushProperty(String(L"ecid"), GDString(L"0af3,1"), 0xF0000000u);
    state.pushProperty(String(L"custom"), GDUInteger64(7), 100);
    const GDString tmpl(L"user %1 asked for \"%2\" & more \U0001F600");
    const GDString user(L"ann");
    const GDUInteger64 items(3);
    const ReferentialParameterizedMessage message(tmpl, user, items);
    const FileLocation location(L"/build/project/weblogger/x.cpp", 12, L"#0 f()");
    using WideBuffer = StringBufferBaseTemplate<wchar_t>;
    // The caller keeps the format; the message writer must not delete it.
    const auto hWriter =
        MessageWriterFactory<WideBuffer, WriterAdapter<WideBuffer>>::createMessageWriter(&format,
                                                                                         false);
    if (!hWriter.isNull()) {
        StringBufferTemplate<1024, wchar_t> out;
        hWriter->msg_log(kSevError, message, state, &location, &out);
        hWriter->msg_log(kSevTraceFinest, message, state, nullptr, &out);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nSize) {
    using namespace kiv;
    static const AssertionHandler s_previousHandler = setAssertionHandler(&onAssertion);
    (void)s_previousHandler;

    XmlDocument document;
    try {
        document = XmlDocument::parseString(
            std::string_view(reinterpret_cast<const char*>(pData), nSize), String(L"<fuzz>"));
    } catch (const XmlException&) {
        // Malformed input is rejected with an error; that is the expected outcome here.
        return 0;
    }
    const XmlElement* pRoot = document.getDocumentElement();
    if (pRoot == nullptr) {
        return 0;
    }
    CompiledMsgFormat format;
    try {
        MessageFormatLoader::loadFormat(format, *pRoot, CompiledMsgFormat::kEncodingPlain);
    } catch (const Exception&) {
        // A Property without a name, for one; the format must then be as it was: empty.
        if (!format.m_records.empty() || format.m_Encoding != CompiledMsgFormat::kEncodingXml) {
            std::abort();
        }
        return 0;
    }
    checkFormat(format);
    renderThrough(format);
    return 0;
}
