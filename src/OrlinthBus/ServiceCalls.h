#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/TaskGroup.h"
#include "platform/linux/BusLoop.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orlinth::bus {

/// Answers SendFiles, SetSetting and Restart.
///
/// Threading: on the home's executor.
class ServiceCalls {
public:
    /// By path.
    using Phones = std::map<std::string, PeerKey>;

    /// Calls of each method that are under way; more are refused.
    static constexpr std::size_t maxCalls = 4;
    /// Files of one call of SendFiles.
    static constexpr std::size_t maxFiles = 10'000;

    /// `untilTold` returns when all that the service had by this version was told, or soon after. What is referred to
    /// outlives this.
    ServiceCalls(host::Home& home, platform::BusLoop& loop, std::function<Task<>(std::uint64_t version)> untilTold);
    ServiceCalls(const ServiceCalls&) = delete;
    ServiceCalls& operator=(const ServiceCalls&) = delete;

    /// Before everything else. `api` stays until finish() has returned.
    void start(host::ServiceApi& api) noexcept { api_ = &api; }
    /// Takes the call if it is one of these, and answers it now or later; returns whether it is.
    [[nodiscard]] bool take(BusCall& call, const Phones& phones);
    /// Returns when all of them are answered. The last call.
    [[nodiscard]] Task<> finish();

private:
    using Call = std::shared_ptr<BusCall>;

    void run(platform::TaskGroup& tasks, BusCall call, const std::function<Task<>(const Call&)>& begin);
    [[nodiscard]] Task<> sendFiles(Call call, std::vector<platform::Path> files, std::vector<PeerKey> phones);
    [[nodiscard]] Task<> setSetting(Call call, std::string name, host::SettingValue value);
    void restart(BusCall call);

    platform::BusLoop& loop_;
    const std::function<Task<>(std::uint64_t version)> untilTold_;
    host::ServiceApi* api_ = nullptr; ///< once it is started
    platform::TaskGroup sendings_;
    platform::TaskGroup settings_;
};

} // namespace orlinth::bus
