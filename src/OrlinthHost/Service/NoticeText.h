#pragma once

#include "OrlinthHost/Outbox/OutboxView.h"
#include "OrlinthHost/Service/TransferList.h"
#include "platform/Notifications.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What notifications of the desktop say, with their buttons and hints but without their tags: a table in code.
///
/// Names, which others have chosen, take up to `maxNameColumns`. No text of a connection's failure is in a
/// notification, nor anything of what was sent but the host of an address. `phone` is what phoneForDisplay() calls a
/// phone.
namespace orlinth::host::notices {

inline constexpr std::size_t maxNameColumns = 60;

/// Keys of buttons. A click is Notification::clickKey.
inline constexpr const char* cancelKey = "cancel";
inline constexpr const char* openKey = "open";
inline constexpr const char* showKey = "show";
inline constexpr const char* retryKey = "retry";
inline constexpr const char* dropKey = "drop";
inline constexpr const char* copyKey = "copy";
inline constexpr const char* openLinkKey = "open-link";

/// A file that comes in.
[[nodiscard]] platform::Notification receiving(const TransferView& transfer, const std::string& phone);
/// It is there.
[[nodiscard]] platform::Notification received(const platform::Path& file, std::int64_t bytes, const std::string& phone,
                                              bool mayOpen);
/// Several came one soon after the other, the last one into `folder`.
[[nodiscard]] platform::Notification receivedMany(std::size_t files, std::int64_t bytes, const platform::Path& folder,
                                                  const std::string& phone);
/// `underWay` are its transfers just now.
[[nodiscard]] platform::Notification sending(const OutboxView& batch, const std::vector<TransferView>& underWay,
                                             const std::string& phone);
[[nodiscard]] platform::Notification sent(const std::vector<std::string>& files, const std::string& phone);
[[nodiscard]] platform::Notification waiting(const OutboxView& batch, const std::string& phone);
/// `files` did not get there, which may be empty if nobody knows which; for `reason`, as the outbox tells it.
[[nodiscard]] platform::Notification notSent(const std::vector<std::string>& files, const std::string& phone,
                                             const std::string& reason);

/// A text that has come. What it says is not part of it.
struct TextNotice {
    std::size_t characters = 0;
    bool isOnClipboard = false;
    bool isKept = false;                      ///< so that it can be copied
    std::optional<std::string> linkHost = {}; ///< hostOfLink()
};
[[nodiscard]] platform::Notification text(const TextNotice& text, const std::string& phone);
[[nodiscard]] platform::Notification paired(const std::string& phone);
/// `isForgotten`: it is not recorded here any more.
[[nodiscard]] platform::Notification unpaired(const std::string& phone, bool isForgotten);
/// The port cannot be opened.
[[nodiscard]] platform::Notification portTrouble(std::uint16_t port);
/// Files cannot be written there.
[[nodiscard]] platform::Notification folderTrouble(const platform::Path& folder);

/// A name as notifications show it.
[[nodiscard]] std::string shortName(const std::string& name);
/// "38 %", and with it, if that can be said, "1:20 left". Nothing of the share if there is nothing to divide.
[[nodiscard]] std::string progressText(std::int64_t done, std::int64_t total, std::int64_t perSecond);

} // namespace orlinth::host::notices
