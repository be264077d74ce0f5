// A fresh directory under the system's temporary directory, removed with
// everything in it when the test ends.
#pragma once

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

namespace velr::demo::test {

class TempDir {
 public:
  TempDir() {
    std::random_device rd;
    path_ = std::filesystem::temp_directory_path() /
            ("velr-demo-test-" + std::to_string(rd()) + std::to_string(rd()));
    std::filesystem::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string& name) const { return (path_ / name).string(); }
  std::string write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
  }

 private:
  std::filesystem::path path_;
};

}  // namespace velr::demo::test
