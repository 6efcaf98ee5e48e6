#pragma once

#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ControlMessage.h"
#include "OrlinthHost/Service/PhonePresence.h"
#include "OrlinthHost/Service/ServiceNews.h"
#include "base/SecretBytes.h"
#include "base/StrongText.h"
#include "base/Time.h"
#include "platform/Network.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// How other commands of the same data folder talk to the running service. `home` outlives each call.
namespace orlinth::host {

/// Whether a service runs for this data folder, also one that does not answer.
[[nodiscard]] Task<bool> isServiceRunning(Home& home);

/// The running service's port, which stays with it. Nothing if none runs. @throws HostError if it does not say
[[nodiscard]] Task<std::optional<std::uint16_t>> askServicePort(Home& home);

/// The same; nothing also if it does not say, which is logged.
[[nodiscard]] Task<std::optional<std::uint16_t>> findServicePort(Home& home);

/// What the running service says of its port and its folder. Nothing if none runs, or if it does not say, which is
/// logged. A service of an earlier version says only the port.
[[nodiscard]] Task<std::optional<PortReply>> findServiceDetails(Home& home);

/// Which of the paired phones are there, as far as the running service knows. Nothing if none runs, or if it does not
/// say within a second, which is logged: nobody depends on it.
[[nodiscard]] Task<std::optional<std::vector<PhonePresence>>> findPresence(Home& home);

/// Has the running service try now to send what waits in the outbox; with `batch`, that batch as a whole. Returns
/// whether there is such a batch; nothing if no service runs. @throws HostError if it does not answer
[[nodiscard]] Task<std::optional<bool>> askServiceToRetry(Home& home, std::optional<BatchId> batch);

/// Has the running service remove a batch, and returns once nothing is left of it: whether there was such a batch;
/// nothing if no service runs. @throws HostError if it does not answer, or cannot remove it
[[nodiscard]] Task<std::optional<bool>> askServiceToDrop(Home& home, BatchId batch);

/// Has the running service end a transfer for good: whether it is under way; nothing if no service runs.
/// @throws HostError if it does not answer
[[nodiscard]] Task<std::optional<bool>> askServiceToCancel(Home& home, TransferNumber transfer);

/// Has the running service take, or decline, a file that a phone offers: whether it waits for an answer; nothing if no
/// service runs. @throws HostError if it does not answer
[[nodiscard]] Task<std::optional<bool>> askServiceToAnswerOffer(Home& home, OfferNumber offer, bool isAccepted);

/// The last text that the running service has received.
struct ReceivedText {
    SecretBytes text; ///< UTF-8
    std::string from; ///< the phone's name
    EpochMilliseconds received;
};
struct LastTextAnswer {
    bool isServiceThere = false;
    std::optional<ReceivedText> text = {}; ///< nothing if the service has none
};
/// @throws HostError if the service does not answer
[[nodiscard]] Task<LastTextAnswer> askServiceForLastText(Home& home);

/// Has the running service forget that text: whether there was one; nothing if no service runs.
/// @throws HostError if it does not answer
[[nodiscard]] Task<std::optional<bool>> askServiceToForgetText(Home& home);

/// What the running service tells of itself now, each thing once, to `onNews`, on the caller's executor. False if none
/// runs. @throws HostError if it does not answer; what `onNews` throws
[[nodiscard]] Task<bool> readServiceStatus(Home& home, std::function<void(const ServiceNews&)> onNews);

/// The same, and then what changes, until the service ends: returns true then. @throws HostError also if what comes
/// makes no sense, or cannot be read
[[nodiscard]] Task<bool> watchService(Home& home, std::function<void(const ServiceNews&)> onNews);

/// The running service's port, for as long as this lives.
class BorrowedPort {
public:
    /// Nothing if no service runs, or if it has another port than the `wanted` one.
    /// @throws HostError if one runs and does not lend its port
    [[nodiscard]] static Task<std::optional<BorrowedPort>> borrow(Home& home, std::optional<std::uint16_t> wanted);

    /// The same of a service for which the service manager keeps the port open, and which is started for this. Nothing
    /// if there is none. Blocks while it starts.
    [[nodiscard]] static Task<std::optional<BorrowedPort>> borrowFromSleeping(Home& home, std::uint16_t port);

    [[nodiscard]] std::uint16_t port() const noexcept { return port_; }
    /// Where it is open; Listener::place(). Before takeListener().
    [[nodiscard]] std::string place() const { return listener_->place(); }
    /// The port, open already. Once.
    [[nodiscard]] std::unique_ptr<platform::Listener> takeListener() noexcept { return std::move(listener_); }

private:
    BorrowedPort(std::unique_ptr<platform::Stream> connection, std::uint16_t port,
                 std::unique_ptr<platform::Listener> listener) noexcept
        : connection_(std::move(connection)), port_(port), listener_(std::move(listener)) {}

    std::unique_ptr<platform::Stream> connection_; ///< the service takes its port back when this closes
    std::uint16_t port_;
    std::unique_ptr<platform::Listener> listener_;
};

} // namespace orlinth::host
