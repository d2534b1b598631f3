#include "weblogger/commonseverities.h"

namespace kiv {

// Constant-initialised, so they are usable from any other unit's static initialiser.
constinit const wchar_t* const arrLogTypesXml[LogSeverity::kMsgTypeCount] = {
    L"incident_error", L"error", L"warning", L"information", L"trace"};

constinit const LogSeverity kSevErrorCorruption{LogSeverity::SV_INCIDENT_ERROR, 1};
constinit const LogSeverity kSevErrorFatal{LogSeverity::SV_ERROR, 1};
constinit const LogSeverity kSevErrorUnknown{LogSeverity::SV_ERROR, 5};
constinit const LogSeverity kSevErrorCritical{LogSeverity::SV_ERROR, 10};
constinit const LogSeverity kSevError{LogSeverity::SV_ERROR, 16};
constinit const LogSeverity kSevErrorUser{LogSeverity::SV_ERROR, 32};
constinit const LogSeverity kSevErrorMinor{LogSeverity::SV_ERROR, 32};
constinit const LogSeverity kSevWarningCritical{LogSeverity::SV_WARNING, 1};
constinit const LogSeverity kSevWarning{LogSeverity::SV_WARNING, 16};
constinit const LogSeverity kSevWarningMinor{LogSeverity::SV_WARNING, 32};
constinit const LogSeverity kSevSecurityFatal{LogSeverity::SV_INFORMATION, 2};
constinit const LogSeverity kSevSecurityCritical{LogSeverity::SV_INFORMATION, 4};
constinit const LogSeverity kSevSecurity{LogSeverity::SV_INFORMATION, 8};
constinit const LogSeverity kSevSecurityMinor{LogSeverity::SV_INFORMATION, 20};
constinit const LogSeverity kSevInfoCritical{LogSeverity::SV_INFORMATION, 1};
constinit const LogSeverity kSevInfo{LogSeverity::SV_INFORMATION, 20};
constinit const LogSeverity kSevInfoMinor{LogSeverity::SV_TRACE, 1};
constinit const LogSeverity kSevTraceFine{LogSeverity::SV_TRACE, 1};
constinit const LogSeverity kSevTraceFiner{LogSeverity::SV_TRACE, 16};
constinit const LogSeverity kSevTraceFinest{LogSeverity::SV_TRACE, 32};

}  // namespace kiv
