#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/HostError.h"
#include "OrlinthHost/Reach/FinderPlan.h"
#include "base/SecretBytes.h"
#include "platform/TaskGroup.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

/// A phone that is not paired (any more).
class NoSuchPhone : public HostError {
public:
    NoSuchPhone() : HostError("there is no such phone", "`orlinth peers` lists the paired phones.") {}
};

/// What the service does with a phone when a face asks for it, by the rules of the commands: `peers rename`,
/// `peers remove`, `wake` and `clip`.
///
/// Threading: everything on the home's executor; what blocks on a disk does so elsewhere.
class PhoneRequests {
public:
    /// Bytes of a text: no message can carry more, and one of fewer may be too long in JSON.
    static const std::size_t maxTextBytes;

    /// `home` and `ownKey` outlive this.
    PhoneRequests(Home& home, const platform::PrivateKey& ownKey, FindSetting find);
    PhoneRequests(const PhoneRequests&) = delete;
    PhoneRequests& operator=(const PhoneRequests&) = delete;

    /// PairedPhones::rename(). @throws NoSuchPhone; HostError for a name that it cannot have; PeerStoreError
    [[nodiscard]] Task<> rename(PeerKey phone, std::string name);
    /// Forgets the phone, and returns. It is notified meanwhile, or else when it connects.
    /// @throws NoSuchPhone; HostError; PeerStoreError
    [[nodiscard]] Task<> remove(PeerKey phone);
    /// Sends the wake push; returns when the push service has taken it.
    /// @throws NoSuchPhone; HostError if it has no push token; FcmWake::Error; platform::HttpError; PeerStoreError
    [[nodiscard]] Task<> wake(PeerKey phone);
    /// Sends the text to the clipboards of these phones, side by side, or to that of the default phone; returns when
    /// each of them has had it. A phone that is named several times gets it once. @throws NoSuchPhone before anything
    /// is sent; HostError for what is no text, or, with their names, if some phones have not got it; SendError and
    /// others if the only one has not; PeerStoreError
    [[nodiscard]] Task<> sendText(SecretBytes text, std::vector<PeerKey> phones);

    /// Whether one of these is under way. A removed phone that is still to be notified does not count.
    [[nodiscard]] bool isBusy() const noexcept { return underWay_ > 0; }
    /// Called when one begins, and when it has ended. May be empty. Must not throw.
    std::function<void()> onChanged;

    /// The service ends: phones are not notified any more. The last call but those of the requests that are under way,
    /// which are cancelled by whoever has made them.
    [[nodiscard]] Task<> finish();

private:
    class UnderWay;

    void tellChange();
    [[nodiscard]] Task<PeerRecord> find(PeerKey phone);
    [[nodiscard]] Task<> deliver(std::shared_ptr<const std::string> text, PeerRecord phone);
    [[nodiscard]] Task<> deliverToAll(std::shared_ptr<const std::string> text, std::vector<PeerRecord> phones);
    [[nodiscard]] Task<> bidFarewell(PeerRecord phone);

    Home& home_;
    const platform::PrivateKey& ownKey_;
    const FindSetting find_;
    std::size_t underWay_ = 0;
    platform::TaskGroup farewells_;
};

} // namespace orlinth::host
