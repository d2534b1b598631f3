#include "options.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace weblog {

namespace {

std::string usageLine(const CommandSpec& spec) {
    std::string line = std::string("usage: weblog ") + spec.pszName + " " + spec.pszArguments;
    for (const OptionSpec& option : spec.vecOptions) {
        line += std::string(" [--") + option.pszName + " " + option.pszValue + "]";
    }
    return line;
}

const OptionSpec* findOption(const CommandSpec& spec, std::string_view name) {
    for (const OptionSpec& option : spec.vecOptions) {
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

void printHelp(const CommandSpec& spec) {
    std::printf("%s\n\n%s\n", usageLine(spec).c_str(), spec.pszSummary);
    if (spec.pszDetails != nullptr && *spec.pszDetails != '\0') {
        std::printf("\n%s\n", spec.pszDetails);
    }
    if (!spec.vecOptions.empty()) {
        std::printf("\noptions:\n");
        for (const OptionSpec& option : spec.vecOptions) {
            const std::string left = std::string("--") + option.pszName + " " + option.pszValue;
            std::printf("  %-22s %s\n", left.c_str(), option.pszHelp);
        }
    }
    std::printf("\nexit status: 0 fine, 1 problems found, 2 usage error\n");
}

int usageError(const CommandSpec& spec, const std::string& what) {
    std::fprintf(stderr, "weblog %s: %s\n%s\n", spec.pszName, what.c_str(),
                 usageLine(spec).c_str());
    return kExitUsage;
}

int parseArguments(const CommandSpec& spec, int argc, char** argv, Arguments& args) {
    bool bOptionsEnded = false;
    for (int i = 0; i < argc; ++i) {
        const std::string_view arg(argv[i]);
        if (!bOptionsEnded && (arg == "--help" || arg == "-h")) {
            printHelp(spec);
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
        if (findOption(spec, name) == nullptr) {
            return usageError(spec, "unknown option --" + std::string(name));
        }
        if (!bHasValue) {
            if (i + 1 >= argc) {
                return usageError(spec, "option --" + std::string(name) + " needs a value");
            }
            value = argv[++i];
        }
        args.mapOptions[std::string(name)].push_back(value);
    }
    if (args.vecPositional.size() < spec.nMinArguments) {
        return usageError(spec, "missing arguments");
    }
    if (spec.nMaxArguments != CommandSpec::kAnyNumber &&
        args.vecPositional.size() > spec.nMaxArguments) {
        return usageError(spec, "too many arguments");
    }
    return -1;
}

}  // namespace weblog
