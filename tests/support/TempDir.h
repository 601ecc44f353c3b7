// A folder of its own for one test, removed with everything in it when the test ends.
#pragma once

#include <qorxmlu/foundation/String.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace QOR::test {

class TempDir {
public:
  TempDir() {
    static std::atomic<int> counter{0};
    auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    folder = std::filesystem::temp_directory_path() /
             ("qorxmlu-test-" + std::to_string(stamp) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(folder);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::filesystem::path Path(const std::string& name) const { return folder / name; }
  // The path as the library takes it.
  String File(const std::string& name) const { return String(Path(name).u16string()); }

  // Writes bytes exactly as given and returns the path.
  String Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary) << bytes;
    return File(name);
  }
  std::string Read(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }

private:
  std::filesystem::path folder;
};

} // namespace QOR::test
