// Message severities: a message type (one of five) and an importance within it.
//
// Smaller importance numbers are more important; a message passes a threshold when the
// threshold is greater than or equal to its importance. The predefined severities below are the
// vocabulary of the whole server; their irregularities are deliberate and kept: kSevErrorUser
// and kSevErrorMinor share importance 32, the four security severities are information
// messages, and kSevInfoMinor is a trace message of importance 1 (so the trace threshold, not
// the information one, governs it).
#pragma once

#include <cstdint>

namespace kiv {

class LogSeverity {
public:
    // The numeric value is also the index into every LogLevels record.
    enum MsgType {
        SV_INCIDENT_ERROR = 0,
        SV_ERROR = 1,
        SV_WARNING = 2,
        SV_INFORMATION = 3,
        SV_TRACE = 4
    };
    static constexpr int kMsgTypeCount = 5;

    constexpr LogSeverity(MsgType nType, std::uint64_t dwImportance) noexcept
        : m_nType(nType), m_dwImportance(dwImportance) {}

    constexpr MsgType getType() const noexcept { return m_nType; }
    constexpr std::uint64_t getImportance() const noexcept { return m_dwImportance; }

    MsgType m_nType;
    std::uint64_t m_dwImportance;
};

// The configuration words naming the five thresholds, indexed by MsgType:
// "incident_error", "error", "warning", "information", "trace".
extern const wchar_t* const arrLogTypesXml[LogSeverity::kMsgTypeCount];

// Constants in the header, not objects of the library: a guard that names one
// (`calcEnabledWriters(kSevTraceFine)`, the WEBLOG macros) compares the source's summary against
// a type and importance the compiler knows, instead of loading both from the library on every
// call, filtered-out ones included.

inline constexpr LogSeverity kSevErrorCorruption{LogSeverity::SV_INCIDENT_ERROR, 1};
inline constexpr LogSeverity kSevErrorFatal{LogSeverity::SV_ERROR, 1};
inline constexpr LogSeverity kSevErrorUnknown{LogSeverity::SV_ERROR, 5};
inline constexpr LogSeverity kSevErrorCritical{LogSeverity::SV_ERROR, 10};
inline constexpr LogSeverity kSevError{LogSeverity::SV_ERROR, 16};
inline constexpr LogSeverity kSevErrorUser{LogSeverity::SV_ERROR, 32};
inline constexpr LogSeverity kSevErrorMinor{LogSeverity::SV_ERROR, 32};
inline constexpr LogSeverity kSevWarningCritical{LogSeverity::SV_WARNING, 1};
inline constexpr LogSeverity kSevWarning{LogSeverity::SV_WARNING, 16};
inline constexpr LogSeverity kSevWarningMinor{LogSeverity::SV_WARNING, 32};
inline constexpr LogSeverity kSevSecurityFatal{LogSeverity::SV_INFORMATION, 2};
inline constexpr LogSeverity kSevSecurityCritical{LogSeverity::SV_INFORMATION, 4};
inline constexpr LogSeverity kSevSecurity{LogSeverity::SV_INFORMATION, 8};
inline constexpr LogSeverity kSevSecurityMinor{LogSeverity::SV_INFORMATION, 20};
inline constexpr LogSeverity kSevInfoCritical{LogSeverity::SV_INFORMATION, 1};
inline constexpr LogSeverity kSevInfo{LogSeverity::SV_INFORMATION, 20};
inline constexpr LogSeverity kSevInfoMinor{LogSeverity::SV_TRACE, 1};
inline constexpr LogSeverity kSevTraceFine{LogSeverity::SV_TRACE, 1};
inline constexpr LogSeverity kSevTraceFiner{LogSeverity::SV_TRACE, 16};
inline constexpr LogSeverity kSevTraceFinest{LogSeverity::SV_TRACE, 32};

}  // namespace kiv
