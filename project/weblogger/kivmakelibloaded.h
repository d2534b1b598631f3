// Marks libweblogger.so as loaded: a host (or a test) can ask whether the library's load-time
// initialisation has run, and which version it is.
#pragma once

namespace kiv {

// True once the library's static initialisation has reached this unit.
bool isWebloggerLoaded() noexcept;

// The library's version, "major.minor.patch".
const char* webloggerVersion() noexcept;

}  // namespace kiv
