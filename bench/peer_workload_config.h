// The logging element of the peers' workloads, shared by peer_workloads_bench and
// peerbench_weblogger: one FileLogWriter writing the peers' line,
//   [<ISO 8601 time with offset>] [<level>] [kiv.http.request] <message>
// with thresholds from one filter record on "kiv" for the writer's class: every message type up
// to notifications and no traces, or only incident errors and errors (the peers' level "err")
// where a workload's calls are all to be filtered out. Applied as a server applies its
// configuration, with XmlLogConfiguration::reconfigure.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "weblogger/xmllogconfiguration.h"
#include "zq/webkeel/transcode.h"
#include "zq/webutil/xmldocument.h"

namespace kiv::bench {

struct PeerWriterShape {
    bool m_bRotate = false;      // a ring of 10 files of 64 KiB, else one file that never rotates
    bool m_bFlush = false;       // "autoFlush": written out after every message
    bool m_bErrorsOnly = false;  // thresholds for incident errors and errors only
};

inline std::string peerLoggingElement(const std::string& strDir, PeerWriterShape shape) {
    const char* pszOthers = shape.m_bErrorsOnly ? "0" : "65534";
    return std::string(
               "<Logging><WriterClassGroups><WriterClassGroup name='Files'>1"
               "</WriterClassGroup></WriterClassGroups><Filters>"
               "<FilterRecord writerClassGroup='Files' path='kiv' incident_error='65534' "
               "error='65534' warning='") +
           pszOthers + "' information='" + pszOthers +
           "' trace='0'/></Filters><Writers><Writer name='peers' "
           "implementation='FileLogWriter' writerClassId='1' fmtName='Peers' dir='" +
           strDir + "' filePrefix='bench' " +
           (shape.m_bRotate ? "maxFileSizeKb='64' filesN='10' "
                            : "maxFileSizeKb='1073741824' filesN='1' ") +
           "autoFlush='" + (shape.m_bFlush ? "yes" : "no") +
           "'/></Writers><Formats><Format name='Peers'>[<Time style='KLFTimeFormat'/>] "
           "[<MsgType style='long'/>] [<CurrentLogSource/>] <MessageText/><LineBreak/>"
           "</Format></Formats></Logging>";
}

// Applies a logging element; a benchmark whose configuration is refused measures nothing, so
// the problems are printed and the program ends.
inline void applyPeerLogging(const std::string& strXml) {
    const XmlDocument document = XmlDocument::parseString(std::string_view(strXml));
    const ConfigurationReport report =
        XmlLogConfiguration::reconfigure(*document.getDocumentElement(), nullptr);
    if (!report.m_bApplied) {
        for (const String& problem : report.m_vecProblems) {
            std::fprintf(stderr, "%s\n", toUtf8(problem.view()).c_str());
        }
        std::exit(1);
    }
}

}  // namespace kiv::bench
