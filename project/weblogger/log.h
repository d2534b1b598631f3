// One-line log calls for server code.
//
//   WEBLOG_INFO("request %1 handled in %2 ms by worker %3", id, millis, worker);
//   WEBLOG(kiv::kSevSecurity, "login refused for %1", user);
//   WEBLOG_TO(logger, kiv::kSevTraceFine, "parsed %1 headers", nHeaders);
//
// A call names the severity, a template in which "%1".."%8" stand for the inserts that follow
// it ("%%" gives "%"), and the inserts. It logs through the calling thread's logger (WEBLOG_TO:
// through the logger given, for code that holds it already) under the thread's current source,
// with the call's own file and line. It is the two-step call that server code used to write out
// by hand, and does exactly what that did:
//
//   if (logger.calcEnabledWriters(kiv::kSevInfo)) {
//       const kiv::FileLocation here(L"server.cpp", __LINE__);
//       logger.logToEnabledWriters3(kiv::kSevInfo, tmpl, kiv::GDUInteger64(id),
//                                   kiv::GDInteger64(millis),
//                                   kiv::GDString(kiv::fromUtf8(worker)), &here);
//   }
//
// Why macros: three things a function cannot do.
//   - Leave the inserts unevaluated. A function's arguments are computed before it runs, so a
//     filtered-out call would still pay for describe(request). Here the inserts are written
//     inside `if (logger.calcEnabledWriters(severity))`, which is the first thing a call does and
//     all that a filtered-out call does: no location, template or insert is made.
//   - Know the caller's __FILE__ and __LINE__.
//   - Make the template wide at compile time. The literal's UTF-8 bytes (escapes included:
//     "\xC3\xB6" is one "ö") are decoded by a consteval function into a constant of the call
//     site, so the template costs nothing when the program runs: no conversion, no static to
//     initialise on first use or to destroy at exit while other threads may still be logging.
//     Its fingerprint is computed with it (GDLiteralText), so the file writer knows its compiled
//     form of the template from the text's address and fingerprint, without comparing texts.
//     That is also why the template must be a string literal, narrow (UTF-8) or wide; anything
//     else does not compile. A template that is not a literal (a catalogue message, a text made
//     at run time) goes through TmLogger::logToEnabledWriters1..8.
// Everything else is ordinary C++ below: inline templates that give each insert a value on the
// caller's stack for the call only, which the message refers to without copying.
//
// Inserts, none of which touches the heap:
//   - narrow text, taken as UTF-8: const char* (null shows nothing), char arrays, std::string,
//     std::string_view, NString. The value refers to the caller's bytes and decodes them
//     straight into a writer's buffer as it renders (GDUtf8StringRef): no wide copy is made;
//   - wide text: const wchar_t*, wide arrays, std::wstring, std::wstring_view, String;
//   - integers of every width: signed ones as GDInteger64, unsigned ones as GDUInteger64;
//   - float and double as their shortest exact decimal text (GDFloat; long double is shown at
//     double precision);
//   - any GDValue (a GDString, a message, ...), by reference as it is.
// Refused at compile time, because what they would show is a guess: bool (1 or "true"?), single
// characters (char, wchar_t, char8_t...: a letter or a number?), enumerations (a name or a
// number?), nullptr, and pointers to anything but text. Convert them explicitly. At most eight
// inserts.
//
// Each macro is one statement (safe after an `if` without braces), and evaluates its logger and
// severity expressions once. WEBLOG and the severity macros look the thread's logger up on every
// call (TmLogger::getLogger, a call into the library and a thread-local load); a loop that holds
// the logger already saves that with WEBLOG_TO.
// Logging never fails the caller: writers' failures stop at the logger's entry points.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

#include "weblogger/commonseverities.h"
#include "weblogger/loggerstate.h"
#include "weblogger/tmlogger.h"
#include "zq/webkeel/gdvalue.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/message.h"

namespace kiv::logger_details {

template <class T>
inline constexpr bool kIsCharacterType =
    std::is_same_v<T, char> || std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> ||
    std::is_same_v<T, char16_t> || std::is_same_v<T, char32_t>;

// For static_assert in a branch that must fail only when it is taken.
template <class T>
inline constexpr bool kRefusedInsert = sizeof(T) == 0;

// The value that stands for one insert: the insert itself when it is a value already, otherwise
// a small value made on the caller's stack that lives to the end of the log call.
template <class T>
decltype(auto) makeInsertValue(const T& insert) noexcept {
    using Plain = std::remove_cv_t<T>;
    if constexpr (std::is_base_of_v<GDValue, Plain>) {
        return static_cast<const GDValue&>(insert);
    } else if constexpr (std::is_same_v<Plain, bool>) {
        static_assert(kRefusedInsert<T>, "a bool insert: pass a text or a number explicitly");
    } else if constexpr (kIsCharacterType<Plain>) {
        static_assert(kRefusedInsert<T>,
                      "a single-character insert: pass a text or a number explicitly");
    } else if constexpr (std::is_null_pointer_v<Plain>) {
        static_assert(kRefusedInsert<T>, "a nullptr insert: pass a typed pointer or a text");
    } else if constexpr (std::is_enum_v<Plain>) {
        static_assert(kRefusedInsert<T>, "an enumeration insert: pass a text or a number");
    } else if constexpr (std::is_integral_v<Plain> && std::is_signed_v<Plain>) {
        return GDInteger64(static_cast<std::int64_t>(insert));
    } else if constexpr (std::is_integral_v<Plain>) {
        return GDUInteger64(static_cast<std::uint64_t>(insert));
    } else if constexpr (std::is_same_v<Plain, float>) {
        return GDFloat(insert);
    } else if constexpr (std::is_floating_point_v<Plain>) {
        return GDFloat(static_cast<double>(insert));
    } else if constexpr (std::is_pointer_v<Plain>) {
        using Pointee = std::remove_cv_t<std::remove_pointer_t<Plain>>;
        if constexpr (std::is_same_v<Pointee, char>) {
            return GDUtf8StringRef(static_cast<const char*>(insert));
        } else if constexpr (std::is_same_v<Pointee, wchar_t>) {
            return GDStringRef(static_cast<const wchar_t*>(insert));
        } else {
            static_assert(kRefusedInsert<T>, "a pointer insert that is not text");
        }
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        return GDUtf8StringRef(static_cast<std::string_view>(insert));
    } else if constexpr (std::is_convertible_v<const T&, std::wstring_view>) {
        const std::wstring_view text = insert;
        return GDStringRef(text.data(), text.size());
    } else {
        static_assert(kRefusedInsert<T>, "an insert that is neither text, a number nor a GDValue");
    }
}

// A call site's template, decoded when the program is compiled.
template <std::size_t N>
struct TemplateText {
    wchar_t m_arrText[N] = {};
    std::size_t m_nChars = 0;
    constexpr std::wstring_view view() const noexcept {
        return std::wstring_view(m_arrText, m_nChars);
    }
};

// What a call site knows when the program is compiled, handed to the rest of the call as one
// pointer: the template's text and its literal fingerprint (so that the file writer finds its
// compiled template without comparing the text), the file and the line.
struct CallSite {
    std::wstring_view m_templateText;
    std::uint64_t m_nFingerprint;
    const wchar_t* m_pwszFile;
    std::uint32_t m_nLine;
};

// A narrow literal is UTF-8, decoded as fromUtf8 decodes text at run time (a malformed sequence
// gives U+FFFD); its N - 1 bytes give at most N - 1 characters.
template <std::size_t N>
consteval TemplateText<N> makeTemplateText(const char (&arrUtf8)[N]) {
    TemplateText<N> text;
    std::string_view bytes(arrUtf8, N - 1);
    while (!bytes.empty()) {
        std::size_t nUsed = 0;
        text.m_arrText[text.m_nChars++] = decodeUtf8(bytes, nUsed);
        bytes.remove_prefix(nUsed);
    }
    return text;
}

template <std::size_t N>
consteval TemplateText<N> makeTemplateText(const wchar_t (&arrText)[N]) {
    TemplateText<N> text;
    for (std::size_t i = 0; i + 1 < N; ++i) {
        text.m_arrText[text.m_nChars++] = arrText[i];
    }
    return text;
}

// Through the numbered calls where there are inserts: each takes the writers' delivery in whole,
// so a flushed line's write(2) has one frame fewer open around it than through
// logToEnabledWriters, which the numbered calls are otherwise the same as.
template <class... Values>
void logValues(TmLogger& logger, const LogSeverity& severity, const GDValue& templateValue,
               const FileLocation& location, const Values&... values) {
    constexpr std::size_t nValues = sizeof...(Values);
    if constexpr (nValues == 1) {
        logger.logToEnabledWriters1(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 2) {
        logger.logToEnabledWriters2(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 3) {
        logger.logToEnabledWriters3(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 4) {
        logger.logToEnabledWriters4(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 5) {
        logger.logToEnabledWriters5(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 6) {
        logger.logToEnabledWriters6(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 7) {
        logger.logToEnabledWriters7(severity, templateValue, values..., &location);
    } else if constexpr (nValues == 8) {
        logger.logToEnabledWriters8(severity, templateValue, values..., &location);
    } else {
        logger.logToEnabledWriters(
            severity, ReferentialParameterizedMessage(templateValue, values...), &location);
    }
}

// How an insert reaches the out-of-line rest of a call: a number or a pointer by value, anything
// else by reference, uncopied. Taken by reference, a caller's loop counter would have its address
// passed on, and the compiler would keep it in memory across the whole loop, filtered-out calls
// included, for the sake of the rare call that is accepted.
template <class T>
using InsertParam =
    std::conditional_t<std::is_arithmetic_v<T> || std::is_pointer_v<T>, T, const T&>;

// The rest of a call that some writer accepts (the macros below have asked the logger).
template <class... Inserts>
void logAcceptedInserts(TmLogger& logger, const LogSeverity& severity, const CallSite& site,
                        InsertParam<Inserts>... inserts) {
    static_assert(sizeof...(Inserts) <= ReferentialParameterizedMessage::kMaxReferentialInserts,
                  "a log call takes at most eight inserts");
    const GDLiteralText templateValue(site.m_templateText, site.m_nFingerprint);
    const FileLocation location(site.m_pwszFile, site.m_nLine);
    logValues(logger, severity, templateValue, location, makeInsertValue(inserts)...);
}

// Inline, so that the numbers are read where the call is written and only their values travel.
template <class... Inserts>
[[gnu::always_inline]] inline void logAccepted(TmLogger& logger, const LogSeverity& severity,
                                               const CallSite& site, const Inserts&... inserts) {
    logAcceptedInserts<Inserts...>(logger, severity, site, inserts...);
}

}  // namespace kiv::logger_details

// Logs through the logger given; the template must be a string literal ("" tmpl refuses
// anything else).
#define WEBLOG_TO(logger, severity, tmpl, ...)                                             \
    do {                                                                                   \
        ::kiv::TmLogger& weblogLogger_ = (logger);                                         \
        const ::kiv::LogSeverity& weblogSeverity_ = (severity);                            \
        if (weblogLogger_.calcEnabledWriters(weblogSeverity_)) {                           \
            static constexpr auto weblogTemplate_ =                                        \
                ::kiv::logger_details::makeTemplateText("" tmpl);                          \
            static constexpr ::kiv::logger_details::CallSite weblogSite_{                  \
                weblogTemplate_.view(),                                                    \
                ::kiv::GDLiteralText::fingerprintOf(weblogTemplate_.view()), L"" __FILE__, \
                __LINE__};                                                                 \
            ::kiv::logger_details::logAccepted(weblogLogger_, weblogSeverity_,             \
                                               weblogSite_ __VA_OPT__(, ) __VA_ARGS__);    \
        }                                                                                  \
    } while (false)

// Logs through the calling thread's logger, at any severity.
#define WEBLOG(severity, tmpl, ...) \
    WEBLOG_TO(::kiv::TmLogger::getLogger(), severity, tmpl __VA_OPT__(, ) __VA_ARGS__)

// One macro per predefined severity, named after it (kSevErrorCorruption: WEBLOG_ERROR_CORRUPTION).
#define WEBLOG_ERROR_CORRUPTION(...) WEBLOG(::kiv::kSevErrorCorruption, __VA_ARGS__)
#define WEBLOG_ERROR_FATAL(...) WEBLOG(::kiv::kSevErrorFatal, __VA_ARGS__)
#define WEBLOG_ERROR_UNKNOWN(...) WEBLOG(::kiv::kSevErrorUnknown, __VA_ARGS__)
#define WEBLOG_ERROR_CRITICAL(...) WEBLOG(::kiv::kSevErrorCritical, __VA_ARGS__)
#define WEBLOG_ERROR(...) WEBLOG(::kiv::kSevError, __VA_ARGS__)
#define WEBLOG_ERROR_USER(...) WEBLOG(::kiv::kSevErrorUser, __VA_ARGS__)
#define WEBLOG_ERROR_MINOR(...) WEBLOG(::kiv::kSevErrorMinor, __VA_ARGS__)
#define WEBLOG_WARNING_CRITICAL(...) WEBLOG(::kiv::kSevWarningCritical, __VA_ARGS__)
#define WEBLOG_WARNING(...) WEBLOG(::kiv::kSevWarning, __VA_ARGS__)
#define WEBLOG_WARNING_MINOR(...) WEBLOG(::kiv::kSevWarningMinor, __VA_ARGS__)
#define WEBLOG_SECURITY_FATAL(...) WEBLOG(::kiv::kSevSecurityFatal, __VA_ARGS__)
#define WEBLOG_SECURITY_CRITICAL(...) WEBLOG(::kiv::kSevSecurityCritical, __VA_ARGS__)
#define WEBLOG_SECURITY(...) WEBLOG(::kiv::kSevSecurity, __VA_ARGS__)
#define WEBLOG_SECURITY_MINOR(...) WEBLOG(::kiv::kSevSecurityMinor, __VA_ARGS__)
#define WEBLOG_INFO_CRITICAL(...) WEBLOG(::kiv::kSevInfoCritical, __VA_ARGS__)
#define WEBLOG_INFO(...) WEBLOG(::kiv::kSevInfo, __VA_ARGS__)
#define WEBLOG_INFO_MINOR(...) WEBLOG(::kiv::kSevInfoMinor, __VA_ARGS__)
#define WEBLOG_TRACE_FINE(...) WEBLOG(::kiv::kSevTraceFine, __VA_ARGS__)
#define WEBLOG_TRACE_FINER(...) WEBLOG(::kiv::kSevTraceFiner, __VA_ARGS__)
#define WEBLOG_TRACE_FINEST(...) WEBLOG(::kiv::kSevTraceFinest, __VA_ARGS__)
