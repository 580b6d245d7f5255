#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace pelm::testing {

/// A fresh folder under /tmp for one test, removed with everything in it when the test is done.
class TempFolder {
  public:
    explicit TempFolder(const std::string& prefix = "pelm-test") {
        std::string pattern = "/tmp/" + prefix + "-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed for " + pattern);
        path_ = pattern;
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    operator const std::filesystem::path&() const { return path_; }  // NOLINT: a folder is used as its path

  private:
    std::filesystem::path path_;
};

}  // namespace pelm::testing
