#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/DesktopActions.h"
#include "OrlinthHost/Service/IncomingNotices.h"
#include "OrlinthHost/Service/LastText.h"
#include "OrlinthHost/Service/NoticeBoard.h"
#include "OrlinthHost/Service/NoticeLife.h"
#include "OrlinthHost/Service/NoticeRequests.h"
#include "OrlinthHost/Service/NoticeSlot.h"
#include "OrlinthHost/Service/NoticeText.h"
#include "OrlinthHost/Service/OutgoingNotices.h"
#include "OrlinthHost/Service/ServiceFace.h"
#include "OrlinthHost/Service/ServiceView.h"
#include "platform/TaskGroup.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orlinth::host {

class ServiceApi;

/// The service's notifications on the desktop: what is shown when, and what becomes of a click.
///
///     ServiceEvents, OutboxEvents ── what has come or failed ──┐
///     ServiceApi ── what there is ──────── look() ─────────────┴─▶ IncomingNotices, OutgoingNotices ─▶ Notifications
///                                                                         click ─▶ ServiceApi, DesktopActions
///
/// Looks at most four times a second, and not at all while nothing happens. What it shows of offers is up to whoever
/// asks about them.
///
/// Threading: on the home's executor.
class DesktopNotices final : public ServiceFace, private NoticeRequests {
public:
    /// Between two looks.
    static constexpr Seconds lookInterval = 250ms;
    /// Between two texts of one phone.
    static constexpr Seconds textInterval = 1s;
    /// A port that comes back sooner was no trouble.
    static constexpr Seconds troubleDelay = 3s;

    /// Where received files go just now; asked each time.
    struct Folders {
        IncomingNotices::FolderOf of = {};                        ///< for the files of this phone; empty: nobody knows
        std::function<std::vector<platform::Path>()> chosen = {}; ///< for any phone; empty: nobody knows
    };

    /// What is referred to outlives this.
    DesktopNotices(NoticeBoard board, DesktopActions& desktop, Folders folders);
    DesktopNotices(const DesktopNotices&) = delete;
    DesktopNotices& operator=(const DesktopNotices&) = delete;

    // ---- what has happened

    void fileReceived(const Receiver::File& file);
    /// A text, which may be gone some time; null if it is not kept.
    using KeptText = std::weak_ptr<const LastText::Text>;
    /// The text that has come last.
    [[nodiscard]] KeptText keptText() const;
    /// Call this once it is known whether the text is on the clipboard. `kept` is what keptText() was when it came: by
    /// now another one may have come.
    void textReceived(const PeerKey& peerKey, const std::string& phone, notices::TextNotice text, KeptText kept);
    /// A phone says that it has removed this computer.
    void unpaired(const Receiver::Unpair& unpair);
    /// A file that came from this phone could not be saved in the folder for it. Told until a file is saved there, or
    /// nobody's files go there any more.
    void cannotSave(const PeerKey& from);
    /// The same of a folder that no file has come for yet.
    void cannotSaveIn(const platform::Path& folder);
    [[nodiscard]] OutgoingNotices& outgoing() noexcept { return outgoing_; }

    // ---- as a face

    [[nodiscard]] Task<> start(ServiceApi& api) override;
    void stop() override;
    [[nodiscard]] Task<> finish() override;

private:
    using Instant = platform::Clock::Instant;

    struct Text {
        PeerKey peerKey = {};
        std::string phone = {};
        notices::TextNotice what = {};
        KeptText kept = {};
    };

    void wantLook();
    void cancelTransfer(TransferNumber number) override;
    void retryBatch(const BatchId& batch, const PeerKey& peerKey) override;
    void dropBatch(const BatchId& batch, const PeerKey& peerKey) override;

    [[nodiscard]] Task<> watch();
    [[nodiscard]] std::optional<Seconds> look();
    void lookAtPhones();
    void learnPhones();
    [[nodiscard]] bool isNobodyPaired() const;
    void lookAtFolder();
    void endFolderTrouble();
    void lookAtPort(std::optional<Seconds>& next);
    void lookAtText(std::optional<Seconds>& next);
    void showText(const Text& text, bool isQuiet);
    void onTextKey(const Text& text, std::uint64_t number, const platform::NotificationAnswer& answer);
    /// Something that a click does nothing with but to bring the application to the front.
    void showPlain(NoticeSlot& slot, platform::Notification notification);
    void log(const std::string& text) const noexcept;

    const NoticeBoard board_;
    Home& home_;
    DesktopActions& desktop_;
    const Folders folders_;
    ServiceApi* api_ = nullptr; ///< between start() and stop()
    bool hasNews_ = false;
    IncomingNotices incoming_;
    OutgoingNotices outgoing_;
    /// The phones, and since when; nothing before it could be found out which there were before.
    std::optional<std::map<PeerKey, EpochMilliseconds>> paired_;
    std::uint64_t phonesSeen_ = 0; ///< their version
    NoticeSlot port_;
    std::optional<Instant> portMissingSince_;
    NoticeSlot folder_;
    platform::Path troubledFolder_; ///< that `folder_` is about, absolute; "" if there is no trouble
    NoticeSlot textSlot_;
    std::optional<Text> newText_;
    std::map<PeerKey, Instant> textAt_; ///< when the last one of a phone was shown
    std::uint64_t lastTextNumber_ = 0;
    bool isStopped_ = false;
    NoticeLife life_; ///< until stop()
    platform::TaskGroup tasks_;
};

} // namespace orlinth::host
