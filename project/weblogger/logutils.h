// Small services of the logger for the server.
#pragma once

#include <vector>

#include "zq/webkeel/string.h"

namespace kiv {

class LoggerUtilities {
public:
    // Appends the full name of every log source the process knows, parents before children.
    static void getAllLogSourceNames(std::vector<String>& names);
};

}  // namespace kiv
