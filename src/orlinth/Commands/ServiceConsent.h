#pragma once

#include "orlinth/Program/Host.h"

namespace orlinth::cli {

/// After a pairing, which is the consent to it: has the service manager run the service from now on, and says so; or
/// says what to do where nobody can. Nothing if a service of this data folder runs. A failure is told and not thrown.
/// @throws Interrupted
void enableService(Host& host);

} // namespace orlinth::cli
