#include "fakes/MemoryNeighbours.h"

namespace orlinth::fakes {

MemoryNeighbours::~MemoryNeighbours() = default;

} // namespace orlinth::fakes
