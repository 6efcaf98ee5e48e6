#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Chores.h"
#include "OrlinthHost/LineLimit.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "orlinth/Program/ClipboardWriter.h"
#include "orlinth/Program/Host.h"

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Turns what happens in the receive service into events, lines, notifications of the desktop, the clipboard's content
/// and what a service manager wants to hear. On the thread of `main`, but for what blocks.
class ServeReporter final : public host::ServiceEvents {
public:
    /// Between two notifications of files.
    static constexpr Seconds burstTime = 5s;

    /// What the person has chosen. The first two are asked each time, as they may change; empty: yes.
    struct Choices {
        std::function<bool()> writesClipboard = {};
        std::function<bool()> showsNotifications = {};
        std::optional<std::uint16_t> port = {}; ///< on the command line or in the settings
        bool choosesPlaces = false;
    };

    /// `host` outlives this.
    ServeReporter(Host& host, Choices choices);
    ServeReporter(const ServeReporter&) = delete;
    ServeReporter& operator=(const ServeReporter&) = delete;

    void portInherited(std::uint16_t port) override;
    void phonesKnown(std::size_t pairedPhones) override;
    void folderUnusable(const std::string& problem) override;
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
    /// What a button of a notification needs, as long as the service is there to be asked.
    struct Opening {
        host::Chores chores;
        platform::Log& log;
    };

    [[nodiscard]] bool writesClipboard() const { return !choices_.writesClipboard || choices_.writesClipboard(); }
    [[nodiscard]] bool showsNotifications() const {
        return !choices_.showsNotifications || choices_.showsNotifications();
    }
    /// Of the first at once, of those that follow within a few seconds together: a hundred photos are one event.
    void notifyOfFile(const Receiver::File& file);
    void tellMoreFiles();
    void showFile(platform::Notification notification, const platform::Path& path);
    /// Likewise.
    void notifyOfClipboard(const Receiver::Clipboard& clipboard);
    void tellMoreTexts();
    /// Whether one more line about this phone is to be written.
    [[nodiscard]] bool admitsLine(const PeerKey& peerKey, const std::string& name);

    Host& host_;
    const Choices choices_;
    ClipboardWriter clipboard_;
    std::unique_ptr<platform::Timer> textBurstTimer_;
    bool isTextBurst_ = false; ///< a text was told of less than `burstTime` ago
    std::int64_t moreTexts_ = 0;
    std::unique_ptr<platform::Timer> burstTimer_;
    bool isBurst_ = false; ///< a file was told of less than `burstTime` ago
    std::int64_t moreFiles_ = 0;
    platform::Path lastFile_;
    std::shared_ptr<Opening> opening_;
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
