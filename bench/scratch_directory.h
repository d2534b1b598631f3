// A directory of its own for a benchmark program's files, made on first use and removed with
// everything in it when the program ends.
//
// The file benchmarks write gigabytes. A directory left behind stays on the disk and, while
// its pages are dirty, keeps the kernel writing them back under the next runs' feet, so the
// removal is tied to a static object's destructor: it runs at exit whatever made the first
// call. (An atexit handler registered while the static's path was being made ran after the
// path's destructor and removed nothing.)
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace kiv::bench {

class ScratchDirectory {
public:
    // pszTemplate: a mkdtemp template, "/tmp/name.XXXXXX".
    explicit ScratchDirectory(const char* pszTemplate) : m_strPath(pszTemplate) {
        if (::mkdtemp(m_strPath.data()) == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
    }
    ~ScratchDirectory() {
        std::error_code error;
        std::filesystem::remove_all(m_strPath, error);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;

    const std::string& path() const { return m_strPath; }

private:
    std::string m_strPath;
};

}  // namespace kiv::bench
