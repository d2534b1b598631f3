#include "options.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace weblog {

namespace {

std::string usageLine(const CommandDescription& description) {
    std::string line =
        std::string("usage: weblog ") + description.pszName + " " + description.pszArguments;
    for (const OptionDescription& option : description.vecOptions) {
        line += std::string(" [--") + option.pszName + " " + option.pszValue + "]";
    }
    return line;
}

const OptionDescription* findOption(const CommandDescription& description, std::string_view name) {
    for (const OptionDescription& option : description.vecOptions) {
        if (name == option.pszName) {
            return &option;
        }
    }
    return nullptr;
}

}  // namespace

const std::string* Arguments::last(const std::string& option) const {
    const auto it = mapOptions.find(option);
    return it == mapOptions.end() || it->second.empty() ? nullptr : &it->second.back();
}

void printHelp(const CommandDescription& description) {
    std::printf("%s\n\n%s\n", usageLine(description).c_str(), description.pszSummary);
    if (description.pszDetails != nullptr && *description.pszDetails != '\0') {
        std::printf("\n%s\n", description.pszDetails);
    }
    if (!description.vecOptions.empty()) {
        std::printf("\noptions:\n");
        for (const OptionDescription& option : description.vecOptions) {
            const std::string left = std::string("--") + option.pszName + " " + option.pszValue;
            std::printf("  %-22s %s\n", left.c_str(), option.pszHelp);
        }
    }
    std::printf("\nexit status: 0 fine, 1 problems found, 2 usage error\n");
}

int usageError(const CommandDescription& description, const std::string& what) {
    std::fprintf(stderr, "weblog %s: %s\n%s\n", description.pszName, what.c_str(),
                 usageLine(description).c_str());
    return kExitUsage;
}

int parseArguments(const CommandDescription& description, int argc, char** argv, Arguments& args) {
    bool bOptionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (!bOptionsEnded && (arg == "--help" || arg == "-h")) {
            printHelp(description);
            return kExitFine;
        }
        if (!bOptionsEnded && arg == "--") {
            bOptionsEnded = true;
            continue;
        }
        if (bOptionsEnded || arg.substr(0, 2) != "--") {
            args.vecPositional.emplace_back(arg);
            continue;
        }
        // "--name value" or "--name=value".
        std::string_view name = arg.substr(2);
        std::string value;
        bool bHasValue = false;
        if (const std::size_t nEquals = name.find('='); nEquals != std::string_view::npos) {
            value = std::string(name.substr(nEquals + 1));
            name = name.substr(0, nEquals);
            bHasValue = true;
        }
        if (findOption(description, name) == nullptr) {
            return usageError(description, "unknown option --" + std::string(name));
        }
        if (!bHasValue) {
            if (i + 1 >= argc) {
                return usageError(description, "option --" + std::string(name) + " needs a value");
            }
            value = argv[++i];
        }
        args.mapOptions[std::string(name)].push_back(value);
    }
    if (args.vecPositional.size() < description.nMinArguments) {
        return usageError(description, "missing arguments");
    }
    if (description.nMaxArguments != CommandDescription::kAnyNumber &&
        args.vecPositional.size() > description.nMaxArguments) {
        return usageError(description, "too many arguments");
    }
    return -1;
}

}  // namespace weblog
