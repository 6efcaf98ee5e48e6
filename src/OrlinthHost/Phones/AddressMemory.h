#pragma once

#include "OrlinthHost/Phones/AddressBook.h"
#include "platform/Clock.h"
#include "platform/Folder.h"
#include "platform/Log.h"

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace orlinth::host {

/// Where phones were met, and so where to look for one that is not at the address of its record. Not a word of it is
/// taken for true: whoever answers there has to prove the phone's key.
///
/// A file beside the peer store, "addresses.json" (see AddressBook), for the owner alone (0600). Read afresh by every
/// call, replaced whole under a lock by every change. It never stands in the way: what cannot be read counts as empty,
/// and so does a link, a file of somebody else's and one that is too large; the next change replaces it. What cannot be
/// written is logged, unless the person has asked for it.
///
/// Threading: any thread. Calls block on the disk.
class AddressMemory {
public:
    static constexpr const char* fileName = "addresses.json";

    /// `directory` is the core's data folder. The others outlive this. Touches no file.
    AddressMemory(platform::FileSystem& files, platform::Clock& clock, platform::Log& log, platform::Path directory);

    /// As AddressBook has them, now.
    void reached(const PeerKey& phone, const Meeting& meeting);
    void came(const PeerKey& phone, const Meeting& meeting);
    void failed(const PeerKey& phone, const HostAddress& host, const std::optional<NetworkId>& network);
    [[nodiscard]] std::vector<KnownAddress> addressesOf(const PeerKey& phone) const;
    [[nodiscard]] std::vector<KnownAddress> candidates(const PeerKey& phone, const Surroundings& here) const;
    [[nodiscard]] std::map<MacAddress, std::vector<PeerKey>> phonesByHardware() const;
    [[nodiscard]] std::map<PeerKey, EpochMilliseconds> lastMeetings() const;
    void tell(const ToldAddress& told);
    [[nodiscard]] std::optional<ToldAddress> told() const;
    /// Of all processes that ask in AddressBook::sweepInterval one gets true. False also if that cannot be saved.
    [[nodiscard]] bool claimSweep(const NetworkId& network);
    [[nodiscard]] bool mayMove(const PeerKey& phone) const;
    void moved(const PeerKey& phone);
    /// Somebody has the network swept in person: until the interval is over no process sweeps it of its own accord.
    void noteSweep(const NetworkId& network);

    /// Forgets every phone but these, which are paired. No file is made for it.
    void keepOnly(const std::vector<PeerKey>& phones);
    /// Forgets everything about a phone, which was removed. No file is made for it. @throws HostError
    void forget(const PeerKey& phone);

private:
    [[nodiscard]] AddressBook load() const;
    [[nodiscard]] AddressBook read(platform::Folder& folder) const;
    /// Under the lock; written if `change` returns true, which is returned. @throws platform::SystemError
    bool change(const std::function<bool(AddressBook&)>& change);
    /// The same; false, and a line in the log, if it cannot be done.
    bool tryToChange(const std::function<bool(AddressBook&)>& change);

    platform::FileSystem& files_;
    platform::Clock& clock_;
    platform::Log& log_;
    platform::Path directory_;
};

} // namespace orlinth::host
