// Which writers hold which rings, and which of them a reconfiguration on this thread is about to
// replace. Two writers on one ring would overwrite each other's files, so a ring has one owner
// in the process; a writer being replaced hands its ring over instead of refusing its
// successor. The table and the hand-over scope live here, apart from the writing itself; the
// claims are FileLogWriter's own members (claimRing, releaseRing), defined with them.
#pragma once

#include "weblogger/logwriter.h"

namespace kiv::logger_details {

// Whether pWriter is one of the writers of the innermost FileLogWriter::RingHandOver scope
// open on this thread.
bool isBeingReplaced(const LogWriter* pWriter) noexcept;

}  // namespace kiv::logger_details
