// A copyable set of writers, with which the server saves, restores or hands over a thread's
// local writers (TmLogger::getLocalWriters / setLocalWriters / appendLocalWriters).
#pragma once

#include <vector>

#include "zq/webkeel/handle.h"

namespace kiv {

class LogWriter;

using LogWritersList = std::vector<Handle<LogWriter>>;

class LogWritersState {
public:
    LogWritersState();
    LogWritersState(const LogWritersState& other);
    LogWritersState& operator=(const LogWritersState& other);
    ~LogWritersState();
    void swap(LogWritersState& other) noexcept { m_list.swap(other.m_list); }
    void clear() noexcept;
    // Appends the other state's writers after this state's.
    void append(const LogWritersState& other);

    LogWritersList m_list;
};

}  // namespace kiv
