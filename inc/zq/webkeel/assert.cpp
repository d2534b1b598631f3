#include "zq/webkeel/assert.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <mutex>

namespace kiv {
namespace {

std::mutex& captureMutex() {
    static std::mutex s_mutex;
    return s_mutex;
}

AssertionCapture* g_pCapture = nullptr;  // guarded by captureMutex()
std::atomic<AssertionHandler> g_handler{nullptr};

void defaultHandler(const AssertionReport& report) {
    std::fprintf(stderr, "%s: \"%s\", file %s, line %u\n",
                 report.type == AssertionType::kAssert ? "Assertion failed" : "Failure",
                 report.expression, report.file, report.line);
}

}  // namespace

void reportAssertion(AssertionType type, const char* expression, const char* file,
                     unsigned line) noexcept {
    const AssertionReport report{type, expression, file, line};
    try {
        {
            std::lock_guard<std::mutex> lock(captureMutex());
            if (g_pCapture != nullptr) {
                g_pCapture->record(report);
                return;
            }
        }
        AssertionHandler handler = g_handler.load(std::memory_order_acquire);
        (handler != nullptr ? handler : defaultHandler)(report);
    } catch (...) {
        // A report must never disturb the code that made it.
    }
}

AssertionHandler setAssertionHandler(AssertionHandler handler) noexcept {
    return g_handler.exchange(handler, std::memory_order_acq_rel);
}

AssertionCapture::AssertionCapture() {
    std::lock_guard<std::mutex> lock(captureMutex());
    m_pPrevious = g_pCapture;
    g_pCapture = this;
}

AssertionCapture::~AssertionCapture() {
    std::lock_guard<std::mutex> lock(captureMutex());
    g_pCapture = m_pPrevious;
}

void AssertionCapture::record(const AssertionReport& report) {
    m_vecEntries.push_back(Entry{report.type, report.expression, report.file, report.line});
}

std::vector<AssertionCapture::Entry> AssertionCapture::entries() const {
    std::lock_guard<std::mutex> lock(captureMutex());
    return m_vecEntries;
}

std::vector<std::string> AssertionCapture::expressions() const {
    std::lock_guard<std::mutex> lock(captureMutex());
    std::vector<std::string> result;
    for (const Entry& entry : m_vecEntries) {
        result.push_back(entry.expression);
    }
    return result;
}

std::size_t AssertionCapture::count() const {
    std::lock_guard<std::mutex> lock(captureMutex());
    return m_vecEntries.size();
}

bool AssertionCapture::contains(const std::string& expression) const {
    std::lock_guard<std::mutex> lock(captureMutex());
    return std::any_of(m_vecEntries.begin(), m_vecEntries.end(),
                       [&](const Entry& entry) { return entry.expression == expression; });
}

void AssertionCapture::clear() {
    std::lock_guard<std::mutex> lock(captureMutex());
    m_vecEntries.clear();
}

}  // namespace kiv
