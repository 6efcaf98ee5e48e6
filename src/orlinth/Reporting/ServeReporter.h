#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Chores.h"
#include "OrlinthHost/LineLimit.h"
#include "OrlinthHost/Service/ServiceEvents.h"
#include "orlinth/Program/ClipboardWriter.h"
#include "orlinth/Program/Host.h"

#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace orlinth::cli {

/// Turns what happens in the receive service into events, lines, notifications of the desktop, the clipboard's content
/// and the share sheet's list. On the thread of `main`, but for what blocks.
class ServeReporter final : public host::ServiceEvents {
public:
    /// Between two notifications of files.
    static constexpr double burstSeconds = 5;

    /// `host` outlives this.
    ServeReporter(Host& host, bool writesClipboard);
    ServeReporter(const ServeReporter&) = delete;
    ServeReporter& operator=(const ServeReporter&) = delete;

    /// For Receiver::run(), which this object outlives.
    [[nodiscard]] Receiver::Callbacks callbacks();
    /// Tells of phones that are known, at the start.
    void tellHowMany(std::size_t pairedPhones);
    /// Tells of somebody who was turned away because of where it comes from.
    void tellFarAway(const std::string& remoteEndpoint);
    /// Reports a file about the phones that cannot be read; those that were known before are still served.
    void tellPhonesTrouble(const std::exception_ptr& error);
    void controlFailed(const std::string& problem) override;
    void portLent() override;
    void portReturned() override;
    void portMissing(const std::string& problem) override;
    /// Brings the share sheet's list in step, if the peer store has changed since that was last done.
    void sharePeers();
    /// Waits for what is still to be done on other threads. The last call.
    [[nodiscard]] Task<> finish();

private:
    /// What a button of a notification needs, as long as the service is there to be asked.
    struct Opening {
        host::Chores chores;
        platform::Log& log;
    };

    void tellFile(const Receiver::File& file);
    void tellClipboard(const Receiver::Clipboard& clipboard);
    void tellSync(const Receiver::ProcessOutcome& outcome);
    void tellFailure(const Receiver::Failure& failure);
    /// Of the first at once, of those that follow within a few seconds together: a hundred photos are one event.
    void notifyOfFile(const Receiver::File& file);
    void tellMoreFiles();
    void showFile(platform::Notification notification, const platform::Path& path);
    /// Likewise.
    void notifyOfClipboard(const Receiver::Clipboard& clipboard);
    void tellMoreTexts();
    /// Whether one more line about this phone is to be written.
    [[nodiscard]] bool admitsLine(const std::string& peerPubkey, const std::string& name);

    Host& host_;
    bool writesClipboard_;
    ClipboardWriter clipboard_;
    host::Chores sharing_;
    std::unique_ptr<platform::Timer> textBurstTimer_;
    bool isTextBurst_ = false; ///< a text was told of less than `burstSeconds` ago
    std::int64_t moreTexts_ = 0;
    std::unique_ptr<platform::Timer> burstTimer_;
    bool isBurst_ = false; ///< a file was told of less than `burstSeconds` ago
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
    std::map<std::string, PhoneLines> phones_;        ///< by key
    std::optional<platform::FileStatus> sharedPeers_; ///< the peer store's file then; on the queue of `sharing_`
};

} // namespace orlinth::cli
