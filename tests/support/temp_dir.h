// A fresh directory under the system's temporary directory, removed with everything in it
// when the object goes out of scope.
#pragma once

#include <string>

namespace kiv::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_strPath; }
    // path() + "/" + name
    std::string file(const std::string& name) const;
    // Writes bytes to path()/name and returns the full path.
    std::string write(const std::string& name, const std::string& bytes) const;

private:
    std::string m_strPath;
};

std::string readFile(const std::string& path);

}  // namespace kiv::test
