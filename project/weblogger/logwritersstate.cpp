#include "weblogger/logwritersstate.h"

#include "weblogger/logwriter.h"

namespace kiv {

LogWritersState::LogWritersState() = default;
LogWritersState::LogWritersState(const LogWritersState& other) = default;
LogWritersState& LogWritersState::operator=(const LogWritersState& other) = default;
LogWritersState::~LogWritersState() = default;

void LogWritersState::clear() noexcept {
    m_list.clear();
}

void LogWritersState::append(const LogWritersState& other) {
    m_list.insert(m_list.end(), other.m_list.begin(), other.m_list.end());
}

}  // namespace kiv
