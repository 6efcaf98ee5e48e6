#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/LineLimit.h"
#include "OrlinthHost/Service/DesktopActions.h"
#include "OrlinthHost/Service/DesktopNotices.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "orlinth/Program/Host.h"

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Turns what happens in the receive service into events, lines, the clipboard's content and what a service manager
/// wants to hear, and tells the notifications of the desktop. On the thread of `main`.
class ServeReporter final : public host::ServiceEvents {
public:
    /// What the person has chosen.
    struct Choices {
        std::function<bool()> writesClipboard = {}; ///< asked each time; empty: yes
        std::optional<std::uint16_t> port = {};     ///< on the command line or in the settings
        bool choosesPlaces = false;
    };

    /// What is referred to outlives this.
    ServeReporter(Host& host, host::DesktopActions& desktop, host::DesktopNotices& notices, Choices choices);
    ServeReporter(const ServeReporter&) = delete;
    ServeReporter& operator=(const ServeReporter&) = delete;

    void portInherited(std::uint16_t port) override;
    void phonesKnown(std::size_t pairedPhones) override;
    void folderUnusable(const platform::Path& folder, const std::string& problem) override;
    void listening(std::uint16_t port, std::size_t pairedPhones) override;
    void stopping() override;
    [[nodiscard]] Task<> finish() override;
    void authenticated(const PeerRecord& phone, std::size_t pairedPhones) override;
    void fileReceived(const Receiver::File& file) override;
    void textReceived(const Receiver::Clipboard& text) override;
    void settled(const Receiver::ProcessOutcome& outcome) override;
    void connectionFailed(const Receiver::Failure& failure) override;
    void turnedAway(const std::string& remoteEndpoint) override;
    void phonesUnreadable(const std::exception_ptr& error) override;
    void unfinishedDownloads(const host::PartialsReminder::Reminder& reminder, const platform::Path& folder) override;
    void controlFailed(const std::string& problem) override;
    void portLent() override;
    void portReturned() override;
    void portMissing(const std::string& problem) override;

private:
    [[nodiscard]] bool writesClipboard() const { return !choices_.writesClipboard || choices_.writesClipboard(); }
    /// Once it is known whether it is on the clipboard.
    void notifyOfText(const Receiver::Clipboard& clipboard);
    /// Whether one more line about this phone is to be written.
    [[nodiscard]] bool admitsLine(const PeerKey& peerKey, const std::string& name);

    Host& host_;
    host::DesktopActions& desktop_;
    host::DesktopNotices& notices_;
    const Choices choices_;
    host::LineLimit strangers_;
    host::LineLimit farAway_;
    host::LineLimit removed_;
    /// What one phone may have said about it.
    struct PhoneLines {
        std::string name; ///< the last one
        host::LineLimit limit;
    };
    std::map<PeerKey, PhoneLines> phones_;
};

} // namespace orlinth::cli
