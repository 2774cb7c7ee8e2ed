// A private folder for one test, removed with everything in it.
#ifndef TEST_SUPPORT_TEMP_DIR_H
#define TEST_SUPPORT_TEMP_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "liborlith_test_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed in " + name);
    path_ = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;

  std::string path() const { return path_; }
  std::string file(std::string_view name) const { return path_ + "/" + std::string(name); }

  std::string write(std::string_view name, std::string_view bytes) const {
    std::ofstream out(file(name), std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return file(name);
  }
  std::string read(std::string_view name) const {
    std::ifstream in(file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

 private:
  std::string path_;
};

#endif
