#pragma once

#include <cstdint>

namespace corvelle {

/// Ends this process when the process `parent` ends, whatever this one is doing then: a detached
/// thread waits for it, removes the names of this process's shared memory and leaves with exit code
/// 0, without destructors. A helper whose host was killed would otherwise live on, holding memory.
///
/// Does nothing if there is no such process (any more), or none that we may wait for.
/// Throws: std::system_error if no thread can be started.
void watchParent(std::int64_t parent);

}  // namespace corvelle
