#pragma once

#include "fakes/MemoryFileSystem.h"
#include "fakes/MemoryTree.h"

namespace orlinth::fakes::memory {

/// A copy of what a crash of this kind leaves of everything below this folder, and of the folder. What has several
/// names is copied once; nothing in it is locked.
[[nodiscard]] NodePointer survivorsOf(const NodePointer& root, CrashKind kind);

} // namespace orlinth::fakes::memory
