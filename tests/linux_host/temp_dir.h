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
        std::string name = std::filesystem::temp_directory_path() / "nuvio-host-XXXXXX";
        m_path = mkdtemp(name.data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }

    // Writes a file, with the folders above it, and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = std::filesystem::path(m_path) / name;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }
    std::string read(const std::string& name) const {
        std::ifstream file(std::filesystem::path(m_path) / name, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

  private:
    std::string m_path;
};
