#pragma once

#include "OrlinthBus/BusError.h"
#include "platform/Task.h"
#include "platform/linux/BusLoop.h"
#include "platform/linux/Descriptor.h"
#include "platform/linux/SessionBus.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace orlinth::bus {

/// What callers may give for an option: a flag, a whole number of any type that fits, or a text.
using BusOption = std::variant<bool, std::int64_t, std::string>;
/// By name; nothing for a value of another type.
using BusOptions = std::map<std::string, std::optional<BusOption>>;

/// A method call that waits for its answer. Exactly one of the last two is called, once; a call that is let go of
/// without is answered by an error.
class BusCall {
public:
    /// Keeps the message.
    explicit BusCall(sd_bus_message* message) noexcept;
    BusCall(BusCall&&) noexcept = default;
    BusCall& operator=(BusCall&&) noexcept = default;
    BusCall(const BusCall&) = delete;
    BusCall& operator=(const BusCall&) = delete;
    ~BusCall();

    [[nodiscard]] std::string path() const;
    [[nodiscard]] std::string member() const;
    /// The name that the bus itself has given the caller.
    [[nodiscard]] std::string sender() const;
    /// "" if the caller has named none.
    [[nodiscard]] std::string interface() const;
    /// The next argument, a list of texts or of paths. @throws std::exception if it is none, or longer than `most`
    [[nodiscard]] std::vector<std::string> readTexts(char type, std::size_t most);
    /// The next argument, "v". @throws std::exception if it is none, or holds something else than a BusOption
    [[nodiscard]] BusOption readValue();
    /// The next argument, a{sv}. @throws std::exception if it is none, or has too many
    [[nodiscard]] BusOptions readOptions();
    /// The next argument, "b". @throws std::exception
    [[nodiscard]] bool readFlag();
    /// The same, "s".
    [[nodiscard]] std::string readText();
    /// The same, "t" or "u".
    template <typename Number>
    [[nodiscard]] Number readNumber();
    /// The same, "h", under a number of our own.
    [[nodiscard]] platform::detail::Descriptor readDescriptor();

    void reply();
    void reply(const std::string& text);
    /// With what `append` appends; negative: the library has refused.
    void reply(const std::function<int(sd_bus_message*)>& append);
    void fail(const BusError& error);

private:
    void readBasic(char type, void* value);

    std::unique_ptr<sd_bus_message, platform::detail::Freer<platform::detail::freeBusMessage>> message_;
};

/// Awaits the work, which replies to the call; if it fails, the call gets that error. `loop` outlives this.
/// @throws platform::Cancelled
[[nodiscard]] Task<> answerBy(Task<> work, std::shared_ptr<BusCall> call, platform::BusLoop& loop);

template <>
std::uint32_t BusCall::readNumber<std::uint32_t>();
template <>
std::uint64_t BusCall::readNumber<std::uint64_t>();

} // namespace orlinth::bus
