#pragma once

#include "OrlinthCore/Receiving/IncomingFile.h"
#include "base/Json.h"

#include <string>

namespace orlinth::cli {

/// What events say of a received file.
[[nodiscard]] Json receivedFields(const ReceivedFile& received);

/// Where it is, fit for a terminal: the folder is the user's own word and stays as it is; the name is the other side's.
[[nodiscard]] std::string visiblePath(const ReceivedFile& received);

/// The same with a name of forDisplay(), for somebody who is told of it.
[[nodiscard]] std::string shortPath(const ReceivedFile& received);

/// "12 MB in 0.4 s, 30 MB/s".
[[nodiscard]] std::string receivedFigures(const ReceivedFile& received);

/// A sentence if the file is not as large as it was announced; "" if it is.
[[nodiscard]] std::string remarkOnSize(const ReceivedFile& received);

} // namespace orlinth::cli
