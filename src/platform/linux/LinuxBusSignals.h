#pragma once

#include "platform/BusSignals.h"

#include <asio/io_context.hpp>

#include <memory>
#include <optional>

namespace orlinth::platform {

/// A signal's name as D-Bus has it.
struct BusSignalName {
    std::string path;
    std::string interface;
    std::string member;
    bool operator==(const BusSignalName&) const = default;
};

/// A signal "com.example.app.part-changed" is the member "PartChanged" of the interface "com.example.app" at the object
/// "/com/example/app": what stands behind the last dot loses its hyphens, and each word of it begins with a capital;
/// a hyphen before that becomes "_". Nothing for a name of which D-Bus does not take what comes out: with fewer than
/// three parts, with an empty part, with a part that begins with a digit, or with any other characters than A-Z, a-z,
/// 0-9, "_" and "-".
[[nodiscard]] std::optional<BusSignalName> busSignalName(const std::string& name);

/// Signals of D-Bus on the session's bus, without arguments; those of others may have some, which are not looked at.
/// A name that busSignalName() does not take is neither sent nor heard.
///
/// Threading: any thread. post() speaks to the bus on the caller's, on a connection of its own, and returns once the
/// bus has passed the signal on. All subscriptions share one connection, which the context looks after; while there is
/// no bus it looks for one every two seconds. What a subscription misses by that, or before its wish has come to the
/// bus, it is not told of. A subscription is work that keeps the context running, but not its own executor.
class LinuxBusSignals final : public BusSignals {
public:
    using Environment = const char* (*)(const char* name);

    /// `context` outlives this. `environment` (as getenv) says where the bus is: DBUS_SESSION_BUS_ADDRESS, or the
    /// socket "bus" in XDG_RUNTIME_DIR.
    LinuxBusSignals(asio::io_context& context, Environment environment);
    ~LinuxBusSignals() override;
    LinuxBusSignals(const LinuxBusSignals&) = delete;
    LinuxBusSignals& operator=(const LinuxBusSignals&) = delete;

    void post(const std::string& name) noexcept override;
    [[nodiscard]] std::unique_ptr<SignalSubscription> listen(const std::string& name, Executor executor,
                                                             std::function<void()> onSignal) override;

private:
    class Ear;
    Environment environment_;
    std::shared_ptr<Ear> ear_; ///< what is under way holds it too
};

} // namespace orlinth::platform
