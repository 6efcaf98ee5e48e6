#include "fakes/MemoryUnixSockets.h"

namespace orlinth::fakes {

MemoryUnixSockets::~MemoryUnixSockets() = default;

} // namespace orlinth::fakes
