#include "weblogger/internal/writeradapters.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "support/alloc_counter.h"
#include "zq/webkeel/transcode.h"

namespace kiv {
namespace {

// A byte sink shaped like the log file, remembering every write separately.
struct RecordingFile {
    void write(const void* data, unsigned long n) {
        vecWrites.emplace_back(static_cast<const char*>(data), n);
    }
    std::string joined() const {
        std::string all;
        for (const std::string& s : vecWrites) {
            all += s;
        }
        return all;
    }
    std::vector<std::string> vecWrites;
};

// A wide sink with the append of the wide string buffer, remembering every append separately.
struct RecordingWideStream {
    void append(const wchar_t* p, std::size_t n) { vecAppends.emplace_back(p, n); }
    std::wstring joined() const {
        std::wstring all;
        for (const std::wstring& s : vecAppends) {
            all += s;
        }
        return all;
    }
    std::vector<std::wstring> vecAppends;
};

// The console stream's shape: remembers each writeBytes call and whether the bytes came
// NUL-terminated.
struct RecordingConsole {
    void writeBytes(const void* data, unsigned long n) {
        const char* p = static_cast<const char*>(data);
        vecWrites.emplace_back(p, n);
        vecTerminated.push_back(p[n] == '\0');
    }
    std::vector<std::string> vecWrites;
    std::vector<bool> vecTerminated;
};

// A byte sink that never allocates, for the allocation tests.
struct FixedFile {
    void write(const void* data, unsigned long n) {
        ++nWrites;
        if (nSize + n <= sizeof(arrBytes)) {
            std::memcpy(arrBytes + nSize, data, n);
            nSize += n;
        }
    }
    std::string_view view() const { return std::string_view(arrBytes, nSize); }
    char arrBytes[4096];
    std::size_t nSize = 0;
    std::size_t nWrites = 0;
};

// A console stream that never allocates.
struct FixedConsole {
    void writeBytes(const void* data, unsigned long n) {
        ++nWrites;
        if (n <= sizeof(arrBytes)) {
            std::memcpy(arrBytes, data, n);
            nSize = n;
        }
    }
    std::string_view view() const { return std::string_view(arrBytes, nSize); }
    char arrBytes[4096];
    std::size_t nSize = 0;
    std::size_t nWrites = 0;
};

using WideBuffer = StringBufferBaseTemplate<wchar_t>;
using Utf8 = T2NEncodingUTF8<wchar_t>;
template <class Sink>
using Utf8Adapter = EncodingAdapter<StreamWriterAdapter<Sink, char>, Utf8>;
template <class Sink>
using XmlUtf8Adapter = EncodingAdapter<Utf8Adapter<Sink>, W2WXmlEncoding>;
using XmlBufferAdapter = EncodingAdapter<WriterAdapter<WideBuffer>, W2WXmlEncoding>;

// Mixed text of n characters: ASCII, two- and three-byte characters and one beyond U+FFFF.
std::wstring mixedText(std::size_t n) {
    const std::wstring pattern = L"abc\u00E9\u20ACxyz\U0001F600 ";
    std::wstring text;
    while (text.size() < n) {
        text += pattern;
    }
    text.resize(n);
    return text;
}

TEST(WriterAdapterTest, AppendsWithAllThreeForms) {
    StringBufferTemplate<64, wchar_t> buffer;
    WriterAdapter<WideBuffer>::write(&buffer, L"a&bc", 2);
    WriterAdapter<WideBuffer>::write(&buffer, L"<d>");
    WriterAdapter<WideBuffer>::write(&buffer, String(L"\"e'"));
    WriterAdapter<WideBuffer>::write(&buffer, static_cast<const wchar_t*>(nullptr));
    EXPECT_EQ(buffer.view(), L"a&<d>\"e'");
}

TEST(StreamWriterAdapterTest, WritesBytesWithAllThreeForms) {
    RecordingFile file;
    StreamWriterAdapter<RecordingFile, char>::write(&file, "abcdef", 3);
    StreamWriterAdapter<RecordingFile, char>::write(&file, "\xC3\xA9");
    StreamWriterAdapter<RecordingFile, char>::write(&file, NString("xyz"));
    ASSERT_EQ(file.vecWrites.size(), 3u);
    EXPECT_EQ(file.vecWrites[0], "abc");
    EXPECT_EQ(file.vecWrites[1], "\xC3\xA9");
    EXPECT_EQ(file.vecWrites[2], "xyz");
}

TEST(EncodingAdapterTest, Utf8ArrivesInChunksOf256Characters) {
    const std::wstring text = mixedText(600);
    RecordingFile file;
    Utf8Adapter<RecordingFile>::write(&file, text.data(), text.size());
    ASSERT_EQ(file.vecWrites.size(), 3u);
    EXPECT_EQ(file.vecWrites[0], toUtf8(std::wstring_view(text).substr(0, 256)).std());
    EXPECT_EQ(file.vecWrites[1], toUtf8(std::wstring_view(text).substr(256, 256)).std());
    EXPECT_EQ(file.vecWrites[2], toUtf8(std::wstring_view(text).substr(512, 88)).std());
    EXPECT_EQ(file.joined(), toUtf8(text).std());
}

TEST(EncodingAdapterTest, CharactersBeyondTheBasicPlaneAreFourByteSequences) {
    RecordingFile file;
    Utf8Adapter<RecordingFile>::write(&file, L"\U0001F600\U00010000\U0010FFFF");
    ASSERT_EQ(file.vecWrites.size(), 1u);
    EXPECT_EQ(file.vecWrites[0], "\xF0\x9F\x98\x80\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");

    // A whole chunk of them needs the full 1024-byte buffer and is still one write.
    const std::wstring text(256, L'\U0001F600');
    RecordingFile full;
    Utf8Adapter<RecordingFile>::write(&full, text.data(), text.size());
    ASSERT_EQ(full.vecWrites.size(), 1u);
    EXPECT_EQ(full.vecWrites[0].size(), 1024u);
    EXPECT_EQ(full.joined(), toUtf8(text).std());
}

TEST(EncodingAdapterTest, EmptyTextWritesNothing) {
    RecordingFile file;
    Utf8Adapter<RecordingFile>::write(&file, L"", 0);
    Utf8Adapter<RecordingFile>::write(&file, L"");
    Utf8Adapter<RecordingFile>::write(&file, String());
    Utf8Adapter<RecordingFile>::write(&file, static_cast<const wchar_t*>(nullptr));
    XmlUtf8Adapter<RecordingFile>::write(&file, L"", 0);
    EXPECT_TRUE(file.vecWrites.empty());
}

TEST(EncodingAdapterTest, AllThreeForms) {
    RecordingFile file;
    Utf8Adapter<RecordingFile>::write(&file, L"\u00E9tat", 2);
    Utf8Adapter<RecordingFile>::write(&file, L"\u20AC");
    Utf8Adapter<RecordingFile>::write(&file, String(L"z\U0001F600"));
    ASSERT_EQ(file.vecWrites.size(), 3u);
    EXPECT_EQ(file.vecWrites[0], "\xC3\xA9t");
    EXPECT_EQ(file.vecWrites[1], "\xE2\x82\xAC");
    EXPECT_EQ(file.vecWrites[2], "z\xF0\x9F\x98\x80");

    StringBufferTemplate<64, wchar_t> buffer;
    XmlBufferAdapter::write(&buffer, L"a&b", 2);
    XmlBufferAdapter::write(&buffer, L"<");
    XmlBufferAdapter::write(&buffer, String(L"'"));
    EXPECT_EQ(buffer.view(), L"a&amp;&lt;&apos;");
}

TEST(EncodingAdapterTest, XmlEscapesWhereThePlainAdapterDoesNot) {
    StringBufferTemplate<64, wchar_t> escaped;
    XmlBufferAdapter::write(&escaped, L"Tom & Jerry");
    EXPECT_EQ(escaped.view(), L"Tom &amp; Jerry");

    StringBufferTemplate<64, wchar_t> plain;
    WriterAdapter<WideBuffer>::write(&plain, L"Tom & Jerry");
    EXPECT_EQ(plain.view(), L"Tom & Jerry");
}

TEST(EncodingAdapterTest, NestedXmlThenUtf8) {
    const std::wstring text = L"<v a=\"1\">Tom & \u00C9mile \U0001F600\u0007</v>";
    RecordingFile file;
    XmlUtf8Adapter<RecordingFile>::write(&file, text.data(), text.size());
    EXPECT_EQ(
        file.joined(),
        toUtf8(L"&lt;v a=&quot;1&quot;&gt;Tom &amp; \u00C9mile \U0001F600\uFFFD&lt;/v&gt;").std());

    // Long text: every XML chunk is re-chunked by the UTF-8 adaptor, nothing lost or reordered.
    const std::wstring longText = mixedText(1000) + L"&<>\"'";
    RecordingFile longFile;
    XmlUtf8Adapter<RecordingFile>::write(&longFile, String(longText));
    StringBufferTemplate<64, wchar_t> escaped;
    XmlBufferAdapter::write(&escaped, longText.data(), longText.size());
    EXPECT_EQ(longFile.joined(), toUtf8(escaped.view()).std());
}

TEST(EncodingAdapterTest, HeavilyEscapedChunkIsNotTruncated) {
    // 256 quotes need 1536 units, more than the 1024-unit buffer.
    const std::wstring quotes(256, L'"');
    std::wstring expected;
    for (int i = 0; i < 256; ++i) {
        expected += L"&quot;";
    }

    RecordingWideStream stream;
    EncodingAdapter<WriterAdapter<RecordingWideStream>, W2WXmlEncoding>::write(
        &stream, quotes.data(), quotes.size());
    EXPECT_EQ(stream.joined(), expected);
    EXPECT_EQ(stream.joined().size(), 1536u);
    ASSERT_EQ(stream.vecAppends.size(), 2u);
    for (const std::wstring& s : stream.vecAppends) {
        EXPECT_LE(s.size(), 1024u);
    }

    // Heavy escaping in every one of several chunks, through to UTF-8.
    const std::wstring mixed = std::wstring(300, L'&') + std::wstring(300, L'\'');
    RecordingFile file;
    XmlUtf8Adapter<RecordingFile>::write(&file, mixed.data(), mixed.size());
    std::string expectedBytes;
    for (int i = 0; i < 300; ++i) {
        expectedBytes += "&amp;";
    }
    for (int i = 0; i < 300; ++i) {
        expectedBytes += "&apos;";
    }
    EXPECT_EQ(file.joined(), expectedBytes);
}

TEST(HoopyAdaptorTest, ShortTextIsOneWrite) {
    RecordingConsole console;
    const std::wstring text = L"Hello, \u00E9t\u00E9 \u20AC \U0001F600!";
    HoopyAdaptor::write(&console, text.data(), text.size());
    ASSERT_EQ(console.vecWrites.size(), 1u);
    EXPECT_EQ(console.vecWrites[0], toUtf8(text).std());
    EXPECT_TRUE(console.vecTerminated[0]);
}

TEST(HoopyAdaptorTest, LongTextIsStillOneWrite) {
    const std::wstring text = mixedText(10000);
    RecordingConsole console;
    HoopyAdaptor::write(&console, text.data(), text.size());
    ASSERT_EQ(console.vecWrites.size(), 1u);
    EXPECT_EQ(console.vecWrites[0], toUtf8(text).std());
    EXPECT_TRUE(console.vecTerminated[0]);

    // All characters beyond the basic plane: every piece needs its second, larger reservation.
    const std::wstring wide(10000, L'\U0001F600');
    RecordingConsole wideConsole;
    HoopyAdaptor::write(&wideConsole, String(wide));
    ASSERT_EQ(wideConsole.vecWrites.size(), 1u);
    EXPECT_EQ(wideConsole.vecWrites[0], toUtf8(wide).std());
}

TEST(HoopyAdaptorTest, SurrogateCodeUnitsConvertLikeEverywhereElse) {
    // Surrogate pairs placed across every possible piece boundary.
    std::wstring text;
    for (int i = 0; i < 2000; ++i) {
        text += (i % 7 == 0) ? L'x' : L'\u00E9';
        text += static_cast<wchar_t>(0xD83D);
        text += static_cast<wchar_t>(0xDE00);
    }
    RecordingConsole console;
    HoopyAdaptor::write(&console, text.data(), text.size());
    ASSERT_EQ(console.vecWrites.size(), 1u);
    EXPECT_EQ(console.vecWrites[0], toUtf8(text).std());
}

TEST(HoopyAdaptorTest, AllThreeFormsAndEmptyText) {
    RecordingConsole console;
    HoopyAdaptor::write(&console, L"ab\u00E9cd", 3);
    HoopyAdaptor::write(&console, L"\u20AC");
    HoopyAdaptor::write(&console, String(L"\U0001F600"));
    HoopyAdaptor::write(&console, L"", 0);
    HoopyAdaptor::write(&console, static_cast<const wchar_t*>(nullptr));
    ASSERT_EQ(console.vecWrites.size(), 3u);
    EXPECT_EQ(console.vecWrites[0], "ab\xC3\xA9");
    EXPECT_EQ(console.vecWrites[1], "\xE2\x82\xAC");
    EXPECT_EQ(console.vecWrites[2], "\xF0\x9F\x98\x80");
}

TEST(HoopyAdaptorTest, XmlEscapingInFrontOfTheConsole) {
    RecordingConsole console;
    EncodingAdapter<HoopyAdaptor, W2WXmlEncoding>::write(&console, L"a<\u00E9>");
    ASSERT_EQ(console.vecWrites.size(), 1u);
    EXPECT_EQ(console.vecWrites[0], "a&lt;\xC3\xA9&gt;");
}

TEST(WriterAdaptersAllocationTest, EncodingAdapterIntoAReusedWideBufferAllocatesNothing) {
    const std::wstring text = mixedText(595) + L"&<>\"'";
    StringBufferTemplate<511, wchar_t> buffer;
    XmlBufferAdapter::write(&buffer, text.data(), text.size());
    const std::wstring first(buffer.view());
    buffer.clear();
    {
        const test::AllocationScope scope;
        XmlBufferAdapter::write(&buffer, text.data(), text.size());
        EXPECT_EQ(scope.count(), 0u);
    }
    EXPECT_EQ(std::wstring(buffer.view()), first);
}

TEST(WriterAdaptersAllocationTest, EncodingAdapterIntoAByteSinkAllocatesNothing) {
    const std::wstring text = mixedText(600);
    FixedFile file;
    {
        const test::AllocationScope scope;
        Utf8Adapter<FixedFile>::write(&file, text.data(), text.size());
        XmlUtf8Adapter<FixedFile>::write(&file, L"&<>", 3);
        EXPECT_EQ(scope.count(), 0u);
    }
    EXPECT_EQ(file.nWrites, 4u);
    EXPECT_EQ(std::string(file.view()), toUtf8(text).std() + "&amp;&lt;&gt;");
}

TEST(WriterAdaptersAllocationTest, HoopyAdaptorShortTextAllocatesNothing) {
    const std::wstring text = std::wstring(119, L'\U0001F600');
    FixedConsole console;
    {
        const test::AllocationScope scope;
        HoopyAdaptor::write(&console, text.data(), text.size());
        EXPECT_EQ(scope.count(), 0u);
    }
    EXPECT_EQ(console.nWrites, 1u);
    EXPECT_EQ(std::string(console.view()), toUtf8(text).std());
}

template <class Sink>
using JsonUtf8Adapter = EncodingAdapter<Utf8Adapter<Sink>, W2WJsonEncoding>;

TEST(EncodingAdapterTest, JsonEscapingThenUtf8) {
    const wchar_t arrText[] = {L'"', L'\\', L'\n', 0x01, 0x1F600, 0xD800, L'\u00E9'};
    RecordingFile file;
    JsonUtf8Adapter<RecordingFile>::write(&file, arrText, std::size(arrText));
    EXPECT_EQ(file.joined(), "\\\"\\\\\\n\\u0001\xF0\x9F\x98\x80\xEF\xBF\xBD\xC3\xA9");
}

TEST(EncodingAdapterTest, HeavilyJsonEscapedChunksLoseNothing) {
    // Six units per control character: 256 of them outgrow the 1024-unit buffer.
    std::wstring text;
    std::wstring expected;
    for (int i = 0; i < 300; ++i) {
        text += L"\u0001\"\\x\U0001F600";
        expected += L"\\u0001\\\"\\\\x\U0001F600";
    }
    RecordingWideStream stream;
    EncodingAdapter<WriterAdapter<RecordingWideStream>, W2WJsonEncoding>::write(
        &stream, text.data(), text.size());
    EXPECT_EQ(stream.joined(), expected);
    for (const std::wstring& s : stream.vecAppends) {
        EXPECT_LE(s.size(), 1024u);
    }
    RecordingFile file;
    JsonUtf8Adapter<RecordingFile>::write(&file, String(text));
    EXPECT_EQ(file.joined(), toUtf8(expected).std());
}

TEST(TakesUtf8BytesTest, OnlyTheUtf8AdaptorsOfByteStreamsPassBytesThrough) {
    EXPECT_TRUE(TakesUtf8Bytes<Utf8InPlaceAdaptor>::value);
    EXPECT_TRUE(TakesUtf8Bytes<Utf8Adapter<RecordingFile>>::value);
    // Escaping changes the text, the console gathers it first, and a wide buffer takes no bytes.
    EXPECT_FALSE((TakesUtf8Bytes<EncodingAdapter<Utf8InPlaceAdaptor, W2WXmlEncoding>>::value));
    EXPECT_FALSE(TakesUtf8Bytes<JsonUtf8Adapter<RecordingFile>>::value);
    EXPECT_FALSE(TakesUtf8Bytes<HoopyAdaptor>::value);
    EXPECT_FALSE(TakesUtf8Bytes<WriterAdapter<WideBuffer>>::value);
}

TEST(WriterAdaptersAllocationTest, JsonEncodingAdapterIntoAByteSinkAllocatesNothing) {
    const std::wstring text = mixedText(600) + L"\"\\\n\u0002";
    FixedFile file;
    {
        const test::AllocationScope scope;
        JsonUtf8Adapter<FixedFile>::write(&file, text.data(), text.size());
        EXPECT_EQ(scope.count(), 0u);
    }
    EXPECT_EQ(std::string(file.view()), toUtf8(mixedText(600)).std() + "\\\"\\\\\\n\\u0002");
}

}  // namespace
}  // namespace kiv
