#include "OrlinthHost/Phones/AddressMemory.h"

#include "OrlinthHost/HostError.h"
#include "platform/SystemError.h"
#include "platform/WholeFile.h"

#include <memory>
#include <utility>

namespace orlinth::host {
namespace {

constexpr std::uint32_t addressesFilePermissions = 0600;
constexpr std::uint32_t addressesFolderPermissions = 0700;

} // namespace

AddressMemory::AddressMemory(platform::FileSystem& files, platform::Clock& clock, platform::Log& log,
                             platform::Path directory)
    : files_(files), clock_(clock), log_(log), directory_(std::move(directory)) {}

void AddressMemory::reached(const PeerKey& phone, const Meeting& meeting) {
    tryToChange([&](AddressBook& book) { return book.reached(phone, meeting, clock_.epochMilliseconds()); });
}

void AddressMemory::came(const PeerKey& phone, const Meeting& meeting) {
    tryToChange([&](AddressBook& book) { return book.came(phone, meeting, clock_.epochMilliseconds()); });
}

void AddressMemory::failed(const PeerKey& phone, const HostAddress& host, const std::optional<NetworkId>& network) {
    tryToChange([&](AddressBook& book) { return book.failed(phone, host, network); });
}

void AddressMemory::tell(const ToldAddress& told) {
    tryToChange([&](AddressBook& book) { return book.tell(told); });
}

bool AddressMemory::claimSweep(const NetworkId& network) {
    return tryToChange([&](AddressBook& book) { return book.claimSweep(network, clock_.epochMilliseconds()); });
}

void AddressMemory::noteSweep(const NetworkId& network) {
    static_cast<void>(
        tryToChange([&](AddressBook& book) { return book.noteSweep(network, clock_.epochMilliseconds()); }));
}

bool AddressMemory::mayMove(const PeerKey& phone) const {
    return load().mayMove(phone, clock_.epochMilliseconds());
}

void AddressMemory::moved(const PeerKey& phone) {
    tryToChange([&](AddressBook& book) { return book.moved(phone, clock_.epochMilliseconds()); });
}

std::vector<KnownAddress> AddressMemory::addressesOf(const PeerKey& phone) const {
    return load().addressesOf(phone, clock_.epochMilliseconds());
}

std::vector<KnownAddress> AddressMemory::candidates(const PeerKey& phone, const Surroundings& here) const {
    return load().candidates(phone, here, clock_.epochMilliseconds());
}

std::map<MacAddress, std::vector<PeerKey>> AddressMemory::phonesByHardware() const {
    return load().phonesByHardware(clock_.epochMilliseconds());
}

std::map<PeerKey, EpochMilliseconds> AddressMemory::lastMeetings() const {
    return load().lastMeetings();
}

std::optional<ToldAddress> AddressMemory::told() const {
    return load().told();
}

void AddressMemory::forget(const PeerKey& phone) {
    if (!load().knows(phone)) {
        return;
    }
    try {
        change([&phone](AddressBook& book) { return book.forget(phone); });
    } catch (const platform::SystemError& error) {
        throw HostError("cannot forget where the phone was met: " + error.description(),
                        "Delete " + (directory_ / fileName).string() + ", then try again.");
    }
}

void AddressMemory::keepOnly(const std::vector<PeerKey>& phones) {
    if (AddressBook book = load(); book.keepOnly(phones)) {
        tryToChange([&phones](AddressBook& current) { return current.keepOnly(phones); });
    }
}

AddressBook AddressMemory::load() const {
    try {
        return read(*files_.openFolder(directory_));
    } catch (const platform::SystemError&) {
        return {}; // there is no folder yet, or it cannot be read: nothing is known
    }
}

AddressBook AddressMemory::read(platform::Folder& folder) const {
    try {
        // Looked at through the open file: whatever has the name may be another thing in the next moment.
        const std::unique_ptr<platform::File> file =
            folder.open(platform::FileName(fileName), platform::OpenMode::read);
        const platform::FileStatus status = file->status();
        const bool isOurs = status.kind == platform::FileKind::regular && folder.isOwn(status);
        if (!isOurs || std::cmp_greater(status.size, AddressBook::maxFileBytes)) { // a pipe might never end
            return {};
        }
        Bytes content(static_cast<std::size_t>(status.size));
        content.resize(file->read(content));
        return AddressBook::decode(content);
    } catch (const Error&) {
        return {}; // missing, a link, unreadable or no book: what it said is learnt anew
    }
}

bool AddressMemory::change(const std::function<bool(AddressBook&)>& change) {
    files_.createDirectories(directory_, addressesFolderPermissions);
    const platform::FileLock lock(files_, directory_ / fileName);
    const std::unique_ptr<platform::Folder> folder = files_.openFolder(directory_);
    AddressBook book = read(*folder);
    if (!change(book)) {
        return false;
    }
    platform::writeWholeFile(*folder, platform::FileName(fileName), asBytes(book.encode()), addressesFilePermissions);
    return true;
}

bool AddressMemory::tryToChange(const std::function<bool(AddressBook&)>& change) {
    try {
        return this->change(change);
    } catch (const platform::SystemError& error) {
        log_.write(platform::LogLevel::warning, "com.tarvinex.orlinth", "phones",
                   "cannot save where phones were met: " + error.description());
        return false;
    }
}

} // namespace orlinth::host
