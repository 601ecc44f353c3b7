#include "ToolRun.h"

#include <windows.h>


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
std::filesystem::path WindowsPath(const std::filesystem::path& path) {
  std::wstring text = path.wstring();
  if (!text.empty() && text.front() == L'/') {
    for (wchar_t& c : text)
      if (c == L'/') c = L'\\';
    return L"Z:" + text;
  }
  return path;
}

HANDLE InheritableFile(const std::filesystem::path& path, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES security{sizeof security, nullptr, TRUE};
  return CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, &security, disposition,
                     FILE_ATTRIBUTE_NORMAL, nullptr);
}

} // namespace

ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& extraEnvironment) {
  static int runs = 0;
  auto stem = std::filesystem::temp_directory_path() /
              ("qorxml-child-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++runs));
  std::filesystem::path outPath = stem.wstring() + L".out", errPath = stem.wstring() + L".err";
  for (const auto& [name, value] : extraEnvironment)
    SetEnvironmentVariableW(std::filesystem::u8path(name).c_str(), std::filesystem::u8path(value).c_str());

  std::filesystem::path executable = WindowsPath(QORXML_EXE);
  std::wstring commandLine = Quoted(executable.wstring());
  for (const std::string& argument : arguments)
    commandLine += L" " + Quoted(std::filesystem::u8path(argument).wstring());

  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = InheritableFile(L"NUL", GENERIC_READ, OPEN_EXISTING);
  startup.hStdOutput = InheritableFile(outPath, GENERIC_WRITE, CREATE_ALWAYS);
  startup.hStdError = InheritableFile(errPath, GENERIC_WRITE, CREATE_ALWAYS);
  PROCESS_INFORMATION process{};
  ChildRun run;
  if (CreateProcessW(executable.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                     &process)) {
    if (WaitForSingleObject(process.hProcess, static_cast<DWORD>(childTimeoutSeconds) * 1000) == WAIT_OBJECT_0) {
      DWORD code = 0;
      if (GetExitCodeProcess(process.hProcess, &code)) run.exitStatus = static_cast<int>(code);
    } else {
      TerminateProcess(process.hProcess, 1);
      WaitForSingleObject(process.hProcess, INFINITE);
    }
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  }
  for (HANDLE handle : {startup.hStdInput, startup.hStdOutput, startup.hStdError})
    if (handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
  for (const auto& entry : extraEnvironment)
    SetEnvironmentVariableW(std::filesystem::u8path(entry.first).c_str(), nullptr);
  run.out = ReadAndRemove(outPath);
  run.err = ReadAndRemove(errPath);
  return run;
}

} // namespace QOR::test
