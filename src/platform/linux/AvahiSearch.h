#pragma once

#include "base/Mutex.h"
#include "platform/ServiceDiscovery.h"
#include "platform/linux/AvahiLoop.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>

#include <map>
#include <optional>
#include <tuple>

namespace orlinth::platform {

/// One search for services of a type.
class AvahiSearch final : public AvahiJob {
public:
    /// `onFailure` is called once at most, on the loop's thread or where the search ends.
    AvahiSearch(AvahiLoop& loop, std::string type, std::function<void()> onFailure);
    /// Wipes what was found.
    ~AvahiSearch() override;

    /// What is there now, each once. Any thread.
    [[nodiscard]] std::vector<ServiceRecord> found() const;
    /// Why there is nothing to be found, in Avahi's words; that may be that the daemon has not answered yet. Any
    /// thread.
    [[nodiscard]] std::optional<std::string> failure() const;
    /// From now on nothing is called. Any thread.
    void fallSilent() noexcept;

private:
    /// Interface, protocol, and the service's name, type and domain.
    using Sighting = std::tuple<AvahiIfIndex, AvahiProtocol, std::string, std::string, std::string>;
    /// One sighting's resolving, at an address that stays.
    struct Resolving {
        AvahiSearch* search = nullptr;
        Sighting sighting;
        AvahiServiceResolver* resolver = nullptr;
    };

    void begin() override;
    void end() noexcept override;

    void appeared(AvahiClient* client, Sighting sighting) noexcept;
    void disappeared(const Sighting& sighting) noexcept;
    void resolved(const Sighting& sighting, std::uint16_t port, const AvahiStringList* txt) noexcept;
    void failed(int error) noexcept;

    const std::string type_;
    // the loop's thread only
    AvahiClient* client_ = nullptr;
    std::map<Sighting, std::unique_ptr<Resolving>> resolvings_;

    mutable Mutex lock_;
    std::function<void()> onFailure_ ORLINTH_GUARDED_BY(lock_);
    std::optional<std::string> failure_ ORLINTH_GUARDED_BY(lock_);
    bool looks_ ORLINTH_GUARDED_BY(lock_) = false; ///< the daemon has taken the search on
    std::map<Sighting, ServiceRecord> records_ ORLINTH_GUARDED_BY(lock_);
};

} // namespace orlinth::platform
