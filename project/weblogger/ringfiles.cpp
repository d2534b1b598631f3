#include "weblogger/ringfiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "weblogger/internal/filelogwriter.h"
#include "weblogger/internal/ringresume.h"

namespace kiv {

std::vector<std::string> ringFilesOldestFirst(const std::string& dir, const std::string& prefix) {
    std::vector<logger_details::RingFile> vecFiles;
    std::error_code error;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename().string();
        const long long nIndex = logger_details::ringIndexOf(
            name, prefix, static_cast<std::uint32_t>(FileLogWriter::kMaxNumberOfFiles));
        struct stat status {};
        if (nIndex < 0 || ::lstat(entry.path().c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
            continue;
        }
        vecFiles.push_back(logger_details::RingFile{static_cast<std::uint32_t>(nIndex),
                                                    status.st_mtim.tv_sec, status.st_mtim.tv_nsec,
                                                    static_cast<long long>(status.st_size)});
    }
    if (vecFiles.empty()) {
        return {};
    }
    std::sort(vecFiles.begin(), vecFiles.end(),
              [](const logger_details::RingFile& a, const logger_details::RingFile& b) {
                  return a.nIndex < b.nIndex;
              });
    // The files present tell the ring's size only up to the highest index written; that is the
    // size that matters for the order, since no file beyond it was ever written.
    const long nNewest =
        logger_details::chooseRingFileToResume(vecFiles, vecFiles.back().nIndex + 1, false, 0);
    const auto itAfterNewest = std::find_if(vecFiles.begin(), vecFiles.end(),
                                            [nNewest](const logger_details::RingFile& file) {
                                                return static_cast<long>(file.nIndex) > nNewest;
                                            });
    std::rotate(vecFiles.begin(), itAfterNewest, vecFiles.end());
    std::vector<std::string> vecPaths;
    for (const logger_details::RingFile& file : vecFiles) {
        vecPaths.push_back(dir + "/" + prefix + std::to_string(file.nIndex) + ".log");
    }
    return vecPaths;
}

}  // namespace kiv
