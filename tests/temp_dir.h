// A folder of a test's own, removed with everything in it at the end.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TempDir {
  public:
    TempDir() {
        std::string name = std::filesystem::temp_directory_path() / "nuvio-test-XXXXXX";
        m_path = mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    // Writes a file, with the folders above it, and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::string path = *this / name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    std::string read(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(*this / name, std::ios::binary).rdbuf();
        return text.str();
    }

  private:
    std::string m_path;
};
