// The one place that decides which failures a logging entry point swallows.
//
// Logging never fails its caller: an in-house exception or an out-of-memory error raised while
// a message is being dispatched, rendered or written is dropped at the entry point. Any other
// exception is somebody else's (the host's value classes, for instance) and passes on.
#pragma once

#include <new>

#include "zq/webkeel/exception.h"

namespace kiv::logger_details {

// Runs fn; whether it finished without one of the failures above.
template <class Fn>
bool swallowOwnFailures(Fn&& fn) {
    try {
        fn();
        return true;
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
    return false;
}

}  // namespace kiv::logger_details
