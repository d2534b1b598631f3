// The files of a file writer's ring in the order they were written, for tools that read a ring
// back (the writer names them "<prefix><index>.log" and goes round the ring, so the order is
// not the order of the names).
#pragma once

#include <string>
#include <vector>

namespace kiv {

// The ring's files in dir, oldest first: the file the writer would resume after a restart is
// the newest, and the ones after it in ring order are older than every one before it. Empty
// when the directory holds no file of the ring or cannot be read.
std::vector<std::string> ringFilesOldestFirst(const std::string& dir, const std::string& prefix);

}  // namespace kiv
