// The console on Windows: stdout is switched to binary so that CR LF is not doubled.
#include "ToolSupport.h"

#include <cstdio>
#include <fcntl.h>
#include <io.h>

namespace qorxml {

bool StderrIsTerminal() { return _isatty(_fileno(stderr)) != 0; }

void SetBinaryStdout() { _setmode(_fileno(stdout), _O_BINARY); }

} // namespace qorxml
