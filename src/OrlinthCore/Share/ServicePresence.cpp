#include "OrlinthCore/Share/ServicePresence.h"

#include "OrlinthCore/Peers/PeerRecord.h"
#include "base/Json.h"
#include "base/OneShot.h"
#include "platform/Deadline.h"
#include "platform/SystemError.h"

#include <asio/this_coro.hpp>

#include <memory>
#include <string>
#include <utility>

namespace orlinth {
namespace {

using Phones = std::vector<SharePresence>;

constexpr std::string_view presenceQuestion = "{\"request\":\"presence\"}\n";

SharePresence::State stateNamed(const std::string& text) {
    using enum SharePresence::State;
    if (text == "here") {
        return here;
    }
    if (text == "asleep") {
        return asleep;
    }
    return text == "away" ? away : unknown;
}

/// `sockets` outlives the task.
Task<Phones> converse(platform::UnixSockets& sockets, platform::Path socket) {
    const Executor executor = co_await asio::this_coro::executor;
    const std::unique_ptr<platform::Stream> stream = co_await sockets.connect(std::move(socket), executor);
    co_await stream->writeAll(asBytes(presenceQuestion));
    std::string line;
    for (;;) {
        std::byte next{};
        const std::size_t count = co_await stream->readExact(MutableBytes(&next, 1));
        if (count == 0 || line.size() == ServicePresence::maxLine) {
            throw JsonError("no line");
        }
        if (next == std::byte{'\n'}) {
            break;
        }
        line += static_cast<char>(next);
    }
    co_return ServicePresence::decode(line);
}

} // namespace

platform::Path ServicePresence::socketOf(const platform::UserDirectories& directories) {
    return directories.data / PeerStore::defaultDirectoryName / socketName;
}

Task<Phones> ServicePresence::ask(platform::UnixSockets& sockets, platform::Clock& clock, platform::Path socket,
                                  Seconds limit) {
    OneShot<Phones> outcome;
    co_await platform::settleFirst(outcome, clock, limit, std::make_exception_ptr(JsonError("no answer in time")),
                                   converse(sockets, std::move(socket)));
    try {
        co_return outcome.take();
    } catch (const JsonError&) {
        co_return Phones();
    } catch (const platform::SystemError&) {
        co_return Phones(); // mostly, nobody listens
    }
}

Phones ServicePresence::decode(std::string_view line) {
    Phones phones;
    const Json answer = parseJson(line);
    for (const Json& phone : requireArray(answer, "phones")) {
        const std::int64_t seen = requireInt64(phone, "seen_epoch_ms");
        const auto canWake = phone.find("can_wake");
        phones.push_back({.pubkey = PeerKey(requireString(phone, "peer_pubkey")),
                          .state = stateNamed(requireString(phone, "state")),
                          .canWake = canWake != phone.end() && *canWake == true,
                          .seen = seen > 0 ? std::optional(fromEpochMilliseconds(seen)) : std::nullopt});
    }
    return phones;
}

} // namespace orlinth
