#include "weblogger/internal/fatalsignalflush.h"

#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "weblogger/crashflush.h"
#include "weblogger/internal/filelogwriter.h"
#include "weblogger/internal/livefilewriters.h"
#include "weblogger/loggermessages.h"
#include "zq/webkeel/stringbuffer.h"
#include "zq/webkeel/transcode.h"

namespace kiv::logger_details {
namespace {

struct FatalSignal {
    int nSignal;
    const wchar_t* pszName;
};
const FatalSignal kFatalSignals[] = {
    {SIGSEGV, L"SIGSEGV"}, {SIGBUS, L"SIGBUS"},   {SIGFPE, L"SIGFPE"},
    {SIGILL, L"SIGILL"},   {SIGABRT, L"SIGABRT"},
};
constexpr unsigned kSignalCount = sizeof(kFatalSignals) / sizeof(kFatalSignals[0]);

// A rendered text: bytes and their count, written as they are.
template <unsigned kSize>
struct Rendered {
    char arrBytes[kSize];
    unsigned nBytes;
};
// What the handler writes for one signal: the line for the files, and the standard-error line
// about skipped writers, split where the count goes.
struct SignalTexts {
    Rendered<1024> line;
    Rendered<512> skippedHead;
    Rendered<512> skippedTail;
};
SignalTexts g_arrBanks[2][kSignalCount];
std::atomic<int> g_nCurrentBank{-1};
std::mutex g_renderMutex;

struct sigaction g_arrPrevious[kSignalCount];
std::atomic<bool> g_bInstalled{false};
std::mutex g_installMutex;
// 0 idle, 1 a thread is flushing, 2 flushed.
std::atomic<int> g_nFlushState{0};
// Per slot of the writers' table, used only by the one flushing thread.
bool g_arrPinned[LiveFileWriters::kCapacity];
FileLogWriter* g_arrLocked[LiveFileWriters::kCapacity];

// A writer that another thread holds is tried again this often, a millisecond apart: enough for
// a message in progress to end, short enough that a writer the crashed thread holds costs
// little.
constexpr int kLockTries = 100;
// How long a second crashing thread waits for the first one's flush.
constexpr int kWaitForFlushMillis = 2000;

// A separator the rendered message cannot contain, marking where the count goes.
constexpr wchar_t kCountMark = L'\x1';

template <unsigned kSize>
void store(Rendered<kSize>& target, std::wstring_view text) {
    const NString bytes = toUtf8(text);
    std::size_t n = bytes.size() < kSize ? bytes.size() : kSize;
    // Never cut a character in two: back up to the start of a UTF-8 sequence.
    while (n > 0 && n < bytes.size() &&
           (static_cast<unsigned char>(bytes.data()[n]) & 0xC0) == 0x80) {
        --n;
    }
    std::memcpy(target.arrBytes, bytes.data(), n);
    target.nBytes = static_cast<unsigned>(n);
}

void render(SignalTexts& texts, const FatalSignal& signal) {
    StringBufferTemplate<511, wchar_t> line;
    ParamMessage(kmsgLogCrashSignal)
        .setInsert(1, GDString(String(signal.pszName)))
        .setInsert(2, GDUInteger64(static_cast<std::uint64_t>(signal.nSignal)))
        .appendText(line);
    line.append(L'\n');
    store(texts.line, line.view());
    if (texts.line.nBytes > 0 && texts.line.arrBytes[texts.line.nBytes - 1] != '\n') {
        // Cut: the line still ends the file with a line break.
        texts.line.arrBytes[texts.line.nBytes - 1] = '\n';
    }

    StringBufferTemplate<511, wchar_t> skipped;
    skipped.append(L"weblogger: ");
    ParamMessage(kmsgLogCrashWritersSkipped)
        .setInsert(1, GDString(String(signal.pszName)))
        .setInsert(2, GDString(String(std::wstring_view(&kCountMark, 1))))
        .appendText(skipped);
    skipped.append(L'\n');
    const std::wstring_view text = skipped.view();
    const std::size_t nMark = text.find(kCountMark);
    if (nMark == std::wstring_view::npos) {
        // A translation without the count: the whole line, then no count.
        store(texts.skippedHead, text);
        store(texts.skippedTail, std::wstring_view());
    } else {
        store(texts.skippedHead, text.substr(0, nMark));
        store(texts.skippedTail, text.substr(nMark + 1));
    }
}

void renderAll() noexcept {
    try {
        const std::lock_guard<std::mutex> lock(g_renderMutex);
        const int nBank = g_nCurrentBank.load(std::memory_order_acquire) == 0 ? 1 : 0;
        for (unsigned i = 0; i < kSignalCount; ++i) {
            render(g_arrBanks[nBank][i], kFatalSignals[i]);
        }
        g_nCurrentBank.store(nBank, std::memory_order_release);
    } catch (...) {
        // Out of memory: the texts rendered before stay in force.
    }
}

// Everything below runs in the signal handler: write(2), nanosleep, atomics, the writers'
// try-locks, and the file's own write-out, which is made of the same.

void writeAll(int nFd, const char* p, std::size_t n) noexcept {
    while (n > 0) {
        const ssize_t nDone = ::write(nFd, p, n);
        if (nDone < 0 && errno == EINTR) {
            continue;
        }
        if (nDone <= 0) {
            return;
        }
        p += nDone;
        n -= static_cast<std::size_t>(nDone);
    }
}

void writeCount(int nFd, unsigned n) noexcept {
    char arrDigits[16];
    int nPos = sizeof(arrDigits);
    do {
        arrDigits[--nPos] = static_cast<char>('0' + n % 10);
        n /= 10;
    } while (n != 0 && nPos > 0);
    writeAll(nFd, arrDigits + nPos, sizeof(arrDigits) - static_cast<std::size_t>(nPos));
}

void sleepOneMillisecond() noexcept {
    struct timespec tWait = {0, 1000000};
    ::nanosleep(&tWait, nullptr);
}

// Writes out every writer it can lock, then releases them all.
void flushWriters(const SignalTexts* pTexts) noexcept {
    const unsigned nSlots = LiveFileWriters::getSlotsInUse();
    unsigned nSkipped = 0;
    for (unsigned nSlot = 0; nSlot < nSlots; ++nSlot) {
        g_arrPinned[nSlot] = false;
        g_arrLocked[nSlot] = nullptr;
        bool bBusy = false;
        FileLogWriter* pWriter = LiveFileWriters::pin(nSlot, bBusy);
        if (pWriter == nullptr) {
            nSkipped += bBusy ? 1 : 0;
            continue;
        }
        g_arrPinned[nSlot] = true;
        WriterSynchro& synchro = pWriter->getWriterSynchro();
        if (!synchro.hasLock()) {
            // Its own thread may be inside it right now; nothing tells.
            ++nSkipped;
            continue;
        }
        for (int nTry = 0; nTry < kLockTries; ++nTry) {
            if (synchro.tryAcquire()) {
                g_arrLocked[nSlot] = pWriter;
                break;
            }
            sleepOneMillisecond();
        }
        if (g_arrLocked[nSlot] == nullptr) {
            ++nSkipped;
            continue;
        }
        LogFile& file = pWriter->getLogFile();
        if (!file.isOpen()) {
            continue;
        }
        // A full buffer another thread is writing after the lock's release must be in the
        // file before anything else goes there.
        bool bSettled = file.trySettle();
        for (int nTry = 1; !bSettled && nTry < kLockTries; ++nTry) {
            sleepOneMillisecond();
            bSettled = file.trySettle();
        }
        if (!bSettled) {
            ++nSkipped;
            continue;
        }
        file.writeOutWholeRecords();
        if (pTexts != nullptr) {
            file.writeDirect(pTexts->line.arrBytes, pTexts->line.nBytes);
        }
    }
    // The locks are held until every file has its signal line, so that no other thread's line
    // comes between a file's last lines and it.
    for (unsigned nSlot = 0; nSlot < nSlots; ++nSlot) {
        if (g_arrLocked[nSlot] != nullptr) {
            g_arrLocked[nSlot]->getWriterSynchro().release();
        }
        if (g_arrPinned[nSlot]) {
            LiveFileWriters::unpin(nSlot);
        }
    }
    if (nSkipped > 0 && pTexts != nullptr) {
        writeAll(STDERR_FILENO, pTexts->skippedHead.arrBytes, pTexts->skippedHead.nBytes);
        writeCount(STDERR_FILENO, nSkipped);
        writeAll(STDERR_FILENO, pTexts->skippedTail.arrBytes, pTexts->skippedTail.nBytes);
    }
}

void onFatalSignal(int nSignal, siginfo_t* pInfo, void*) {
    const int nSavedErrno = errno;
    unsigned nIndex = 0;
    while (nIndex < kSignalCount && kFatalSignals[nIndex].nSignal != nSignal) {
        ++nIndex;
    }
    if (nIndex == kSignalCount) {
        errno = nSavedErrno;
        return;
    }
    int nIdle = 0;
    if (g_nFlushState.compare_exchange_strong(nIdle, 1, std::memory_order_acq_rel)) {
        const int nBank = g_nCurrentBank.load(std::memory_order_acquire);
        flushWriters(nBank >= 0 ? &g_arrBanks[nBank][nIndex] : nullptr);
        g_nFlushState.store(2, std::memory_order_release);
    } else {
        for (int nWaited = 0;
             nWaited < kWaitForFlushMillis && g_nFlushState.load(std::memory_order_acquire) == 1;
             ++nWaited) {
            sleepOneMillisecond();
        }
    }
    // The host's handler, or the default action, takes the signal from here. A signal raised by
    // a faulting instruction comes again by itself when the instruction is retried; one that
    // was sent (abort, kill) is sent again. It is blocked while this handler runs, so it is
    // delivered, to the restored handler, when this one returns.
    ::sigaction(nSignal, &g_arrPrevious[nIndex], nullptr);
    if (pInfo == nullptr || pInfo->si_code <= 0) {
        ::raise(nSignal);
    }
    errno = nSavedErrno;
}

// The calling thread's own alternate signal stack, unmapped when the thread ends if it is still
// the thread's stack then.
class ThreadAltStack {
public:
    ~ThreadAltStack() {
        if (m_pStack == nullptr) {
            return;
        }
        stack_t current;
        if (::sigaltstack(nullptr, &current) == 0 && current.ss_sp == m_pStack &&
            (current.ss_flags & SS_ONSTACK) == 0) {
            stack_t disable = {};
            disable.ss_flags = SS_DISABLE;
            ::sigaltstack(&disable, nullptr);
            ::munmap(m_pStack, m_nSize);
        }
    }

    bool ensure() noexcept {
        stack_t current;
        if (::sigaltstack(nullptr, &current) != 0) {
            return false;
        }
        if ((current.ss_flags & SS_DISABLE) == 0) {
            return true;
        }
        // Room for the handler and for a host handler it hands on to.
        const long nMin = ::sysconf(_SC_MINSIGSTKSZ);
        std::size_t nSize = 64 * 1024;
        if (nMin > 0 && static_cast<std::size_t>(nMin) * 4 > nSize) {
            nSize = static_cast<std::size_t>(nMin) * 4;
        }
        void* pStack =
            ::mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pStack == MAP_FAILED) {
            return false;
        }
        stack_t stack = {};
        stack.ss_sp = pStack;
        stack.ss_size = nSize;
        if (::sigaltstack(&stack, nullptr) != 0) {
            ::munmap(pStack, nSize);
            return false;
        }
        m_pStack = pStack;
        m_nSize = nSize;
        return true;
    }

private:
    void* m_pStack = nullptr;
    std::size_t m_nSize = 0;
};

}  // namespace

bool FatalSignalFlush::install() noexcept {
    giveThreadAltStack();
    if (g_bInstalled.load(std::memory_order_acquire)) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(g_installMutex);
    if (g_bInstalled.load(std::memory_order_acquire)) {
        return true;
    }
    // The texts exist before the first handler does.
    renderAll();
    for (unsigned i = 0; i < kSignalCount; ++i) {
        struct sigaction action = {};
        action.sa_sigaction = &onFatalSignal;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_SIGINFO | SA_ONSTACK;
        if (::sigaction(kFatalSignals[i].nSignal, &action, &g_arrPrevious[i]) != 0) {
            // Put back what was changed: all five or none.
            for (unsigned j = 0; j < i; ++j) {
                ::sigaction(kFatalSignals[j].nSignal, &g_arrPrevious[j], nullptr);
            }
            return false;
        }
    }
    g_bInstalled.store(true, std::memory_order_release);
    return true;
}

bool FatalSignalFlush::isInstalled() noexcept {
    return g_bInstalled.load(std::memory_order_acquire);
}

void FatalSignalFlush::renderTexts() noexcept {
    if (isInstalled()) {
        renderAll();
    }
}

bool FatalSignalFlush::giveThreadAltStack() noexcept {
    static thread_local ThreadAltStack t_stack;
    return t_stack.ensure();
}

FatalSignalFlush::FlushOnCrashSetting FatalSignalFlush::readSetting(
    const XmlElement& logging, const String& strFile, unsigned nLine,
    std::optional<ParamMessage>& problem) {
    static const String kAttrFlushOnCrash(L"flushOnCrash");
    const String& strValue = logging.unchecked_getAttributeValue(kAttrFlushOnCrash.view());
    if (strValue.empty()) {
        return FC_UNSET;
    }
    for (const wchar_t* pszOn : {L"true", L"yes", L"1"}) {
        if (strValue.compareNoCase(std::wstring_view(pszOn)) == 0) {
            return FC_ON;
        }
    }
    for (const wchar_t* pszOff : {L"false", L"no", L"0"}) {
        if (strValue.compareNoCase(std::wstring_view(pszOff)) == 0) {
            return FC_OFF;
        }
    }
    problem.emplace(kmsgLogConfigFlushOnCrashInvalid);
    problem->setInsert(1, boundedInsert(strFile.view()))
        .setInsert(2, GDUInteger64(nLine))
        .setInsert(3, boundedInsert(logging.getName().view()))
        .setInsert(4, boundedInsert(strValue.view()));
    return FC_INVALID;
}

void FatalSignalFlush::applySetting(const XmlElement& logging, const String& strFile,
                                    unsigned nLine) noexcept {
    try {
        std::optional<ParamMessage> problem;
        const FlushOnCrashSetting eSetting = readSetting(logging, strFile, nLine, problem);
        if (eSetting == FC_INVALID) {
            reportLoggerProblem(*problem);
        } else if (eSetting == FC_ON && !isInstalled()) {
            install();
            return;
        }
        renderTexts();
    } catch (...) {
        // Out of memory: the crash flush stays as it was.
    }
}

}  // namespace kiv::logger_details

namespace kiv {

bool installCrashFlush() noexcept {
    return logger_details::FatalSignalFlush::install();
}

bool isCrashFlushInstalled() noexcept {
    return logger_details::FatalSignalFlush::isInstalled();
}

bool prepareThreadForCrashFlush() noexcept {
    return logger_details::FatalSignalFlush::giveThreadAltStack();
}

}  // namespace kiv
