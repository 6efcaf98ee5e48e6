#include "fakes/MemoryProbe.h"

namespace orlinth::fakes {

MemoryProbe::~MemoryProbe() = default;

} // namespace orlinth::fakes
