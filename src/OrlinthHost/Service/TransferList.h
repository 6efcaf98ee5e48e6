#pragma once

#include "OrlinthCore/Receiving/Receiver.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Outbox/OutboxSender.h"
#include "OrlinthHost/SmoothedRate.h"
#include "base/Progress.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace orlinth::host {

/// Names a file that the service receives or sends, as long as that is listed. No two of a service have the same.
enum class TransferNumber : std::uint64_t {};

/// One file on the wire, or just off it, as faces show it.
struct TransferView {
    enum class Direction { in, out };
    enum class State {
        active,
        finishing, ///< every byte is there, and its end is not confirmed yet
        done,
        failed,
        cancelled
    };

    TransferNumber number{};
    Direction direction = Direction::in;
    PeerKey peerKey = {};
    std::string phone = {}; ///< its name
    std::string name = {};  ///< of the file, as whoever sends it calls it; see TransferList::longestName
    BatchId batch = {};     ///< of the outbox; empty if the file comes in
    State state = State::active;
    Progress bytes = {};
    std::int64_t bytesPerSecond = 0; ///< 0 while that is not known
    std::string problem = {};        ///< why it failed; else ""
    platform::Clock::Instant beganAt{};
    std::optional<platform::Clock::Instant> endedAt = {}; ///< nothing while it is under way
    platform::Path path = {};                             ///< where a file that came in was put; else ""

    friend bool operator==(const TransferView&, const TransferView&) = default;
};

/// The files that the service receives and sends just now, with those that ended a moment ago.
///
/// Threading: everything on the home's executor.
class TransferList {
public:
    /// How long a transfer stays when it has ended, so that whoever looks every now and then sees how.
    static constexpr Seconds endedLifetime = 60s;
    /// Of those that have ended; more of them go before their time, the oldest first.
    static constexpr std::size_t maxEnded = 64;

    /// Bytes of a name, more than a file can have. Of a longer one, which a phone may send all the same, what
    /// forDisplay() shows is kept.
    static constexpr std::size_t longestName = 512;

    /// What carries a transfer.
    using Carrier = std::variant<Receiver::TransferNumber, OutboxSender::AttemptNumber>;

    /// `onChanged` is called whenever anything of the list has changed. `home` outlives this.
    TransferList(Home& home, std::function<void()> onChanged);
    TransferList(const TransferList&) = delete;
    TransferList& operator=(const TransferList&) = delete;

    /// `view` is the transfer as it begins; it gets its number here.
    void began(Carrier carrier, TransferView view);
    /// So many bytes are there now.
    void progressed(Carrier carrier, std::int64_t done);
    /// `state` is one of the last three.
    void ended(Carrier carrier, TransferView::State state, std::string problem, platform::Path path = {});

    /// Told of each that ends, as it has ended. May be empty.
    std::function<void(const TransferView&)> onEnded;

    /// In the order in which they began.
    [[nodiscard]] const std::map<TransferNumber, TransferView>& all() const noexcept { return views_; }
    /// What carries it; nothing if it has ended or never was.
    [[nodiscard]] std::optional<Carrier> carrierOf(TransferNumber number) const;

private:
    struct Running {
        TransferNumber number{};
        platform::Clock::Instant countedAt{};
        std::int64_t counted = 0;
        SmoothedRate rate = {};
    };

    void forgetEnded();
    void ring();

    Home& home_;
    const std::function<void()> onChanged_;
    std::uint64_t last_ = 0;
    std::map<TransferNumber, TransferView> views_;
    std::map<Carrier, Running> running_;
    std::map<TransferNumber, platform::Clock::Instant> endedAt_;
    std::unique_ptr<platform::Timer> forgetting_; ///< rings while there are some of those
};

} // namespace orlinth::host
