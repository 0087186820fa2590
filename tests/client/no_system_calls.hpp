#pragma once

/// From here on every system call but reading commands and writing replies ends the process with
/// SIGSYS. There is no way back. Returns false when the kernel does not allow it.
bool forbid_system_calls();
