// weblog's command line: one description per command, read by one parser, so that every
// command answers --help and reports a usage error the same way.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace weblog {

// Exit statuses of every command.
constexpr int kExitFine = 0;
constexpr int kExitProblems = 1;
constexpr int kExitUsage = 2;

struct OptionDescription {
    // Without the leading "--".
    const char* pszName;
    // Shown in the usage line after the option: "ID", "name=value".
    const char* pszValue;
    const char* pszHelp;
};

struct CommandDescription {
    const char* pszName;
    // The arguments after the command's name, as the usage line shows them.
    const char* pszArguments;
    const char* pszSummary;
    // Further paragraphs of --help.
    const char* pszDetails;
    std::vector<OptionDescription> vecOptions;
    std::size_t nMinArguments;
    // Arguments beyond this are a usage error; kAnyNumber for none.
    std::size_t nMaxArguments;
    static constexpr std::size_t kAnyNumber = static_cast<std::size_t>(-1);
};

struct Arguments {
    std::vector<std::string> vecPositional;
    // Each option's values in the order given; an option may be repeated.
    std::map<std::string, std::vector<std::string>> mapOptions;

    const std::string* last(const std::string& option) const;
};

// Parses argv after the command's name. Returns -1 when the command is to run, or the status to
// exit with after --help (kExitFine) or a usage error (kExitUsage, reported on stderr).
int parseArguments(const CommandDescription& description, int argc, char** argv, Arguments& args);

// The command's usage line and help on stdout.
void printHelp(const CommandDescription& description);
// "weblog <command>: what" and the usage line on stderr; returns kExitUsage.
int usageError(const CommandDescription& description, const std::string& what);

}  // namespace weblog
