#pragma once

#include <cstdint>

namespace corvelle {

/// Makes sure that a failure ends the process or an operation instead of waiting for a person:
/// no error dialogs and no crash reporter (Windows), and a write to a pipe whose reader has gone, or
/// past the size a file may have, is an error code, not a signal (POSIX). Call first thing in main.
void startQuietly();

/// This process's number, as it stands in the names of its shared memory.
std::int64_t processNumber();

/// True while a process of that number runs. A zombie, which only waits for its parent to read its
/// exit code, counts as dead; a process of another user counts as running.
bool processIsRunning(std::int64_t number);

}  // namespace corvelle
