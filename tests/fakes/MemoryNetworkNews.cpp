#include "fakes/MemoryNetworkNews.h"

namespace orlinth::fakes {

MemoryNetworkNews::~MemoryNetworkNews() = default;

} // namespace orlinth::fakes
