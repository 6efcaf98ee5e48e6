#include "fakes/MemoryRoutes.h"

namespace orlinth::fakes {

MemoryRoutes::~MemoryRoutes() = default;

} // namespace orlinth::fakes
