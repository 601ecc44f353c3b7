// Runs a program to its end with its output gathered, for tests of command-line programs.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace QOR::test {

struct ChildRun {
  int exitStatus = -1; // -1 if it could not start or was killed
  std::string out;
  std::string err;
};

// Runs program with arguments, stdin empty and environment plus extraEnvironment; kills it when
// it runs longer than timeoutSeconds.
ChildRun RunChild(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                  const std::map<std::string, std::string>& extraEnvironment = {}, int timeoutSeconds = 120);

// For both platforms' RunChild: the text a child wrote into `path`, which is then removed.
inline std::string ReadAndRemove(const std::filesystem::path& path) {
  std::string text;
  {
    std::ifstream in(path, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(in), {});
  }
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
  return text;
}

} // namespace QOR::test
