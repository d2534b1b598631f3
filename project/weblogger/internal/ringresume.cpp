#include "weblogger/internal/ringresume.h"

#include <algorithm>
#include <cstddef>

namespace kiv::logger_details {

namespace {

bool isNewer(const RingFile& a, const RingFile& b) {
    return a.tModified > b.tModified ||
           (a.tModified == b.tModified && a.nNanoseconds > b.nNanoseconds);
}

}  // namespace

long long ringIndexOf(std::string_view name, std::string_view prefix, std::uint32_t nFiles) {
    constexpr std::string_view kSuffix = ".log";
    if (name.size() <= prefix.size() + kSuffix.size() || name.substr(0, prefix.size()) != prefix ||
        name.substr(name.size() - kSuffix.size()) != kSuffix) {
        return -1;
    }
    const std::string_view digits =
        name.substr(prefix.size(), name.size() - prefix.size() - kSuffix.size());
    if (digits.size() > 10 || (digits.size() > 1 && digits[0] == '0')) {
        return -1;
    }
    long long nIndex = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') {
            return -1;
        }
        nIndex = nIndex * 10 + (c - '0');
    }
    return nIndex < nFiles ? nIndex : -1;
}

// Which file of the ring to resume: the newest by modification time, its sub-second part
// included. When several files share the newest time (a file system that keeps whole seconds
// only, or a copy that kept the times), they are told apart by how the writer leaves a ring:
// files are written in ring order, so the ones it wrote within the newest second form one
// unbroken run in ring order (..., 8, 9, 0, 1), and the last of that run is the newest.
// - When the run is the whole ring (every file written within that second), the run has no
//   end to read; under size rotation the one file still below the size limit is the current
//   one (every other file was left at the limit when the writer moved on).
// - In every other case, ties that are not one run, which only something outside the writer
//   makes, the plain rule holds: strictly newer wins, so the lowest index among equals.
long chooseRingFileToResume(std::vector<RingFile> vecFiles, std::uint32_t nFiles,
                            bool bRotatesBySize, std::uint64_t nSizeLimit) {
    if (vecFiles.empty()) {
        return -1;
    }
    std::sort(vecFiles.begin(), vecFiles.end(),
              [](const RingFile& a, const RingFile& b) { return a.nIndex < b.nIndex; });
    RingFile newest = vecFiles.front();
    for (const RingFile& file : vecFiles) {
        if (isNewer(file, newest)) {
            newest = file;
        }
    }
    std::vector<RingFile> vecTies;
    for (const RingFile& file : vecFiles) {
        if (!isNewer(newest, file)) {
            vecTies.push_back(file);
        }
    }
    if (vecTies.size() == 1) {
        return newest.nIndex;
    }
    // Gaps between consecutive tied indices, the one around the end of the ring included.
    std::size_t nBreaks = 0;
    std::uint32_t nRunEnd = vecTies.back().nIndex;
    for (std::size_t i = 0; i < vecTies.size(); ++i) {
        const std::uint32_t nThis = vecTies[i].nIndex;
        const std::uint32_t nNext = vecTies[(i + 1) % vecTies.size()].nIndex;
        const std::uint32_t nStep = (nNext + nFiles - nThis) % nFiles;
        if (nStep != 1) {
            ++nBreaks;
            nRunEnd = nThis;
        }
    }
    if (nBreaks == 1) {
        return nRunEnd;
    }
    if (nBreaks == 0 && bRotatesBySize) {
        const RingFile* pBelow = nullptr;
        std::size_t nBelow = 0;
        for (const RingFile& file : vecTies) {
            if (static_cast<std::uint64_t>(file.nSize) < nSizeLimit) {
                pBelow = &file;
                ++nBelow;
            }
        }
        if (nBelow == 1) {
            return pBelow->nIndex;
        }
    }
    return vecTies.front().nIndex;
}

}  // namespace kiv::logger_details
