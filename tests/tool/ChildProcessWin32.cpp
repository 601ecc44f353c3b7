#include "ToolRun.h"

#include <cstdlib>
#include <process.h>

namespace QOR::test {

namespace {

// One argument as the C runtime splits a command line back into arguments.
std::wstring Quoted(const std::wstring& argument) {
  std::wstring quoted = L"\"";
  std::size_t backslashes = 0;
  for (wchar_t c : argument) {
    if (c == L'\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
    backslashes = 0;
    quoted += c;
  }
  quoted.append(backslashes * 2, L'\\');
  return quoted + L"\"";
}

// An absolute Unix path of the build machine as Wine shows it, under drive Z:.
std::wstring WindowsPath(const std::filesystem::path& path) {
  std::wstring text = path.wstring();
  if (!text.empty() && text.front() == L'/') {
    for (wchar_t& c : text)
      if (c == L'/') c = L'\\';
    return L"Z:" + text;
  }
  return text;
}

} // namespace

// Runs through cmd, which applies no time limit: a hung child is ended by the test's own timeout.
ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& extraEnvironment) {
  static int runs = 0;
  auto stem = std::filesystem::temp_directory_path() /
              ("qorxml-child-" + std::to_string(_getpid()) + "-" + std::to_string(++runs));
  std::filesystem::path outPath = stem.wstring() + L".out", errPath = stem.wstring() + L".err";
  for (const auto& [name, value] : extraEnvironment)
    _wputenv_s(std::filesystem::u8path(name).c_str(), std::filesystem::u8path(value).c_str());

  // cmd drops the first and the last quote of the line: the outer pair is there for it.
  std::wstring command = L"\"" + Quoted(WindowsPath(QORXML_EXE));
  for (const std::string& argument : arguments) command += L" " + Quoted(std::filesystem::u8path(argument).wstring());
  command += L" <NUL >" + Quoted(outPath.wstring()) + L" 2>" + Quoted(errPath.wstring()) + L"\"";

  ChildRun run;
  run.exitStatus = _wsystem(command.c_str());
  for (const auto& entry : extraEnvironment) _wputenv_s(std::filesystem::u8path(entry.first).c_str(), L"");
  run.out = ReadAndRemove(outPath);
  run.err = ReadAndRemove(errPath);
  return run;
}

} // namespace QOR::test
