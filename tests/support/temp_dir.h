// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace telvora::test {

// A fresh folder under the system's temporary directory, removed with everything in it at the end of its
// life.
class TempDir {
  public:
    TempDir() {
        std::string name = (std::filesystem::temp_directory_path() / "telvora-XXXXXX").string();
        if (!mkdtemp(name.data())) throw std::runtime_error("no temporary directory can be made");
        path_ = name;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};

}  // namespace telvora::test
