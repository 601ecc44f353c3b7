// Runs the built qorxml, and reaches the sample service that the tool tests talk to.
#pragma once

#include "ChildProcess.h"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace QOR::test {

// Runs qorxml with arguments.
ChildRun Qorxml(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment = {});

// "127.0.0.1:<port>" of the sample service: from QORXML_TEST_SERVICE when a native host started
// it (the Windows build under Wine), else started in this process. Empty if there is none.
const std::string& ToolService();
// The folder where that service stores uploads.
const std::filesystem::path& ToolServiceUploads();

} // namespace QOR::test
