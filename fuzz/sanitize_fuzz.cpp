#include "Demand.h"
#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "base/Text.h"

#include <filesystem>

using orlinth::fuzzing::demand;

/// Whatever a phone calls a file, the result is one name in the folder, and cleaning it again changes nothing.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = orlinth::toText(std::as_bytes(std::span(data, size)));
    const std::string safe = orlinth::CollisionResolver::sanitize(name);
    demand(!safe.empty() && safe != "." && safe != "..", "the name is one");
    demand(safe.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos, "the name has no separator");
    demand(orlinth::CollisionResolver::sanitize(safe) == safe, "a clean name stays as it is");
    demand((std::filesystem::path("/downloads") / safe).lexically_normal().parent_path() == "/downloads",
           "the file is in the folder");
    const std::string extension = orlinth::pathExtension(safe);
    const std::string stem = orlinth::withoutPathExtension(safe);
    demand((extension.empty() ? stem : stem + "." + extension) == safe, "stem and extension make the name");
    demand(!stem.empty(), "there is a stem");
    return 0;
}
