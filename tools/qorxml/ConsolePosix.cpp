// The console on POSIX systems.
#include "ToolSupport.h"

#include <unistd.h>

namespace qorxml {

bool StderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void SetBinaryStdout() {}

} // namespace qorxml
