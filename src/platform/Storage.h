#pragma once

#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"
#include "platform/FolderWatch.h"
#include "platform/Log.h"

namespace orlinth::platform {

/// What it takes to keep files: the file system and where the user's files are, notice of changes by others, the time,
/// and the log for what goes wrong unseen.
///
/// Passed by value; owns nothing: what it refers to outlives everything that was given it.
struct Storage {
    FileSystem& files;
    FolderWatcher& folders;
    Clock& clock;
    Log& log;
    UserDirectories directories;
};

} // namespace orlinth::platform
