#pragma once

#include "OrlinthBus/BusCall.h"
#include "OrlinthHost/Home.h"
#include "OrlinthHost/Service/ServiceApi.h"
#include "platform/TaskGroup.h"
#include "platform/linux/BusLoop.h"
#include "platform/linux/Descriptor.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orlinth::bus {

/// Answers the calls about phones, texts and the history: Rename, Remove and Wake of a phone, and SendText,
/// GetLastText, GetHistory and ClearHistory of the service.
///
/// Threading: on the home's executor.
class PhoneCalls {
public:
    /// By path.
    using Phones = std::map<std::string, PeerKey>;

    /// Calls that are under way; more are refused.
    static constexpr std::size_t maxCalls = 16;
    /// Phones that one text goes to.
    static constexpr std::size_t maxPhones = 1000;
    /// For a pipe to bring a whole text.
    static constexpr Seconds pipeLimit = 5s;

    /// What is referred to outlives this.
    PhoneCalls(host::Home& home, platform::BusLoop& loop) : home_(home), loop_(loop), calls_(home.executor) {}
    PhoneCalls(const PhoneCalls&) = delete;
    PhoneCalls& operator=(const PhoneCalls&) = delete;

    /// Before everything else. `api` stays until finish() has returned.
    void start(host::ServiceApi& api) noexcept { api_ = &api; }
    /// Takes the call if it is one of these, and answers it now or later; returns whether it is.
    [[nodiscard]] bool take(BusCall& call, const Phones& phones);
    /// Ends what is under way, whose callers get an error.
    void stop() { calls_.cancelAll(); }
    /// Returns when that has ended. The last call.
    [[nodiscard]] Task<> finish();

private:
    using Call = std::shared_ptr<BusCall>;

    /// One call that takes its time: what it comes to, or why it fails.
    void run(BusCall call, const Phones& phones);
    [[nodiscard]] Task<> workOn(Call call, const Phones& phones);
    [[nodiscard]] Task<> rename(Call call, PeerKey phone, std::string name);
    [[nodiscard]] Task<> remove(Call call, PeerKey phone);
    [[nodiscard]] Task<> wake(Call call, PeerKey phone);
    [[nodiscard]] Task<> sendText(Call call, std::shared_ptr<const platform::detail::Descriptor> file,
                                  std::vector<PeerKey> phones);
    [[nodiscard]] Task<> getHistory(Call call, std::uint64_t before, std::uint32_t count);
    [[nodiscard]] Task<> clearHistory(Call call);
    void getLastText(BusCall& call);

    host::Home& home_;
    platform::BusLoop& loop_;
    host::ServiceApi* api_ = nullptr; ///< once it is started
    platform::TaskGroup calls_;
};

} // namespace orlinth::bus
