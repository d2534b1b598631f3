#include "weblogger/internal/messagewriter.h"

#include "weblogger/internal/messagewriter_impl.h"

#include <atomic>

#include "weblogger/internal/logtimezone.h"
#include "zq/webkeel/prettyfilename.h"
#include "zq/webthreadstorage/threadstatic.h"

namespace kiv::logger_details {
namespace {

void destroyScratch(RenderScratch* pScratch) {
    if (RenderScratch::t_pScratch == pScratch) {
        RenderScratch::t_pScratch = nullptr;
    }
    delete pScratch;
}

// Made by the first rendering; destroyed with the library's statics, which frees the
// destroying thread's scratch (no thread renders by then: the library's shutdown refuses log
// calls before its statics go). Every other thread's goes when the thread ends.
ThreadSpecificStatic<RenderScratch>& scratchSlot() {
    static ThreadSpecificStatic<RenderScratch> s_slot(&destroyScratch);
    return s_slot;
}

}  // namespace

std::uint64_t nextMessageWriterSerial() noexcept {
    // From 1: a line-head key with serial 0 matches no writer.
    static std::atomic<std::uint64_t> s_nNext{1};
    return s_nNext.fetch_add(1, std::memory_order_relaxed);
}

RenderScratch& RenderScratch::makeForThisThread() {
    RenderScratch& scratch = scratchSlot().getOrCreate();
    t_pScratch = &scratch;
    return scratch;
}

TwoFormText TimeStampCache::refresh(Entry& entry, std::time_t now, bool bIso8601) {
    // The generation is read before the zone: a zone set in between leaves the entry marked
    // stale, and the next message renders it again.
    const std::uint64_t nGeneration = LoggingTimeZone::getGeneration();
    // The ISO stamp fits in 50 characters.
    entry.nLength = LoggingTimeZone::formatTimeStamp(now, bIso8601, entry.arrText,
                                                     bIso8601 ? 50 : std::size(entry.arrText));
    // Four bytes a character always fit.
    T2NEncodingUTF8<wchar_t>::encode(entry.arrText, entry.nLength, entry.arrUtf8,
                                     std::size(entry.arrUtf8), entry.nUtf8Length);
    entry.tSecond = now;
    entry.nZoneGeneration = nGeneration;
    return entry.text();
}

std::size_t RenderingHelpers::toDecimal(std::uint64_t n, wchar_t (&arrDigits)[24]) noexcept {
    wchar_t arrReversed[24];
    std::size_t nCount = 0;
    do {
        arrReversed[nCount++] = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n != 0);
    for (std::size_t i = 0; i < nCount; ++i) {
        arrDigits[i] = arrReversed[nCount - 1 - i];
    }
    return nCount;
}

std::wstring_view RenderingHelpers::prettyPath(const wchar_t* pwszFile) noexcept {
    return asPrettyFilenameRefString(pwszFile);
}

std::wstring_view RenderingHelpers::fileNameOnly(const wchar_t* pwszFile) noexcept {
    return asPrettyFilename(pwszFile, kJustFileName);
}

}  // namespace kiv::logger_details

namespace kiv {

template class MessageWriterFactory<RecordBuffer, Utf8InPlaceAdaptor>;
template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor, Utf8InPlaceAdaptor>;
template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor,
                                 EncodingAdapter<Utf8InPlaceAdaptor, W2WXmlEncoding>>;
template class MessageWriterFactory<CoutStream, HoopyAdaptor>;
template class MessageWriterImpl<CoutStream, HoopyAdaptor, HoopyAdaptor>;
template class MessageWriterImpl<CoutStream, HoopyAdaptor,
                                 EncodingAdapter<HoopyAdaptor, W2WXmlEncoding>>;
template class MessageWriterFactory<WideTextBuffer, WriterAdapter<WideTextBuffer>>;
template class MessageWriterImpl<WideTextBuffer, WriterAdapter<WideTextBuffer>,
                                 WriterAdapter<WideTextBuffer>>;
template class MessageWriterImpl<WideTextBuffer, WriterAdapter<WideTextBuffer>,
                                 EncodingAdapter<WriterAdapter<WideTextBuffer>, W2WXmlEncoding>>;
template class MessageWriterImpl<RecordBuffer, Utf8InPlaceAdaptor,
                                 EncodingAdapter<Utf8InPlaceAdaptor, W2WJsonEncoding>>;
template class MessageWriterImpl<CoutStream, HoopyAdaptor,
                                 EncodingAdapter<HoopyAdaptor, W2WJsonEncoding>>;
template class MessageWriterImpl<WideTextBuffer, WriterAdapter<WideTextBuffer>,
                                 EncodingAdapter<WriterAdapter<WideTextBuffer>, W2WJsonEncoding>>;

}  // namespace kiv
