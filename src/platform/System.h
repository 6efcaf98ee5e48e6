#pragma once

#include "platform/Clock.h"
#include "platform/Directories.h"
#include "platform/FileSystem.h"
#include "platform/Log.h"
#include "platform/MimeTypes.h"
#include "platform/Network.h"

namespace orlinth::platform {

/// Everything the core asks of the computer it runs on, chosen once in `main` (or by a test) and passed down.
/// Owns nothing: what it refers to outlives every operation that was given it.
struct System {
    Network& network;
    Clock& clock;
    FileSystem& files;
    MimeTypes& mimeTypes;
    Log& log;
    UserDirectories directories;
};

} // namespace orlinth::platform
