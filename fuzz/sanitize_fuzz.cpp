#include "OrlinthCore/Receiving/CollisionResolver.h"
#include "base/Text.h"

#include <cstdlib>
#include <filesystem>

namespace {

void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

/// Whatever a phone calls a file, the result is one name in the folder, and cleaning it again changes nothing.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string name = orlinth::toText(std::as_bytes(std::span(data, size)));
    const std::string safe = orlinth::CollisionResolver::sanitize(name);
    check(!safe.empty() && safe != "." && safe != "..");
    check(safe.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos);
    check(orlinth::CollisionResolver::sanitize(safe) == safe);
    check((std::filesystem::path("/downloads") / safe).lexically_normal().parent_path() == "/downloads");
    const std::string extension = orlinth::pathExtension(safe);
    const std::string stem = orlinth::withoutPathExtension(safe);
    check((extension.empty() ? stem : stem + "." + extension) == safe);
    check(!stem.empty());
    return 0;
}
