#include "support/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kiv::test {

TempDir::TempDir() {
    const char* pszBase = std::getenv("TMPDIR");
    std::string strTemplate =
        std::string(pszBase != nullptr ? pszBase : "/tmp") + "/wlgtest.XXXXXX";
    if (::mkdtemp(strTemplate.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed for " + strTemplate);
    }
    m_strPath = strTemplate;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::permissions(m_strPath, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    std::filesystem::remove_all(m_strPath, ec);
}

std::string TempDir::file(const std::string& name) const {
    return m_strPath + "/" + name;
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    const std::string strPath = file(name);
    std::filesystem::create_directories(std::filesystem::path(strPath).parent_path());
    std::ofstream out(strPath, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return strPath;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace kiv::test
