#include "fakes/FakeFolderWatcher.h"

namespace orlinth::fakes {

FakeFolderWatcher::~FakeFolderWatcher() = default;

} // namespace orlinth::fakes
