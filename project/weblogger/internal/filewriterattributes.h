// The texts of the file writer's Writer element read as numbers, modes and switches. Each rule
// here decides what a hand-written configuration means, including what it refuses, so the rules
// are kept where every edge case can be checked without creating a ring of files.
#pragma once

#include <cstdint>

#include "zq/webkeel/string.h"

namespace kiv::logger_details {

// "autoFlush": only "no", "n", "false" and "0", in any case, turn flushing after each message
// off.
bool isAutoFlushOff(const String& value);

// Hours to seconds, rounded; anything outside (0, 2^32 - 1) seconds, and an empty text, gives
// nDefaultSeconds.
std::uint32_t intervalSeconds(const String& hours, std::uint32_t nDefaultSeconds);

// "filesN" as written: decimal digits only, optionally surrounded by blanks. 0 for anything
// else, which the caller refuses; values past the bound are kept past it (saturating), so that
// they are refused as too large rather than wrapped into range.
unsigned long long parseFilesN(const String& text);

// "fileMode": octal permission bits that let the owner read and write (a ring the writer could
// not open again after a restart is no ring); -1 for anything else.
long parseFileMode(const String& text);

// Search permission wherever reading is granted, so that the directory of files one may read
// can be entered; the owner always has all three.
unsigned directoryModeFor(unsigned nFileMode);

}  // namespace kiv::logger_details
