// Runs the built qorxml to its end with its output gathered, and reaches the sample service that
// the tool tests talk to.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace QOR::test {

struct ChildRun {
  int exitStatus = -1; // -1 if it could not start or was killed (natively 127 and 137: shell, timeout)
  std::string out;
  std::string err;
};

// Runs qorxml with arguments, stdin empty and the environment plus extraEnvironment
// (ChildProcessPosix.cpp, ChildProcessWin32.cpp).
ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& extraEnvironment = {});

// For both platforms' Qorxml: the text the child wrote into `path`, which is then removed.
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

// "127.0.0.1:<port>" of the sample service: from QORXML_TEST_SERVICE when a native host started
// it (the Windows build under Wine), else started in this process. Empty if there is none.
const std::string& ToolService();
// The folder where that service stores uploads.
const std::filesystem::path& ToolServiceUploads();

} // namespace QOR::test
