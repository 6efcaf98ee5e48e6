#include "OrlinthHost/Service/ControlLine.h"

#include "OrlinthCore/Share/ServicePresence.h"

namespace orlinth::host {

namespace {

Task<std::string> readLine(platform::Stream& stream, std::size_t most) {
    std::string line;
    for (;;) {
        std::byte next{};
        const std::size_t count = co_await stream.readExact(MutableBytes(&next, 1));
        if (count == 0) {
            throw ConnectionEnded();
        }
        if (next == std::byte{'\n'}) {
            co_return line;
        }
        if (line.size() == most) {
            throw HostError("a line is too long");
        }
        line += static_cast<char>(next);
    }
}

Task<bool> writeLine(platform::Stream& stream, std::string line) {
    line += '\n';
    co_await stream.writeAll(asBytes(line));
    co_return true;
}

Task<bool> passSecret(platform::UnixSockets& sockets, platform::Stream& stream, ByteView bytes) {
    co_await sockets.sendSecret(stream, bytes);
    co_return true;
}

} // namespace

platform::Path controlSocket(const Home& home) {
    return home.dataDirectory() / ServicePresence::socketName;
}

Task<std::string> readControlLine(platform::Stream& stream, platform::Clock& clock, Seconds limit, std::size_t most) {
    co_return co_await withinLimit(clock, limit, readLine(stream, most));
}

Task<std::string> readControlLine(platform::Stream& stream, std::size_t most) {
    return readLine(stream, most);
}

Task<> sendControlLine(platform::Stream& stream, platform::Clock& clock, std::string line) {
    co_await withinLimit(clock, controlLineLimit, writeLine(stream, std::move(line)));
}

Task<> sendControlSecret(platform::Stream& stream, Home& home, ByteView bytes) {
    co_await withinLimit(home.system.clock, controlLineLimit, passSecret(home.system.unixSockets, stream, bytes));
}

HostError notDone(const std::string& problem) {
    return HostError("the running service did not do it: " + problem);
}

void throwIfRefused(const Json& line) {
    constexpr const char* refusalKey = "error";
    if (line.is_object() && line.contains(refusalKey)) {
        throw notDone(requireString(line, refusalKey));
    }
}

} // namespace orlinth::host
