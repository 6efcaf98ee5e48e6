#include "fakes/MemoryWorkQueues.h"

namespace orlinth::fakes {

MemoryWorkQueues::~MemoryWorkQueues() = default;

} // namespace orlinth::fakes
