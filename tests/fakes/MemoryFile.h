#pragma once

#include "fakes/MemoryState.h"
#include "fakes/MemoryTree.h"
#include "platform/Folder.h"

#include <memory>

namespace orlinth::fakes::memory {

using StatePointer = std::shared_ptr<MemoryFileSystem::State>;

/// Opens what has the name of this place. The caller holds the lock, and has begun the operation.
[[nodiscard]] std::unique_ptr<platform::File> openFile(const StatePointer& state, const Place& place,
                                                       platform::OpenMode mode, std::uint32_t permissions);

/// Moves, and notes that. The caller holds the lock, and has begun the operation.
[[nodiscard]] bool moveNamed(MemoryFileSystem::State& state, const Place& source, const Place& target, bool replace);
void removeNamed(MemoryFileSystem::State& state, const Place& place);

/// Holds the folder at this place open: what happens to its path is nothing to it. The caller holds the lock.
[[nodiscard]] std::unique_ptr<platform::Folder> holdFolder(const StatePointer& state, const Place& place,
                                                           const platform::Path& openedAs);

} // namespace orlinth::fakes::memory
