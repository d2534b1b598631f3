#include "weblogger/loggermessages.h"

namespace kiv {

const wchar_t* const kLoggerMessagesFile = L"loggermessages.xml";

namespace {
// Registered before any message is used, so translations are found from the start.
const bool g_bMessageFilesRegistered = [] {
    MessageFilesRegistry::getInstance().registerMessageFiles(String(kLoggerMessagesFile));
    return true;
}();
}  // namespace

const ExternalMessage kmsgFormatNotFound(
    L"kmsgFormatNotFound", ExternalMessage::kNone,
    "<WebMessage name=\"kmsgFormatNotFound\" xmlns:kivm=\"urn:kiv:webmessages\"><TEXT>Failed to "
    "init log writer. The following log format is not found: <kivm:param insert=\"1\"/>"
    "</TEXT></WebMessage>");

LogConfigurationException::LogConfigurationException(const GDValue& message) : Exception(message) {}

LogFormatNotFound::LogFormatNotFound(const String& formatName)
    : LogConfigurationException(
          ParamMessage(kmsgFormatNotFound).setInsert(1, GDString(formatName))),
      m_strFormatName(formatName) {}

}  // namespace kiv
