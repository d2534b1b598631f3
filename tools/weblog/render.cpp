// weblog render: a sample message written through a format, to see what a format looks like
// before a writer uses it.
#include <cstdio>

#include "commands.h"
#include "weblogger/loggermessages.h"
#include "weblogger/logsource.h"
#include "weblogger/tmlogger.h"
#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/zone.h"

namespace weblog {

const CommandDescription kRenderCommand{
    "render",
    "FILE FORMAT",
    "print a sample message rendered through a format",
    "FORMAT is the name a Writer's fmtName would give: a Format of the file, or a built-in one\n"
    "(Default, Short, xml, KLF-XML, KLF-Text). The sample is an information message of\n"
    "importance 20 from the source weblog.render, with the properties ThreadID, userId and\n"
    "ecid set, rendered by a console writer exactly as a writer of the file would render it.",
    {kVarOption},
    2,
    2};

namespace {

std::string xmlAttributeText(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace

int runRender(const Arguments& args) {
    kiv::ReplacementMap vars;
    if (!readVariables(kRenderCommand, args, vars)) {
        return kExitUsage;
    }
    const std::string& file = args.vecPositional[0];
    const std::string& formatName = args.vecPositional[1];
    if (!configReadable(kRenderCommand, file)) {
        return kExitProblems;
    }
    kiv::ConfigReviewer reviewer(kiv::fromUtf8(file), vars.empty() ? nullptr : &vars);
    if (reviewer.getRoot() == nullptr) {
        loadableOrReport(reviewer);
        return kExitProblems;
    }
    if (reviewer.findFormat(kiv::fromUtf8(formatName)) == nullptr) {
        std::fprintf(stderr, "weblog render: %s\n",
                     utf8(kiv::ParamMessage(kiv::kmsgFormatNotFound)
                              .setInsert(1, kiv::GDString(kiv::fromUtf8(formatName)))
                              .toString())
                         .c_str());
        return kExitProblems;
    }

    // One console writer that takes everything from the sample's source, with the file's
    // formats before the built-in ones, as the file's own writers would find them.
    std::string document =
        "<Logging><WriterClassGroups><WriterClassGroup name=\"render\">0</WriterClassGroup>"
        "</WriterClassGroups><Filters><FilterRecord writerClassGroup=\"render\" "
        "path=\"weblog.render\" incident_error=\"65534\" error=\"65534\" warning=\"65534\" "
        "information=\"65534\" trace=\"65534\"/></Filters><Writers><Writer name=\"render\" "
        "implementation=\"CoutWriter\" writerClassId=\"0\" fmtName=\"" +
        xmlAttributeText(formatName) + "\"/></Writers>";
    for (const kiv::XmlElement* pFormats : reviewer.getRoot()->selectElements(L"Formats")) {
        document += utf8(pFormats->toXmlString());
    }
    document += "</Logging>";
    try {
        const kiv::XmlDocument parsed = kiv::XmlDocument::parseString(std::string_view(document));
        const kiv::LogSourceHandle source(kiv::String(L"weblog.render"));
        kiv::XmlLogConfiguration::configAll(*parsed.getDocumentElement(), nullptr);
        kiv::TmLogger::setTimeZone(kiv::TimeZone(kiv::TimeZone::kServerOS));
        kiv::TmLogger& logger = kiv::TmLogger::getLogger();
        logger.pushProperty(kiv::String(L"ThreadID"), kiv::GDUInteger64(7), 0xFFFFFFFF);
        logger.pushProperty(kiv::String(L"userId"), kiv::GDString(L"user7"), 0xFFFFFFFF);
        logger.pushProperty(kiv::String(L"ecid"),
                            kiv::GDString(L"4bf92f3577b34da6a3ce929d0e0e4736,00f067aa0ba902b7"),
                            0xFFFFFFFF);
        const kiv::FileLocation here(L"tools/weblog/render.cpp", __LINE__);
        logger.logMessage(kiv::kSevInfo,
                          kiv::GDString(L"sample message rendered through the format " +
                                        kiv::fromUtf8(formatName)),
                          source.get(), &here);
    } catch (const kiv::Exception& e) {
        std::fprintf(stderr, "weblog render: %s\n", utf8(e.getMsg().toString()).c_str());
        return kExitProblems;
    }
    return kExitFine;
}

}  // namespace weblog
