// TempDir: a folder of a test's own, removed with everything in it; and small helpers for whole files.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace support {

class TempDir {
  public:
    TempDir() {
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder: " + path_);
    }
    TempDir(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_ = std::filesystem::temp_directory_path() / "velarto-test-XXXXXX";
};

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!(file << content).flush()) throw std::runtime_error("cannot write " + path);
}

}  // namespace support
