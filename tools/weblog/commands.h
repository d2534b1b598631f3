// The commands of weblog, one file each, and the little they share.
#pragma once

#include <string>

#include "options.h"
#include "weblogger/configreview.h"
#include "zq/webkeel/string.h"

namespace weblog {

extern const CommandDescription kCheckCommand;
extern const CommandDescription kThresholdsCommand;
extern const CommandDescription kExplainCommand;
extern const CommandDescription kRenderCommand;
extern const CommandDescription kCatCommand;

int runCheck(const Arguments& args);
int runThresholds(const Arguments& args);
int runExplain(const Arguments& args);
int runRender(const Arguments& args);
int runCat(const Arguments& args);

std::string utf8(const kiv::String& text);

// "file:line" of an element of the document under review.
std::string placeOf(const kiv::ConfigReviewer& reviewer, const kiv::XmlElement& element);

// The --var option the configuration commands share.
extern const OptionDescription kVarOption;

// The variables of every --var name=value; false (a usage error reported) for one without "=".
bool readVariables(const CommandDescription& description, const Arguments& args,
                   kiv::ReplacementMap& vars);

// Whether the configuration file can be read; when not, says so on stderr.
bool configReadable(const CommandDescription& description, const std::string& file);

// A command that needs the document's thresholds or writers stops at a document the loader
// would refuse: its problems are printed as check prints them, and false returned.
bool loadableOrReport(kiv::ConfigReviewer& reviewer);

// "file:line:column: error: text" (or "file: error: text" without a place).
std::string formatFinding(const kiv::ConfigFinding& finding);

}  // namespace weblog
