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

extern const LogSeverity kSevErrorCorruption;
extern const LogSeverity kSevErrorFatal;
extern const LogSeverity kSevErrorUnknown;
extern const LogSeverity kSevErrorCritical;
extern const LogSeverity kSevError;
extern const LogSeverity kSevErrorUser;
extern const LogSeverity kSevErrorMinor;
extern const LogSeverity kSevWarningCritical;
extern const LogSeverity kSevWarning;
extern const LogSeverity kSevWarningMinor;
extern const LogSeverity kSevSecurityFatal;
extern const LogSeverity kSevSecurityCritical;
extern const LogSeverity kSevSecurity;
extern const LogSeverity kSevSecurityMinor;
extern const LogSeverity kSevInfoCritical;
extern const LogSeverity kSevInfo;
extern const LogSeverity kSevInfoMinor;
extern const LogSeverity kSevTraceFine;
extern const LogSeverity kSevTraceFiner;
extern const LogSeverity kSevTraceFinest;

}  // namespace kiv
