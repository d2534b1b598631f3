// The in-house assertion facility.
//
// Internal consistency checks report the literal text of the failed condition, the source file
// and the line, and then return: every call site has a defined fallback and goes on. A logging
// library that aborted the web server because one of its own invariants broke would turn a
// log-quality problem into an outage, so no build stops here; a handler may be installed by a
// host that prefers to abort.
//
// Tests capture reports with AssertionCapture and assert on the exact condition text.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kiv {

enum class AssertionType { kAssert, kFailure };

struct AssertionReport {
    AssertionType type;
    const char* expression;
    const char* file;
    unsigned line;
};

using AssertionHandler = void (*)(const AssertionReport&);

// Reports one failed check to the installed handler (by default: one line on stderr).
// Never throws.
void reportAssertion(AssertionType type, const char* expression, const char* file,
                     unsigned line) noexcept;

// Installs a process-wide handler and returns the previous one; null restores the default.
AssertionHandler setAssertionHandler(AssertionHandler handler) noexcept;

// Records every assertion reported, from any thread, while it is alive. Captures nest: the
// innermost one records and the outer ones see nothing until it ends.
class AssertionCapture {
public:
    AssertionCapture();
    ~AssertionCapture();
    AssertionCapture(const AssertionCapture&) = delete;
    AssertionCapture& operator=(const AssertionCapture&) = delete;

    struct Entry {
        AssertionType type;
        std::string expression;
        std::string file;
        unsigned line;
    };

    std::vector<Entry> entries() const;
    std::vector<std::string> expressions() const;
    std::size_t count() const;
    bool contains(const std::string& expression) const;
    void clear();

private:
    friend void reportAssertion(AssertionType, const char*, const char*, unsigned) noexcept;
    void record(const AssertionReport& report);

    AssertionCapture* m_pPrevious;
    std::vector<Entry> m_vecEntries;
};

}  // namespace kiv

#define ZQ_ASSERT(cond) \
    ((cond) ? (void)0   \
            : ::kiv::reportAssertion(::kiv::AssertionType::kAssert, #cond, __FILE__, __LINE__))

// A check whose report text is fixed by the caller rather than stringified: the text operators
// and tests know stays exact however the condition is spelled or formatted.
#define ZQ_ASSERT_TEXT(cond, text) \
    ((cond) ? (void)0              \
            : ::kiv::reportAssertion(::kiv::AssertionType::kAssert, text, __FILE__, __LINE__))

// The same, reported under a fixed unit name instead of the build path of the file.
#define ZQ_ASSERT_TEXT_IN(cond, text, unit) \
    ((cond) ? (void)0 : ::kiv::reportAssertion(::kiv::AssertionType::kAssert, text, unit, __LINE__))

// An unconditional failure report, for branches that must never be reached.
#define ZQ_ASSERT_FAILURE(text) \
    ::kiv::reportAssertion(::kiv::AssertionType::kFailure, text, __FILE__, __LINE__)
