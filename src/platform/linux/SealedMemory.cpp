#include "platform/linux/SealedMemory.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orlinth::platform::detail {
namespace {

constexpr int allSeals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

} // namespace

Descriptor sealedMemory(ByteView bytes) {
    Descriptor file = Descriptor::require(::memfd_create("orlinth", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    while (!bytes.empty()) {
        const auto written = checked([&] { return ::write(file.get(), bytes.data(), bytes.size()); });
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
    checked([&] { return ::fcntl(file.get(), F_ADD_SEALS, allSeals); });
    return file;
}

SecretBytes readSealedMemory(const Descriptor& file, std::size_t maxBytes) {
    const int seals = ::fcntl(file.get(), F_GET_SEALS); // fails for files of other kinds
    struct stat status{};
    if (seals == -1 || (seals & allSeals) != allSeals || ::fstat(file.get(), &status) != 0) {
        throw SystemError("no sealed memory was passed");
    }
    if (static_cast<std::uint64_t>(status.st_size) > maxBytes) {
        throw SystemError::fromErrno(EMSGSIZE);
    }
    SecretBytes bytes(static_cast<std::size_t>(status.st_size));
    MutableBytes rest = bytes.revealMutable();
    while (!rest.empty()) {
        const auto offset = static_cast<off_t>(bytes.size() - rest.size());
        const auto count = checked([&] { return ::pread(file.get(), rest.data(), rest.size(), offset); });
        if (count == 0) {
            throw SystemError::fromErrno(EIO); // it cannot become shorter
        }
        rest = rest.subspan(static_cast<std::size_t>(count));
    }
    return bytes;
}

} // namespace orlinth::platform::detail
