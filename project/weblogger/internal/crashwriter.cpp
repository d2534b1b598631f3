#include "weblogger/internal/crashwriter.h"

#include <cwchar>

#include "weblogger/loggermessages.h"
#include "weblogger/logwritersman.h"
#include "zq/webkeel/clock.h"

namespace kiv {
namespace {

const String kAttrFile(L"file");
const String kAttrLine(L"line");

const String& requiredAttribute(const XmlElement& config, const String& writerName,
                                const String& attribute) {
    const String* pValue = config.findAttribute(attribute.view());
    if (pValue == nullptr) {
        ZQ_THROW(LogConfigurationException(ParamMessage(kmsgLogWriterAttributeMissing)
                                               .setInsert(1, GDString(writerName))
                                               .setInsert(2, GDString(attribute))));
    }
    return *pValue;
}

}  // namespace

CrashWriter::CrashWriter(const String& name, short id, WriterType type,
                         const Handle<const WriterFilter>& filter)
    : LogWriter(name, id, type, filter) {}

CrashWriter::~CrashWriter() = default;

bool CrashWriter::initialize(const XmlElement* pConfig, const XmlElement*) {
    ZQ_ASSERT(pConfig != 0);
    if (pConfig == nullptr) {
        return false;
    }
    const String& strFile = requiredAttribute(*pConfig, getName(), kAttrFile);
    const String& strLine = requiredAttribute(*pConfig, getName(), kAttrLine);
    m_strWhereToCrashFile = strFile;
    m_nLine = static_cast<std::uint32_t>(std::wcstoul(strLine.c_str(), nullptr, 10));
    return true;
}

void CrashWriter::logMessage(const LogSeverity&, const GDValue&, const LoggerState&,
                             const FileLocation* pLocation) {
    if (pLocation == nullptr || pLocation->getLineNumber() != m_nLine) {
        return;
    }
    const wchar_t* pwszFile = pLocation->getWFile();
    if (pwszFile == nullptr || !m_strWhereToCrashFile.equals(pwszFile)) {
        return;
    }
    const WriteGuard guard(*this);
    if (!guard) {
        return;
    }
    m_tLastReached.store(clock::wallClockSeconds(), std::memory_order_relaxed);
    m_nReached.fetch_add(1, std::memory_order_relaxed);
}

// The crash trigger's factory, registered when the library loads; the flag keeps this unit from
// being dropped by the linker.
const bool bXXCrashWriterDummy = [] {
    logger_details::LogWritersMan::getLogWritersMan().addLogWritersFactory(
        new logger_details::LogWritersFactoryImpl<CrashWriter>(String(L"CrashWriter")));
    return true;
}();

}  // namespace kiv
