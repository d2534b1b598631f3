#include "weblogger/logutils.h"

#include "weblogger/logsource.h"

namespace kiv {

void LoggerUtilities::getAllLogSourceNames(std::vector<String>& names) {
    LogSourcesMan::getLogSourcesMan().getAllLogSourceNames(names);
}

}  // namespace kiv
