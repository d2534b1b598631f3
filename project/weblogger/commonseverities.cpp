#include "weblogger/commonseverities.h"

namespace kiv {

// Constant-initialised, so they are usable from any other unit's static initialiser.
constinit const wchar_t* const arrLogTypesXml[LogSeverity::kMsgTypeCount] = {
    L"incident_error", L"error", L"warning", L"information", L"trace"};

}  // namespace kiv
