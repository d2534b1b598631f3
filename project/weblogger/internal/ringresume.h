// Which file of a file writer's ring to resume after a restart. The choice is kept apart from
// the directory scan so that the rules for files sharing the newest modification time, which
// only a real file system with coarse times would otherwise exercise, can be checked on plain
// lists of files.
#pragma once

#include <cstdint>
#include <ctime>
#include <string_view>
#include <vector>

namespace kiv::logger_details {

// One regular file of the ring as the directory scan found it.
struct RingFile {
    std::uint32_t nIndex;
    std::time_t tModified;
    long nNanoseconds;
    long long nSize;
};

// The ring index in a directory entry's name "<prefix><index>.log", or -1 when the name is not
// one of the ring's (leading zeros included: "kiv01.log" is not file 1).
long long ringIndexOf(std::string_view name, std::string_view prefix, std::uint32_t nFiles);

// The index of the file to resume among vecFiles (in any order, indices below nFiles), or -1
// when there is none. nSizeLimit is read only when bRotatesBySize.
long chooseRingFileToResume(std::vector<RingFile> vecFiles, std::uint32_t nFiles,
                            bool bRotatesBySize, std::uint64_t nSizeLimit);

}  // namespace kiv::logger_details
