#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Service/PartialsReminder.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

namespace orlinth::host {

/// What happens to the service, for whoever tells it to people and scripts. Called on the home's executor; no call
/// throws.
class ServiceEvents {
public:
    virtual ~ServiceEvents() = default;

    // ---- its life, in this order

    /// A service manager has opened this port, which is used whatever the settings say.
    virtual void portInherited(std::uint16_t port) = 0;
    /// How many phones are paired at the start.
    virtual void phonesKnown(std::size_t pairedPhones) = 0;
    /// It does its work from now on; so many phones are paired.
    virtual void listening(std::uint16_t port, std::size_t pairedPhones) = 0;
    /// It ends: nothing more is received.
    virtual void stopping() = 0;
    /// Awaited behind stopping(), when nothing more happens than what unfinishedDownloads() may still tell: returns
    /// when what was begun for the calls before is done. A service that does not get as far as phonesKnown() calls
    /// neither.
    [[nodiscard]] virtual Task<> finish() = 0;

    /// This folder for received files, which was chosen while the service ran, cannot be written: it does its work
    /// without, and whatever is to go there fails.
    virtual void folderUnusable(const platform::Path& folder, const std::string& problem) = 0;

    // ---- those who connect

    /// A paired phone has proved its key; so many are paired.
    virtual void authenticated(const PeerRecord& phone, std::size_t pairedPhones) = 0;
    virtual void fileReceived(const Receiver::File& file) = 0;
    virtual void textReceived(const Receiver::Clipboard& text) = 0;
    /// How other connections ended well.
    virtual void settled(const Receiver::ProcessOutcome& outcome) = 0;
    virtual void connectionFailed(const Receiver::Failure& failure) = 0;
    /// Somebody was turned away because of where the connection came from.
    virtual void turnedAway(const std::string& remoteEndpoint) = 0;

    // ---- its files and its port

    /// What says which phones are paired, or were removed, cannot be read: PeerStoreError, HostError or SystemError.
    /// Those that were known before are still served.
    virtual void phonesUnreadable(const std::exception_ptr& error) = 0;
    /// Unfinished downloads that nothing has come of for a week, in the downloads folder.
    virtual void unfinishedDownloads(const PartialsReminder::Reminder& reminder, const platform::Path& folder) = 0;
    /// The control socket cannot be opened, or has failed: nobody can ask the service or borrow its port.
    virtual void controlFailed(const std::string& problem) = 0;
    /// A pairing has the port.
    virtual void portLent() = 0;
    /// It has given it back.
    virtual void portReturned() = 0;
    /// The port cannot be opened again yet; that is tried until it works.
    virtual void portMissing(const std::string& problem) = 0;
};

} // namespace orlinth::host
